#pragma once

#include "btrfs/ExtentMap.h"

#include <QByteArray>
#include <QString>

#include <atomic>

// The file-system side of compression: which file system a folder is on, the folder's
// compression property, and rewriting one file compressed with zstd through btrfs's own
// defragment-and-compress call. Everything works on descriptors and byte paths.
class BtrfsCompressor
{
public:
    enum class Result {
        Compressed,
        InUse, // open for writing elsewhere: no read lease could be taken, or it was broken
        NoSpace, // the disk is too full to go on; what was not rewritten is as it was
        Failed, // the file system refused; errno tells why
    };

    static bool isBtrfs(int fd);
    // The file system's type name as the mount table gives it ("ext4", "xfs", ...).
    static QString fileSystemName(const QByteArray &path);

    // Sets the "btrfs.compression" property to zstd on a folder (new files inherit it) or a
    // file (its later writes are compressed, and a chunk that does not shrink does not turn
    // compression off for the whole file).
    static bool setCompressionProperty(int fd);
    // Sets it only where it is not set yet: a rescan then changes nothing on disk.
    static bool ensureCompressionProperty(int fd);

    // Rewrites these ranges of the file compressed, in steps, holding a read lease so that a
    // writer opening the file stops the rewrite instead of waiting behind it. With little free
    // space the steps are small and each is committed, so the old extents are freed before the
    // next is written. fd must be open read-only.
    static Result compressRanges(int fd, const QList<ExtentMap::Range> &ranges, const std::atomic<bool> &cancel);

    // Idle CPU and I/O priority for the calling thread.
    static void lowerThreadPriority();
};
