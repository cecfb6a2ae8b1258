#pragma once

#include "btrfs/FileUsage.h"

#include <QHash>
#include <QtGlobal>

#include <vector>
#include <sys/stat.h>

// A folder's figures: the sums of its files' (FileUsage), with each extent on disk counted
// once however many of its files refer to it (reflinked copies, the same data in a subvolume
// and its snapshot), as compsize and "btrfs filesystem du" count them.
class FolderUsage
{
public:
    // Files and their apparent size (as "ls -l" shows it).
    struct Count {
        qint64 files = 0;
        qint64 bytes = 0;
        void add(const struct stat &st)
        {
            ++files;
            bytes += st.st_size;
        }
    };

    void add(const FileUsage &file, const struct stat &st);
    // A file that could not be opened: counted, its data unknown.
    void addUnreadable(const struct stat &st);

    // compsize's "Disk Usage": compressed extents by their compressed size, plain data by its
    // place on disk, each once.
    qint64 disk() const;
    // What the compressed data saves, each compressed extent once.
    qint64 savings() const;
    // "btrfs filesystem du"'s "Set shared": the places on disk of extents FIEMAP marks shared,
    // each byte once.
    qint64 shared() const;

    Count all;
    // The sums of the files' figures (FileUsage).
    qint64 referenced = 0;
    qint64 exclusive = 0;
    qint64 compressed = 0;
    qint64 wouldShrink = 0;
    qint64 wouldSave = 0;
    qint64 wouldNotShrink = 0;
    qint64 plainShared = 0;
    // Files Vantor leaves as they are, and files that could not be read.
    Count noCopyOnWrite;
    Count swapFiles;
    Count excluded;
    Count unreadable;

private:
    struct Span {
        quint64 start;
        quint64 end;
    };
    // Sorts and merges spans that overlap or touch, so a tree of many files keeps few of them.
    static void merge(std::vector<Span> &spans);
    static qint64 bytes(std::vector<Span> &spans);
    static void append(std::vector<Span> &spans, quint64 start, qint64 length);

    mutable std::vector<Span> m_plain;
    mutable std::vector<Span> m_shared;
    struct Compressed {
        qint64 disk;
        qint64 savings;
    };
    QHash<quint64, Compressed> m_compressed; // by place on disk
    qint64 m_unplacedDisk = 0;
    qint64 m_unplacedSavings = 0;
};
