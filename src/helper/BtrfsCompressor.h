#pragma once

#include <QByteArray>
#include <QString>

// The file-system side of compression: which file system a folder is on, the folder's
// compression property, and rewriting a file's data compressed with zstd, piece by piece,
// through btrfs's own defragment-and-compress call. Everything works on descriptors.
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
    // file. A file gets it only while it has data not yet written: btrfs compresses that as
    // it writes it out, where its defragment call would pass over it. Setting it is a change
    // the watch hears, and later writes to files are seen and compressed anyway.
    static bool setCompressionProperty(int fd);
    // Sets it only where it is not set yet: a rescan then changes nothing on disk.
    static bool ensureCompressionProperty(int fd);

    // A read lease while the file is rewritten, so that a writer opening it stops the rewrite
    // instead of waiting behind it; taken only while nobody has the file open for writing.
    static Result takeLease(int fd);
    static bool holdsLease(int fd);
    static void releaseLease(int fd);

    // Rewrites at most length bytes from start compressed; returns how many it did in *done.
    // With little free space the piece is smaller and committed at once, so the old extents
    // are freed before the next. fd must be open read-only.
    static Result compressPiece(int fd, qint64 start, qint64 length, qint64 *done);
    // Writes out a piece of data still waiting in memory, for a file with the property set,
    // so it is compressed on the way; returns once it is on disk.
    static Result writeOutPiece(int fd, qint64 start, qint64 length, qint64 *done);
    // Returns once what was handed over is compressed and on disk: btrfs writes a piece out,
    // checksums it and records its extents in its workers after the call that started it has
    // returned, so only this tells how long the kernel was busy with a piece.
    static void waitWrittenOut(int fd);

    // Idle CPU priority for the calling thread, so that any other task runs first, and the
    // lowest best-effort I/O priority (the idle class would starve its reads behind the
    // kernel's writing of what it handed over). Only ever lowered: an ordinary user could not
    // raise it again.
    static void lowerThreadPriority();
};
