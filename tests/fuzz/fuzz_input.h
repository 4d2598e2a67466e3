#ifndef MICRO850_TESTS_FUZZ_INPUT_H
#define MICRO850_TESTS_FUZZ_INPUT_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <cstddef>
#include <cstdint>

/// The fuzzer's bytes as a stream of small choices. After its end every choice is 0 or empty, so
/// that a harness needs no checks. Write each choice as a separate statement: compilers evaluate
/// arguments and operands in different orders, and an input must mean the same with each.
class FuzzInput
{
public:
    FuzzInput(const std::uint8_t* bytes, std::size_t size) : m_bytes(bytes), m_left(size) {}

    bool atEnd() const { return m_left == 0; }

    quint8 byte()
    {
        if (m_left == 0)
            return 0;
        --m_left;
        return *m_bytes++;
    }

    quint16 word()
    {
        const int low = byte();
        return static_cast<quint16>(low | byte() << 8);
    }
    /// 0 to `choices` - 1.
    int below(int choices) { return byte() % choices; }
    bool flag() { return byte() & 1; }

    QByteArray bytes(std::size_t size)
    {
        const std::size_t given = size < m_left ? size : m_left;
        const QByteArray taken(reinterpret_cast<const char*>(m_bytes), static_cast<int>(given));
        m_bytes += given;
        m_left -= given;
        return taken;
    }

    /// A length byte, then up to 255 bytes.
    QByteArray block() { return bytes(byte()); }
    /// A length byte, then up to 255 characters of any code point up to 0xFFFF.
    QString text()
    {
        QString characters;
        for (int left = byte(); left > 0 && !atEnd(); --left) {
            const int low = byte();
            characters.append(QChar(left % 8 == 0 ? low | byte() << 8 : low));
        }
        return characters;
    }

    /// A number at or near the limits of what a host can pass.
    int edge()
    {
        static const int edges[] = {
            0,      1,         -1,     INT32_MIN, INT32_MAX,     INT32_MIN + 1, INT32_MAX - 1,
            0x7FFF, 0x8000,    0xFFFF, 0x10000,   (1 << 24) + 1, -(1 << 24),    1 << 30,
            -2,     0x55555555};
        return edges[below(16)];
    }

    /// A count as hosts pass it: small, or at a limit. A large count that the driver serves only
    /// costs time.
    int count()
    {
        const int number = byte();
        return number == 0xFF ? edge() : number == 0xFE ? word() : number;
    }

private:
    const std::uint8_t* m_bytes;
    std::size_t m_left;
};

#endif
