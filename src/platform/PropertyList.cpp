#include "platform/PropertyList.h"

#include "platform/AtomicFile.h"

#include <QDateTime>
#include <QFile>
#include <QXmlStreamReader>

#include <plist/plist.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

namespace {

// libplist counts dates from the start of 2001, as the original format does.
constexpr qint64 kPlistEpochOffset = 978307200;

// Guards against nesting deep enough to exhaust the stack while converting.
constexpr int kMaxDepth = 512;

struct PlistDeleter {
    void operator()(plist_t node) const { plist_free(node); }
};
using PlistPtr = std::unique_ptr<void, PlistDeleter>;

std::optional<QVariant> toVariant(plist_t node, int depth)
{
    if (!node || depth > kMaxDepth)
        return std::nullopt;
    switch (plist_get_node_type(node)) {
    case PLIST_BOOLEAN: {
        uint8_t b = 0;
        plist_get_bool_val(node, &b);
        return QVariant(b != 0);
    }
    case PLIST_UINT: {
        // libplist 2.2 keeps integers as 64-bit words and writes them back signed.
        uint64_t v = 0;
        plist_get_uint_val(node, &v);
        return QVariant(static_cast<qint64>(v));
    }
    case PLIST_REAL: {
        double d = 0;
        plist_get_real_val(node, &d);
        return QVariant(d);
    }
    case PLIST_STRING: {
        // Not plist_get_string_val, which copies only to assert that no NUL is inside.
        uint64_t length = 0;
        const char *s = plist_get_string_ptr(node, &length);
        if (!s)
            return QVariant(QString());
        return QVariant(QString::fromUtf8(s, qsizetype(strnlen(s, size_t(length)))));
    }
    case PLIST_DATA: {
        char *d = nullptr;
        uint64_t len = 0;
        plist_get_data_val(node, &d, &len);
        QByteArray bytes(d ? d : "", d ? qsizetype(len) : 0);
        std::free(d);
        return QVariant(bytes);
    }
    case PLIST_DATE: {
        int32_t sec = 0, usec = 0;
        plist_get_date_val(node, &sec, &usec);
        const qint64 ms = (qint64(sec) + kPlistEpochOffset) * 1000 + usec / 1000;
        return QVariant(QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC));
    }
    case PLIST_ARRAY: {
        QVariantList list;
        const uint32_t n = plist_array_get_size(node);
        list.reserve(n);
        for (uint32_t i = 0; i < n; ++i) {
            auto item = toVariant(plist_array_get_item(node, i), depth + 1);
            if (!item)
                return std::nullopt;
            list.append(*item);
        }
        return QVariant(list);
    }
    case PLIST_DICT: {
        QVariantMap map;
        plist_dict_iter it = nullptr;
        plist_dict_new_iter(node, &it);
        for (;;) {
            char *key = nullptr;
            plist_t value = nullptr;
            plist_dict_next_item(node, it, &key, &value);
            if (!value) {
                std::free(key);
                break;
            }
            auto item = toVariant(value, depth + 1);
            const QString k = QString::fromUtf8(key ? key : "");
            std::free(key);
            if (!item) {
                std::free(it);
                return std::nullopt;
            }
            map.insert(k, *item);
        }
        std::free(it);
        return QVariant(map);
    }
    default:
        return std::nullopt;
    }
}

plist_t fromVariant(const QVariant &v, int depth)
{
    if (depth > kMaxDepth)
        return nullptr;
    switch (v.typeId()) {
    case QMetaType::Bool:
        return plist_new_bool(v.toBool());
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::Short:
    case QMetaType::Long:
        return plist_new_uint(static_cast<uint64_t>(v.toLongLong()));
    case QMetaType::UInt:
    case QMetaType::ULongLong:
    case QMetaType::UShort:
    case QMetaType::ULong:
        return plist_new_uint(v.toULongLong());
    case QMetaType::Double:
    case QMetaType::Float:
        return plist_new_real(v.toDouble());
    case QMetaType::QString:
        return plist_new_string(v.toString().toUtf8().constData());
    case QMetaType::QByteArray: {
        const QByteArray b = v.toByteArray();
        return plist_new_data(b.constData(), uint64_t(b.size()));
    }
    case QMetaType::QDateTime: {
        const qint64 ms = v.toDateTime().toMSecsSinceEpoch() - kPlistEpochOffset * 1000;
        const qint64 sec = ms >= 0 ? ms / 1000 : (ms - 999) / 1000;
        return plist_new_date(int32_t(sec), int32_t((ms - sec * 1000) * 1000));
    }
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        plist_t array = plist_new_array();
        for (const QVariant &item : v.toList()) {
            plist_t node = fromVariant(item, depth + 1);
            if (!node) {
                plist_free(array);
                return nullptr;
            }
            plist_array_append_item(array, node);
        }
        return array;
    }
    case QMetaType::QVariantMap: {
        plist_t dict = plist_new_dict();
        const QVariantMap map = v.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            plist_t node = fromVariant(it.value(), depth + 1);
            if (!node) {
                plist_free(dict);
                return nullptr;
            }
            plist_dict_set_item(dict, it.key().toUtf8().constData(), node);
        }
        return dict;
    }
    default:
        return nullptr;
    }
}

bool isXmlText(const QString &text)
{
    for (const QChar c : text) {
        const char16_t u = c.unicode();
        if ((u < 0x20 && u != 0x9 && u != 0xA && u != 0xD) || u == 0xFFFE || u == 0xFFFF)
            return false;
    }
    return true;
}

// libplist writes strings into XML as they are, whatever they hold.
bool xmlCanHold(const QVariant &v, int depth)
{
    if (depth > kMaxDepth)
        return false;
    switch (v.typeId()) {
    case QMetaType::QString:
        return isXmlText(v.toString());
    case QMetaType::QStringList:
    case QMetaType::QVariantList: {
        const QVariantList list = v.toList();
        return std::all_of(list.cbegin(), list.cend(),
                           [depth](const QVariant &item) { return xmlCanHold(item, depth + 1); });
    }
    case QMetaType::QVariantMap: {
        const QVariantMap map = v.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            if (!isXmlText(it.key()) || !xmlCanHold(it.value(), depth + 1))
                return false;
        }
        return true;
    }
    default:
        return true;
    }
}

quint64 bigEndian(const uchar *p, int size)
{
    quint64 v = 0;
    for (int i = 0; i < size; ++i)
        v = (v << 8) | p[i];
    return v;
}

// libplist 2.2 ends the process (an assertion) when it is asked for a dictionary key with a
// NUL inside, which a binary list can hold and there is no other way to read. So binary
// lists with a NUL in any string are refused before libplist builds them. The check walks
// the object table only as far as finding each string needs; libplist checks the rest.
bool binaryStringsHaveNoNul(const QByteArray &data)
{
    constexpr qsizetype kTrailer = 32;
    const auto *bytes = reinterpret_cast<const uchar *>(data.constData());
    const quint64 size = quint64(data.size());
    if (size < 8 + kTrailer)
        return false;
    const uchar *trailer = bytes + size - kTrailer;
    const int offsetSize = trailer[6];
    const quint64 objects = bigEndian(trailer + 8, 8);
    const quint64 tableAt = bigEndian(trailer + 24, 8);
    if (offsetSize < 1 || offsetSize > 8 || tableAt >= size || objects > (size - tableAt) / quint64(offsetSize))
        return false;
    for (quint64 i = 0; i < objects; ++i) {
        const quint64 at = bigEndian(bytes + tableAt + i * quint64(offsetSize), offsetSize);
        if (at >= size)
            return false;
        const uchar marker = bytes[at];
        const int kind = marker >> 4;
        if (kind != 0x5 && kind != 0x6)
            continue;
        quint64 length = marker & 0xF;
        quint64 start = at + 1;
        if (length == 0xF) {
            // The length follows as an integer object: 0x1n and 2^n bytes.
            if (start >= size || (bytes[start] & 0xF0) != 0x10 || (bytes[start] & 0xF) > 3)
                return false;
            const int lengthSize = 1 << (bytes[start] & 0xF);
            if (start + 1 + quint64(lengthSize) > size)
                return false;
            length = bigEndian(bytes + start + 1, lengthSize);
            start += 1 + quint64(lengthSize);
        }
        const quint64 unit = kind == 0x6 ? 2 : 1;
        if (length > (size - start) / unit)
            return false;
        for (quint64 j = 0; j < length; ++j) {
            const uchar *c = bytes + start + j * unit;
            if (c[0] == 0 && (unit == 1 || c[1] == 0))
                return false;
        }
    }
    return true;
}

// libplist 2.2 trusts its XML input; only well-formed documents with a plist root reach it.
bool isWellFormedPlistXml(const QByteArray &data)
{
    QXmlStreamReader reader(data);
    bool sawRoot = false;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement() && !sawRoot) {
            if (reader.name() != QLatin1String("plist"))
                return false;
            sawRoot = true;
        }
    }
    return sawRoot && !reader.hasError();
}

} // namespace

std::optional<QVariant> PropertyList::fromData(const QByteArray &data)
{
    if (data.isEmpty() || quint64(data.size()) > std::numeric_limits<uint32_t>::max())
        return std::nullopt;
    plist_t raw = nullptr;
    if (plist_is_binary(data.constData(), uint32_t(data.size()))) {
        if (!binaryStringsHaveNoNul(data))
            return std::nullopt;
        plist_from_bin(data.constData(), uint32_t(data.size()), &raw);
    } else {
        if (!isWellFormedPlistXml(data))
            return std::nullopt;
        plist_from_xml(data.constData(), uint32_t(data.size()), &raw);
    }
    PlistPtr root(raw);
    if (!root)
        return std::nullopt;
    return toVariant(root.get(), 0);
}

namespace {

// One of libplist's writers over a value; empty when the value holds no property-list value.
template <class Write, class Release>
QByteArray serialized(const QVariant &value, Write write, Release release)
{
    PlistPtr root(fromVariant(value, 0));
    if (!root)
        return {};
    char *bytes = nullptr;
    uint32_t length = 0;
    write(root.get(), &bytes, &length);
    QByteArray out(bytes, qsizetype(length));
    release(bytes);
    return out;
}

} // namespace

QByteArray PropertyList::toXml(const QVariant &value)
{
    if (!xmlCanHold(value, 0))
        return {};
    return serialized(value, plist_to_xml, plist_to_xml_free);
}

QByteArray PropertyList::toBinary(const QVariant &value)
{
    return serialized(value, plist_to_bin, plist_to_bin_free);
}

QByteArray PropertyList::toData(const QVariant &value)
{
    const QByteArray xml = toXml(value);
    return xml.isEmpty() ? toBinary(value) : xml;
}

std::optional<QVariant> PropertyList::readFile(const QString &path)
{
    if (path.isEmpty())
        return std::nullopt;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return fromData(file.readAll());
}

bool PropertyList::writeFile(const QString &path, const QVariant &value, QString *error)
{
    const QByteArray data = toData(value);
    if (data.isEmpty()) {
        if (error)
            *error = QStringLiteral("value cannot be stored in a property list");
        return false;
    }
    return AtomicFile::write(path, data, error);
}

bool PropertyList::boolValue(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
        return value.toBool();
    case QMetaType::Int:
    case QMetaType::LongLong:
    case QMetaType::UInt:
    case QMetaType::ULongLong:
        return value.toULongLong() != 0;
    case QMetaType::Double:
        return value.toDouble() != 0.0;
    case QMetaType::QString: {
        const QString s = value.toString();
        qsizetype i = 0;
        while (i < s.size() && s.at(i).isSpace())
            ++i;
        if (i < s.size() && (s.at(i) == u'+' || s.at(i) == u'-'))
            ++i;
        while (i < s.size() && s.at(i) == u'0')
            ++i;
        if (i >= s.size())
            return false;
        const QChar c = s.at(i);
        return c == u'Y' || c == u'y' || c == u'T' || c == u't' || (c >= u'1' && c <= u'9');
    }
    default:
        // Data, dates and collections have no boolean meaning.
        return false;
    }
}
