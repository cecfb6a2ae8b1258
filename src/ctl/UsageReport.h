#pragma once

#include "btrfs/CompressionModel.h"
#include "btrfs/FileUsage.h"
#include "btrfs/FolderUsage.h"
#include "btrfs/FolderWalker.h"
#include "btrfs/RescanCache.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QJsonObject>
#include <QList>
#include <QSet>
#include <QString>

#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

// "vantorctl report": what btrfs holds in folders, and what compression saves there or would
// save, for each folder asked and its subfolders down to a depth. It walks each folder and adds
// each file's figures to every reported folder above it; the figures themselves are the btrfs
// library's (FileUsage, FolderUsage). Files of folders Vantor watches are measured from the
// rescan cache where the helper has seen them as they are, so only their extents are read.
class UsageReport
{
public:
    // watched: the real paths of the folders Vantor watches. progress: tell on standard error
    // how far the walk is (for a terminal).
    UsageReport(int depth, const QList<QByteArray> &watched, bool progress);

    // Walks the folder at path (absolute); false with *error, one line, when it cannot.
    bool add(const QByteArray &path, QString *error);

    QString text() const;
    QJsonObject json() const;

    // A path for people and JSON: as it is when UTF-8, else with its odd bytes as %XX.
    static QString shown(const QByteArray &path);

private:
    struct Node {
        QByteArray path;
        QByteArray real; // with links resolved, as the watched folders are known
        bool watched = false;
        FolderUsage usage;
        QList<FolderWalker::LeftOut> leftOut; // relative to the folder asked for
        std::map<QByteArray, std::unique_ptr<Node>> children; // by name
    };

    // The reported folders a folder at relative (below top) belongs to, top first.
    std::vector<Node *> nodesFor(Node *top, const QByteArray &relative);
    // One file of folder (below the folder at rootFd), added to nodes, the folders it is in.
    void addFile(int rootFd, const FolderWalker &walker, const QByteArray &folder, const QByteArray &name,
                 const struct stat &st, bool watched, const std::vector<Node *> &nodes);
    bool isWatched(const QByteArray &realPath) const;
    FileUsage::Kind kindOf(int fd, const struct stat &st) const;
    RescanCache *cache();
    void tell(bool done = false);

    void print(const Node &node, const QByteArray &top, QString *text) const;
    QJsonObject json(const Node &node, const QByteArray &top, int level) const;

    int m_depth;
    QList<QByteArray> m_watched;
    std::vector<std::unique_ptr<Node>> m_folders;
    QSet<std::pair<quint64, quint64>> m_swapFiles; // device and inode
    QSet<std::pair<quint64, quint64>> m_linked; // files with several names, counted once
    CompressionModel m_model;
    FileUsage m_file;
    std::optional<RescanCache> m_cache;
    bool m_cacheLoaded = false;

    bool m_progress;
    QElapsedTimer m_told;
    qint64 m_files = 0;
    qint64 m_read = 0;
};
