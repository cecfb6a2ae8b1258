#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <optional>

#include "common/VantorCommonExport.h"

// The bytes behind a BDAlias: what is known about a file or folder and its volume when the
// alias was made. Versioned and length-checked; docs/alias-record.md gives the layout.
struct VANTOR_COMMON_EXPORT AliasRecord {
    static constexpr quint16 kVersion = 1;

    enum VolumeFlag : quint32 {
        BootVolume = 0x1,
        Automounted = 0x2,
        Ejectable = 0x4,
        PersistentFileIds = 0x8,
    };
    enum TargetFlag : quint32 {
        IsDirectory = 0x1,
    };

    // Volume identity: the file-system UUID where blkid knows one, the btrfs subvolume
    // holding the item (0 elsewhere), and the device number as a fallback.
    QByteArray volumeUuid;
    quint64 subvolumeId = 0;
    quint64 device = 0;
    quint32 fsMagic = 0; // statfs f_type
    QByteArray fsType;
    QByteArray volumeName;
    QByteArray mountPoint;
    quint32 volumeFlags = 0;

    quint64 node = 0;
    quint64 parentNode = 0;
    quint32 targetFlags = 0;
    QByteArray name;
    QByteArray path;

    // name_to_handle_at's handle; empty when the file system gives none.
    qint32 handleType = 0;
    QByteArray handle;

    // For an alias made relative to a base: the base's node and the way from it.
    quint64 baseNode = 0;
    QByteArray relativePath;

    QByteArray toBytes() const;
    // nullopt for anything that is not a whole, intact record of a known version.
    static std::optional<AliasRecord> fromBytes(const QByteArray &bytes);
};
