#include "helper/RescanCache.h"

#include "platform/AtomicFile.h"
#include "helper/HelperLog.h"
#include "platform/FileManager.h"

#include <QDir>
#include <QFile>

namespace {

constexpr char kMagic[] = "VantorRescanCache3\n";
constexpr qsizetype kMagicSize = sizeof kMagic - 1;
constexpr qsizetype kHashSize = 8; // checksum of everything before it
constexpr qsizetype kRecordSize = 7 * 8;

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
    m_entries.clear();
    m_dirty = false;
    QFile file(path());
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const QByteArray bytes = file.readAll();
    const qsizetype body = bytes.size() - kMagicSize - kHashSize;
    if (body < 0 || body % kRecordSize != 0 || !bytes.startsWith(QByteArrayView(kMagic, kMagicSize))
        || checksum(QByteArrayView(bytes).first(bytes.size() - kHashSize)) != QByteArrayView(bytes).last(kHashSize)) {
        qCWarning(lcHelper, "the rescan cache %s is damaged; it is rebuilt by the next rescan",
                  qPrintable(file.fileName()));
        return false;
    }
    m_entries.reserve(body / kRecordSize);
    for (const char *at = bytes.constData() + kMagicSize; at < bytes.constData() + kMagicSize + body;
         at += kRecordSize) {
        Entry entry{qint64(get(at + 16)),
                    qint64(get(at + 24)),
                    qint64(get(at + 32)),
                    {qint64(get(at + 40)), qint64(get(at + 48))},
                    false};
        m_entries.insert({get(at), get(at + 8)}, entry);
    }
    return true;
}

bool RescanCache::save(bool prune)
{
    if (!m_dirty && !prune)
        return true;
    const QString file = path();
    if (file.isEmpty())
        return false;
    const QString dir = QFileInfo(file).absolutePath();
    QDir().mkpath(dir);
    QFile::setPermissions(dir, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    QByteArray bytes(kMagic, kMagicSize);
    bytes.reserve(kMagicSize + m_entries.size() * kRecordSize + kHashSize);
    char record[kRecordSize];
    for (auto it = m_entries.begin(); it != m_entries.end();) {
        if (prune && !it->seen) {
            it = m_entries.erase(it);
            continue;
        }
        put(record, it.key().device);
        put(record + 8, it.key().inode);
        put(record + 16, quint64(it->size));
        put(record + 24, quint64(it->changeSeconds));
        put(record + 32, quint64(it->changeNanoseconds));
        put(record + 40, quint64(it->figures.savings));
        put(record + 48, quint64(it->figures.shared));
        bytes.append(record, kRecordSize);
        ++it;
    }
    bytes += checksum(bytes);
    QString error;
    if (!AtomicFile::write(file, bytes, &error)) {
        qCWarning(lcHelper, "cannot write the rescan cache %s: %s", qPrintable(file), qPrintable(error));
        return false;
    }
    m_dirty = false;
    return true;
}

std::optional<RescanCache::Figures> RescanCache::find(const struct stat &st)
{
    const auto it = m_entries.find({quint64(st.st_dev), quint64(st.st_ino)});
    if (it == m_entries.end() || it->size != st.st_size || it->changeSeconds != st.st_ctim.tv_sec
        || it->changeNanoseconds != st.st_ctim.tv_nsec)
        return std::nullopt;
    it->seen = true;
    return it->figures;
}

void RescanCache::insert(const struct stat &st, Figures figures)
{
    m_entries.insert({quint64(st.st_dev), quint64(st.st_ino)},
                     {st.st_size, st.st_ctim.tv_sec, st.st_ctim.tv_nsec, figures, true});
    m_dirty = true;
}
