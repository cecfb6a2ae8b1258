#include "btrfs/RescanCache.h"

#include "platform/AtomicFile.h"
#include "btrfs/BtrfsLog.h"
#include "platform/FileManager.h"

#include <QFileInfo>
#include <QFile>

#include <algorithm>

namespace {

constexpr char kMagic[] = "VantorRescanCache4\n";
constexpr qsizetype kMagicSize = sizeof kMagic - 1;
constexpr qsizetype kHashSize = 8; // checksum of everything before it
constexpr qsizetype kRecordSize = 8 * 8;
constexpr qsizetype kStoredSize = 2 * 8; // one compressed extent, after all records

void put(char *at, quint64 value)
{
    for (int i = 0; i < 8; ++i)
        at[i] = char(value >> (8 * i));
}

quint64 get(const char *at)
{
    quint64 value = 0;
    for (int i = 0; i < 8; ++i)
        value |= quint64(quint8(at[i])) << (8 * i);
    return value;
}

// A 64-bit checksum, enough to tell a damaged file (which is all it is for) and fast enough
// not to count in a rescan.
QByteArray checksum(QByteArrayView bytes)
{
    quint64 hash = 0x9e3779b97f4a7c15ULL ^ quint64(bytes.size());
    qsizetype i = 0;
    for (; i + 8 <= bytes.size(); i += 8) {
        hash = (hash ^ get(bytes.data() + i)) * 0xff51afd7ed558ccdULL;
        hash ^= hash >> 32;
    }
    for (; i < bytes.size(); ++i)
        hash = (hash ^ quint8(bytes[i])) * 0x100000001b3ULL;
    hash ^= hash >> 33;
    hash *= 0xc4ceb9fe1a85ec53ULL;
    hash ^= hash >> 33;
    char out[8];
    put(out, hash);
    return QByteArray(out, 8);
}

} // namespace

QString RescanCache::path()
{
    const QString cache = FileManager::userDirectory("XDG_CACHE_HOME", QStringLiteral(".cache"));
    return cache.isEmpty() ? QString() : cache + QStringLiteral("/vantor/files.cache");
}

bool RescanCache::load()
{
    m_records.clear();
    m_stored.clear();
    m_index.clear();
    m_dirty = false;
    QFile file(path());
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray bytes = file.readAll();
    const qsizetype body = bytes.size() - kMagicSize - kHashSize;
    const char *at = bytes.constData() + kMagicSize + 8;
    const quint64 records = body >= 8 ? get(at - 8) : 0;
    const bool sound = body >= 8 && records < kEmpty / 2 && qsizetype(records) * kRecordSize <= body - 8
        && bytes.startsWith(QByteArrayView(kMagic, kMagicSize))
        && checksum(QByteArrayView(bytes).first(bytes.size() - kHashSize)) == QByteArrayView(bytes).last(kHashSize);
    qsizetype storedLeft = sound ? (body - 8 - qsizetype(records) * kRecordSize) : 0;
    if (sound) {
        m_records.reserve(std::size_t(records));
        for (quint64 i = 0; i < records; ++i, at += kRecordSize) {
            const quint64 count = get(at + 56);
            if (count > quint64(storedLeft / kStoredSize) || count >= (1u << 31))
                break;
            storedLeft -= qsizetype(count) * kStoredSize;
            m_records.push_back({get(at), get(at + 8), qint64(get(at + 16)), qint64(get(at + 24)), qint64(get(at + 32)),
                                 qint64(get(at + 40)), qint64(get(at + 48)), 0, quint32(count), false});
        }
    }
    if (!sound || m_records.size() != records || storedLeft != 0) {
        m_records.clear();
        qCWarning(lcBtrfs, "the rescan cache %s is damaged; it is rebuilt by the next rescan",
                  qPrintable(file.fileName()));
        return false;
    }
    for (Record &record : m_records) {
        record.storedAt = quint32(m_stored.size());
        for (quint32 i = 0; i < record.storedCount; ++i, at += kStoredSize)
            m_stored.push_back({get(at), qint64(get(at + 8))});
    }
    rebuildIndex();
    return true;
}

bool RescanCache::save(bool prune)
{
    if (!m_dirty && !prune)
        return true;
    const QString file = path();
    if (file.isEmpty())
        return false;
    FileManager::createUserDirectory(QFileInfo(file).absolutePath());
    if (prune) {
        const auto gone = std::remove_if(m_records.begin(), m_records.end(), [](const Record &r) { return !r.seen; });
        if (gone != m_records.end()) {
            m_records.erase(gone, m_records.end());
            m_records.shrink_to_fit();
            rebuildIndex();
        }
    }
    // Extents of files stored again or pruned are left out.
    std::vector<ExtentMap::Stored> stored;
    for (Record &r : m_records) {
        const quint32 at = quint32(stored.size());
        stored.insert(stored.end(), m_stored.begin() + r.storedAt, m_stored.begin() + r.storedAt + r.storedCount);
        r.storedAt = at;
    }
    m_stored = std::move(stored);
    QByteArray bytes(kMagic, kMagicSize);
    bytes.reserve(kMagicSize + 8 + qsizetype(m_records.size()) * kRecordSize + qsizetype(m_stored.size()) * kStoredSize
                  + kHashSize);
    char record[kRecordSize];
    put(record, m_records.size());
    bytes.append(record, 8);
    for (const Record &r : m_records) {
        put(record, r.device);
        put(record + 8, r.inode);
        put(record + 16, quint64(r.size));
        put(record + 24, quint64(r.changeSeconds));
        put(record + 32, quint64(r.changeNanoseconds));
        put(record + 40, quint64(r.inlineSavings));
        put(record + 48, quint64(r.sharedPlain));
        put(record + 56, r.storedCount);
        bytes.append(record, kRecordSize);
    }
    for (const ExtentMap::Stored &extent : m_stored) {
        put(record, extent.physical);
        put(record + 8, quint64(extent.savings));
        bytes.append(record, kStoredSize);
    }
    bytes += checksum(bytes);
    QString error;
    if (!AtomicFile::write(file, bytes, &error)) {
        qCWarning(lcBtrfs, "cannot write the rescan cache %s: %s", qPrintable(file), qPrintable(error));
        return false;
    }
    m_dirty = false;
    return true;
}

quint32 *RescanCache::slot(quint64 device, quint64 inode)
{
    quint64 hash = (inode ^ (device * 0x9e3779b97f4a7c15ULL)) * 0xff51afd7ed558ccdULL;
    hash ^= hash >> 29;
    const std::size_t mask = m_index.size() - 1;
    for (std::size_t i = std::size_t(hash) & mask;; i = (i + 1) & mask) {
        quint32 &at = m_index[i];
        if (at == kEmpty || (m_records[at].inode == inode && m_records[at].device == device))
            return &at;
    }
}

void RescanCache::rebuildIndex()
{
    std::size_t wanted = 16;
    while (wanted < 2 * m_records.size() + 2)
        wanted *= 2;
    m_index.assign(wanted, kEmpty);
    for (std::size_t i = 0; i < m_records.size(); ++i) {
        quint32 *at = slot(m_records[i].device, m_records[i].inode);
        if (*at == kEmpty)
            *at = quint32(i);
    }
}

std::optional<RescanCache::Figures> RescanCache::find(const struct stat &st, QList<ExtentMap::Stored> &extents)
{
    if (m_index.empty())
        return std::nullopt;
    // A rescan meets files mostly in the order they were stored: try the record after the last
    // one found before a lookup that would likely miss the processor's cache.
    quint32 at = m_lastFound + 1;
    if (at >= m_records.size() || m_records[at].inode != quint64(st.st_ino)
        || m_records[at].device != quint64(st.st_dev)) {
        at = *slot(quint64(st.st_dev), quint64(st.st_ino));
        if (at == kEmpty)
            return std::nullopt;
    }
    m_lastFound = at;
    Record &record = m_records[at];
    if (record.size != st.st_size || record.changeSeconds != st.st_ctim.tv_sec
        || record.changeNanoseconds != st.st_ctim.tv_nsec)
        return std::nullopt;
    record.seen = true;
    for (quint32 i = record.storedAt; i < record.storedAt + record.storedCount; ++i)
        extents.append(m_stored[i]);
    return Figures{record.inlineSavings, record.sharedPlain, {}};
}

void RescanCache::insert(const struct stat &st, const Figures &figures)
{
    const Record record{quint64(st.st_dev),
                        quint64(st.st_ino),
                        st.st_size,
                        st.st_ctim.tv_sec,
                        st.st_ctim.tv_nsec,
                        figures.inlineSavings,
                        figures.sharedPlain,
                        quint32(m_stored.size()),
                        quint32(figures.extents.size()),
                        true};
    m_stored.insert(m_stored.end(), figures.extents.cbegin(), figures.extents.cend());
    m_dirty = true;
    if (!m_index.empty()) {
        if (quint32 *at = slot(record.device, record.inode); *at != kEmpty) {
            m_records[*at] = record;
            return;
        }
    }
    m_records.push_back(record);
    if (2 * m_records.size() + 2 > m_index.size())
        rebuildIndex();
    else
        *slot(record.device, record.inode) = quint32(m_records.size() - 1);
}
