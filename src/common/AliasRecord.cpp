#include "common/AliasRecord.h"

#include <QtEndian>

#include <cstring>

namespace {

constexpr char kMagic[4] = {'V', 'T', 'A', 'L'};
constexpr qsizetype kHeaderSize = 12;
constexpr qsizetype kTrailerSize = 2;
// Paths are at most PATH_MAX; anything longer is not ours.
constexpr quint32 kMaxField = 65536;

class Writer
{
public:
    template <typename T>
    void put(T value)
    {
        char raw[sizeof(T)];
        qToLittleEndian(value, raw);
        m_bytes.append(raw, sizeof(T));
    }
    void putBytes(const QByteArray &bytes)
    {
        put<quint32>(quint32(bytes.size()));
        m_bytes.append(bytes);
    }
    QByteArray &bytes() { return m_bytes; }

private:
    QByteArray m_bytes;
};

class Reader
{
public:
    Reader(const char *data, qsizetype size)
        : m_data(data)
        , m_left(size)
    {
    }
    template <typename T>
    T get()
    {
        if (m_left < qsizetype(sizeof(T))) {
            m_ok = false;
            return T();
        }
        const T value = qFromLittleEndian<T>(m_data);
        m_data += sizeof(T);
        m_left -= sizeof(T);
        return value;
    }
    QByteArray getBytes()
    {
        const quint32 size = get<quint32>();
        if (!m_ok || size > kMaxField || qsizetype(size) > m_left) {
            m_ok = false;
            return {};
        }
        QByteArray bytes(m_data, size);
        m_data += size;
        m_left -= size;
        return bytes;
    }
    bool atEnd() const { return m_ok && m_left == 0; }
    bool ok() const { return m_ok; }

private:
    const char *m_data;
    qsizetype m_left;
    bool m_ok = true;
};

} // namespace

QByteArray AliasRecord::toBytes() const
{
    Writer w;
    w.bytes().append(kMagic, sizeof kMagic);
    w.put<quint16>(kVersion);
    w.put<quint16>(0);
    w.put<quint32>(0); // total length, filled in below
    w.putBytes(volumeUuid);
    w.put<quint64>(subvolumeId);
    w.put<quint64>(device);
    w.put<quint32>(fsMagic);
    w.putBytes(fsType);
    w.putBytes(volumeName);
    w.putBytes(mountPoint);
    w.put<quint32>(volumeFlags);
    w.put<quint64>(node);
    w.put<quint64>(parentNode);
    w.put<quint32>(targetFlags);
    w.putBytes(name);
    w.putBytes(path);
    w.put<qint32>(handleType);
    w.putBytes(handle);
    w.put<quint64>(baseNode);
    w.putBytes(relativePath);

    QByteArray &bytes = w.bytes();
    qToLittleEndian<quint32>(quint32(bytes.size() + kTrailerSize), bytes.data() + 8);
    w.put<quint16>(qChecksum(QByteArrayView(bytes)));
    return bytes;
}

std::optional<AliasRecord> AliasRecord::fromBytes(const QByteArray &bytes)
{
    if (bytes.size() < kHeaderSize + kTrailerSize || std::memcmp(bytes.constData(), kMagic, sizeof kMagic) != 0)
        return std::nullopt;
    const char *data = bytes.constData();
    // Reserved must be 0: a record using it was made by a format this code does not know.
    if (qFromLittleEndian<quint16>(data + 4) != kVersion || qFromLittleEndian<quint16>(data + 6) != 0
        || qFromLittleEndian<quint32>(data + 8) != quint32(bytes.size()))
        return std::nullopt;
    const qsizetype bodyEnd = bytes.size() - kTrailerSize;
    if (qFromLittleEndian<quint16>(data + bodyEnd) != qChecksum(QByteArrayView(data, bodyEnd)))
        return std::nullopt;

    Reader r(data + kHeaderSize, bodyEnd - kHeaderSize);
    AliasRecord rec;
    rec.volumeUuid = r.getBytes();
    rec.subvolumeId = r.get<quint64>();
    rec.device = r.get<quint64>();
    rec.fsMagic = r.get<quint32>();
    rec.fsType = r.getBytes();
    rec.volumeName = r.getBytes();
    rec.mountPoint = r.getBytes();
    rec.volumeFlags = r.get<quint32>();
    rec.node = r.get<quint64>();
    rec.parentNode = r.get<quint64>();
    rec.targetFlags = r.get<quint32>();
    rec.name = r.getBytes();
    rec.path = r.getBytes();
    rec.handleType = r.get<qint32>();
    rec.handle = r.getBytes();
    rec.baseNode = r.get<quint64>();
    rec.relativePath = r.getBytes();
    if (!r.atEnd() || !rec.path.startsWith('/') || !rec.mountPoint.startsWith('/'))
        return std::nullopt;
    return rec;
}
