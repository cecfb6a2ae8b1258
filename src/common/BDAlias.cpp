#include "common/BDAlias.h"
#include "common/CommonLog.h"

#include "common/AliasRecord.h"
#include "common/AliasResolver.h"
#include "common/FSRef.h"

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QHash>

namespace {

// Bits of the info bitmap: what the record could say.
constexpr quint32 kInfoIsDirectory = 0x02;
constexpr quint32 kInfoIDs = 0x10;
constexpr quint32 kInfoFSInfo = 0x20;
constexpr quint32 kInfoVolumeFlags = 0x40;

AliasHandle handleFromData(const QByteArray &data)
{
    return data.isNull() ? nullptr : std::make_unique<QByteArray>(data);
}

// Names and paths become strings only when they are UTF-8; otherwise there is no value.
std::optional<QString> utf8(const QByteArray &bytes)
{
    QString text = QString::fromUtf8(bytes);
    if (text.toUtf8() != bytes)
        return std::nullopt;
    return text;
}

} // namespace

BDAlias::BDAlias(AliasHandle alias)
    : m_alias(std::move(alias))
{
}

BDAlias::BDAlias(const QByteArray &data)
    : BDAlias(handleFromData(data))
{
}

BDAlias::BDAlias(QDataStream &decoder)
{
    QByteArray data;
    decoder >> data;
    m_alias = handleFromData(data);
}

BDAlias::~BDAlias()
{
    cleanup();
}

std::unique_ptr<BDAlias> BDAlias::aliasWithAliasHandle(AliasHandle alias)
{
    return std::make_unique<BDAlias>(std::move(alias));
}

std::unique_ptr<BDAlias> BDAlias::aliasWithData(const QByteArray &data)
{
    return std::make_unique<BDAlias>(data);
}

std::unique_ptr<BDAlias> BDAlias::aliasWithPath(const QString &path, Error *error)
{
    int status = 0;
    const FSRef ref = FSRef::fromPath(path, &status);
    if (!ref.isValid()) {
        if (error)
            *error = {QLatin1String(kOSStatusErrorDomain), status};
        return nullptr;
    }
    return aliasWithFSRef(ref, nullptr, error);
}

std::unique_ptr<BDAlias> BDAlias::aliasWithPath(const QString &path, const QString &relativeToPath)
{
    const FSRef target = FSRef::fromPath(relativeToPath + u'/' + path);
    if (!target.isValid())
        return nullptr;
    const FSRef base = FSRef::fromPath(relativeToPath);
    if (!base.isValid())
        return nullptr;
    return aliasWithFSRef(target, &base);
}

std::unique_ptr<BDAlias> BDAlias::aliasWithFSRef(const FSRef &ref, const FSRef *relativeToFSRef, Error *error)
{
    int status = 0;
    const std::optional<AliasRecord> record = AliasResolver::makeRecord(ref, relativeToFSRef, &status);
    if (!record) {
        if (error)
            *error = {QLatin1String(kOSStatusErrorDomain), status};
        return nullptr;
    }
    return std::make_unique<BDAlias>(std::make_unique<QByteArray>(record->toBytes()));
}

void BDAlias::encodeWithCoder(QDataStream &encoder) const
{
    encoder << aliasData();
}

void BDAlias::setAlias(AliasHandle alias)
{
    m_alias = std::move(alias);
}

QByteArray BDAlias::aliasData() const
{
    return m_alias ? QByteArray(m_alias->constData(), m_alias->size()) : QByteArray();
}

void BDAlias::setAliasData(const QByteArray &data)
{
    setAlias(handleFromData(data));
}

QString BDAlias::fullPath() const
{
    return fullPathRelativeToPath(QString());
}

QString BDAlias::fullPathRelativeToPath(const QString &relativeToPath) const
{
    if (!m_alias)
        return {};
    FSRef base;
    if (!relativeToPath.isNull()) {
        base = FSRef::fromPath(relativeToPath);
        if (!base.isValid())
            return {};
    }
    const std::optional<AliasRecord> record = AliasRecord::fromBytes(*m_alias);
    if (!record)
        return {};
    const QByteArray path = AliasResolver::resolve(*record, base.isValid() ? &base : nullptr);
    return path.isEmpty() ? QString() : QFile::decodeName(path);
}

bool BDAlias::isEqual(const BDAlias *other) const
{
    if (!other)
        return false;
    const QString mine = fullPath();
    return !mine.isNull() && mine == other->fullPath();
}

size_t BDAlias::hash() const
{
    const QString path = fullPath();
    return path.isNull() ? 0 : qHash(path);
}

std::optional<QVariantMap> BDAlias::aliasInfo() const
{
    if (!m_alias)
        return std::nullopt;
    const std::optional<AliasRecord> rec = AliasRecord::fromBytes(*m_alias);
    if (!rec)
        return std::nullopt;
    const std::optional<QString> target = utf8(rec->name);
    const std::optional<QString> volume = utf8(rec->volumeName);
    const std::optional<QString> path = utf8(rec->path);
    if (!target || !volume || !path)
        return std::nullopt;
    return QVariantMap{
        {QStringLiteral("targetNameString"), *target},
        {QStringLiteral("volumeNameString"), *volume},
        {QStringLiteral("pathString"), *path},
        // No type and creator codes on Linux.
        {QStringLiteral("fileType"), quint32(0)},
        {QStringLiteral("fileCreator"), quint32(0)},
        // 64-bit inode numbers, truncated to the 32 bits these keys hold.
        {QStringLiteral("parentDirID"), quint32(rec->parentNode)},
        {QStringLiteral("nodeID"), quint32(rec->node)},
        // Every volume here is served by the kernel's own file system, as ID 0 meant.
        {QStringLiteral("filesystemID"), quint32(0)},
        // The file system's magic number, cut to 16 bits like the volume signature.
        {QStringLiteral("signature"), quint32(rec->fsMagic & 0xffff)},
        {QStringLiteral("volumeIsBootVolume"), bool(rec->volumeFlags & AliasRecord::BootVolume)},
        {QStringLiteral("volumeIsAutomounted"), bool(rec->volumeFlags & AliasRecord::Automounted)},
        {QStringLiteral("volumeIsEjectable"), bool(rec->volumeFlags & AliasRecord::Ejectable)},
        {QStringLiteral("volumeHasPersistentFileIDs"), bool(rec->volumeFlags & AliasRecord::PersistentFileIds)},
    };
}

void BDAlias::dump() const
{
    const std::optional<AliasRecord> rec = m_alias ? AliasRecord::fromBytes(*m_alias) : std::nullopt;
    if (!rec) {
        // -50: the record is missing or not one of ours.
        qCInfo(lcCommon, "FSCopyAliasInfo returned error %i", -50);
        return;
    }
    const quint32 bitmap = kInfoIDs | kInfoFSInfo | kInfoVolumeFlags
        | ((rec->targetFlags & AliasRecord::IsDirectory) ? kInfoIsDirectory : 0);
    qCInfo(lcCommon, "Target name = '%s'", qPrintable(QFile::decodeName(rec->name)));
    qCInfo(lcCommon, "Volume name = '%s'", qPrintable(QFile::decodeName(rec->volumeName)));
    qCInfo(lcCommon, "Path        = %s", qPrintable(QFile::decodeName(rec->path)));
    qCInfo(lcCommon, "Info bitmap = %08X", bitmap);
}

void BDAlias::cleanup()
{
    m_alias.reset();
}
