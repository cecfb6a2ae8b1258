#pragma once

#include <QString>

// A small file system of the test's own: a sparse image, formatted and loop-mounted in a
// folder the test owns; unmounted and removed again when the object goes. Mounting needs
// root and loop devices; where either is missing, mount() fails and reason() says why, so
// the test can skip.
class LoopMount
{
public:
    // type: "btrfs" or "ext4". The image and the mount point are made inside dir.
    LoopMount(const QString &dir, const QString &type, int megabytes = 256);
    ~LoopMount();
    LoopMount(const LoopMount &) = delete;
    LoopMount &operator=(const LoopMount &) = delete;

    bool mount();
    QString reason() const { return m_reason; }
    QString mountPoint() const { return m_mountPoint; }

    // Figures of tools we did not write, after everything written is committed.
    // A field of "btrfs filesystem usage -b" ("Used:", "Free (statfs, df):").
    qint64 usage(const QString &field) const;
    // What compression saves in path: "Uncompressed" less "Disk Usage" of compsize -b.
    static qint64 compsizeSavings(const QString &path);
    // Whether compsize finds zstd extents in path (given as text: compsize's arguments are).
    static bool isCompressed(const QString &path);
    // Bytes a file keeps to itself, as "btrfs filesystem du" tells from FIEMAP.
    static qint64 exclusiveBytes(const QString &path);

private:
    bool run(const QString &program, const QStringList &arguments);

    QString m_image;
    QString m_mountPoint;
    QString m_type;
    int m_megabytes;
    bool m_mounted = false;
    QString m_reason;
};
