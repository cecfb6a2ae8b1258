#pragma once

#include <QByteArray>

#include <algorithm>
#include <cstddef>
#include <cstdint>

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

private:
    const uint8_t *m_data;
    size_t m_size;
    size_t m_pos = 0;
};
