#pragma once

#include <QByteArray>
#include <QCoreApplication>
#include <QDBusConnection>

#include <algorithm>
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
