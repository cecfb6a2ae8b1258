#pragma once

#include <QHash>
#include <QMutex>
#include <QString>

#include <optional>

struct stat;

// Files btrfs cannot or will not compress, remembered with the reason so that later passes
// leave them alone instead of rewriting them again. A file counts as the same while its inode
// and change time are: any change of content or attributes (chattr -C, say) gives it another try.
// Thread-safe.
class SkippedFiles
{
public:
    enum class Reason {
        NoCopyOnWrite, // chattr +C: btrfs compresses only copy-on-write data
        SwapFile, // the kernel refuses to move an active swap file's blocks
        StaysPlain, // rewritten once and still stored uncompressed
    };

    // The reason visible before any rewrite, if there is one.
    static std::optional<Reason> cannotCompress(int fd);
    static QString describe(Reason reason);

    std::optional<Reason> find(const struct stat &st) const;
    void add(const struct stat &st, Reason reason);

private:
    struct Key {
        quint64 device;
        quint64 inode;
        qint64 changeSeconds;
        qint64 changeNanoseconds;
        bool operator==(const Key &) const = default;
    };
    friend size_t qHash(const Key &key, size_t seed)
    {
        return qHashMulti(seed, key.device, key.inode, key.changeNanoseconds);
    }
    static Key keyOf(const struct stat &st);

    mutable QMutex m_lock;
    QHash<Key, Reason> m_files;
};
