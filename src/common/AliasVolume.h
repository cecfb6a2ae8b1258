#pragma once

#include <QByteArray>
#include <QList>
#include <QtGlobal>

#include <optional>

#include "common/VantorCommonExport.h"

// One mounted file system as /proc/self/mountinfo lists it, with the identity an alias
// record keeps of it.
class VANTOR_COMMON_EXPORT AliasVolume
{
public:
    quint64 device = 0; // the mount's major:minor
    QByteArray mountPoint;
    QByteArray fsType;
    QByteArray source; // e.g. /dev/sda1
    QByteArray superOptions; // e.g. rw,subvolid=256,subvol=/home

    // Every mount of this process's namespace, in mount order (later ones lie on top).
    static QList<AliasVolume> mounted();
    // The mount holding an absolute, symlink-free path: the last, longest mount point above it.
    static std::optional<AliasVolume> containing(const QByteArray &path, const QList<AliasVolume> &mounts);

    // The file-system UUID: a btrfs's as it tells any user, else the one blkid reports for the
    // source device; empty when it has none or the device cannot be read.
    QByteArray uuid() const;
    // The label if the file system has one, else the mount point.
    QByteArray name() const;
    bool isAutomounted(const QList<AliasVolume> &mounts) const;
    bool isEjectable() const;
    bool hasPersistentFileIds() const;

    // The btrfs subvolume holding an open item; 0 on other file systems.
    static quint64 btrfsSubvolumeId(int fd);
    // A path field of /proc/self/mountinfo or /proc/swaps, which write space, tab, newline and
    // backslash as \ooo.
    static QByteArray unescape(const QByteArray &field);
};
