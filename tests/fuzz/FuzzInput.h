#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusObjectPath>
#include <QDBusSignature>
#include <QDBusVariant>
#include <QVariant>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// Reads a fuzzer's input as a stream of choices; past its end every read gives zeros.
class FuzzInput
{
public:
    FuzzInput(const uint8_t *data, size_t size)
        : m_data(data)
        , m_size(size)
    {
    }
    bool atEnd() const { return m_pos >= m_size; }
    uint8_t byte() { return atEnd() ? 0 : m_data[m_pos++]; }
    quint64 word()
    {
        quint64 v = 0;
        for (int i = 0; i < 8; ++i)
            v = (v << 8) | byte();
        return v;
    }
    QByteArray bytes(size_t n)
    {
        n = std::min(n, m_size - std::min(m_pos, m_size));
        QByteArray out(reinterpret_cast<const char *>(m_data + m_pos), qsizetype(n));
        m_pos += n;
        return out;
    }

    using Text = QString (*)(FuzzInput &);

    // Any value a program may put on the bus (now and then one value 20,000 times), strings by `text`.
    QVariant value(Text text, int depth = 0)
    {
        using Make = QVariant (*)(FuzzInput &, Text, int);
        static constexpr Make kinds[] = {
            [](FuzzInput &in, Text, int) -> QVariant { return bool(in.byte() & 1); },
            [](FuzzInput &in, Text, int) { return QVariant::fromValue(uchar(in.byte())); },
            [](FuzzInput &in, Text, int) { return QVariant::fromValue(short(in.word())); },
            [](FuzzInput &in, Text, int) { return QVariant::fromValue(ushort(in.word())); },
            [](FuzzInput &in, Text, int) { return QVariant(int(in.word())); },
            [](FuzzInput &in, Text, int) { return QVariant(qulonglong(in.word())); },
            [](FuzzInput &in, Text, int) { return QVariant(std::bit_cast<double>(in.word())); },
            [](FuzzInput &in, Text text, int) { return QVariant(text(in)); },
            [](FuzzInput &in, Text, int) {
                return QVariant::fromValue(QDBusObjectPath(QStringLiteral("/com/quillfen/x%1").arg(in.byte())));
            },
            [](FuzzInput &, Text, int) { return QVariant::fromValue(QDBusSignature(QStringLiteral("a{sv}"))); },
            [](FuzzInput &in, Text, int) { return QVariant(in.bytes(in.byte() * 4)); },
            // Containers stop well within D-Bus's 32 levels (libdbus crashes when a sender goes deeper).
            [](FuzzInput &in, Text text, int depth) {
                const uint8_t n = in.byte();
                QVariantList list;
                if (n >= 250)
                    list.fill(in.value(text, 100), 20000);
                for (int i = n >= 250 ? 0 : n % 8; i > 0; --i)
                    list.append(in.value(text, depth + 1));
                return QVariant(list);
            },
            [](FuzzInput &in, Text text, int depth) { return QVariant(in.dictionary(text, depth)); },
            [](FuzzInput &in, Text text, int depth) {
                return QVariant::fromValue(QDBusVariant(in.value(text, depth + 1)));
            },
            [](FuzzInput &in, Text text, int) {
                QStringList strings;
                for (int i = in.byte() % 8; i > 0; --i)
                    strings.append(text(in));
                return QVariant(strings);
            },
        };
        return kinds[byte() % (depth > 4 ? 11 : std::size(kinds))](*this, text, depth);
    }
    QVariantMap dictionary(Text text, int depth = 0)
    {
        QVariantMap map;
        for (int i = byte() % 8; i > 0; --i) {
            const QString key = text(*this); // before the value, on every compiler
            map.insert(key, value(text, depth + 1));
        }
        return map;
    }

    // For the fuzzers that talk over the bus: the application, on the session bus it must have.
    static void startOnSessionBus(int *argc, char ***argv)
    {
        static QCoreApplication app(*argc, *argv);
        if (!QDBusConnection::sessionBus().isConnected()) {
            std::fprintf(stderr, "%s needs a session bus (run it under dbus-run-session)\n", **argv);
            std::exit(1);
        }
    }

private:
    const uint8_t *m_data;
    size_t m_size;
    size_t m_pos = 0;
};
