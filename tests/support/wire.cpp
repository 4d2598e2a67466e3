#include "wire.h"

#include <array>
#include <cstdlib>
#include <cstring>

namespace wire {

namespace {

// The remainder of each possible byte, by polynomial division with reflected bits.
std::array<std::uint16_t, 256> table()
{
    std::array<std::uint16_t, 256> rows{};
    for (unsigned byte = 0; byte < 256; ++byte) {
        unsigned remainder = byte;
        for (int i = 0; i < 8; ++i)
            remainder = remainder % 2 ? remainder / 2 ^ 0xA001 : remainder / 2;
        rows[byte] = static_cast<std::uint16_t>(remainder);
    }
    return rows;
}

std::uint16_t reflectedCrc(const QByteArray& bytes, std::uint16_t start)
{
    static const auto rows = table();
    unsigned crc = start;
    for (char c : bytes)
        crc = (crc >> 8) ^ rows[(crc ^ static_cast<unsigned char>(c)) & 0xFF];
    return static_cast<std::uint16_t>(crc);
}

// Parsed once, because fuzz harnesses build and parse millions of frames.
const QByteArray& frameStart()
{
    static const QByteArray bytes = hex("10 06 10 02");
    return bytes;
}

const QByteArray& frameEnd()
{
    static const QByteArray bytes = hex("10 03");
    return bytes;
}

std::uint16_t frameCrc(const QByteArray& data)
{
    return reflectedCrc(frameEnd().right(1), reflectedCrc(data, 0));
}

QByteArray head(quint8 destination, quint8 source, quint8 command, quint16 tns)
{
    QByteArray bytes(8, '\0');
    bytes[0] = static_cast<char>(destination);
    bytes[1] = static_cast<char>(source);
    bytes[2] = static_cast<char>(command);
    bytes[4] = static_cast<char>(tns & 0xFF);
    bytes[5] = static_cast<char>(tns >> 8);
    return bytes;
}

QByteArray requestHead(quint8 command, quint16 tns)
{
    return head(0, 1, command, tns);
}

QByteArray replyHead(quint8 command, quint16 tns)
{
    return head(1, 0, command | 0x40u, tns);
}

QByteArray connectedReply(quint16 tns, const QByteArray& cip)
{
    return framed(replyHead(0x0A, tns) + hex("01 00") + little((tns + 7u) & 0xFF, 1) + hex("45") +
                  cip);
}

QByteArray connectedRequest(quint16 tns, const QByteArray& connectionId, quint8 service,
                            const QByteArray& path, const QByteArray& tail)
{
    return framed(requestHead(0x0A, tns) + connectionId.left(2) + little((tns + 7u) & 0xFF, 1) +
                  hex("45") + little(service, 1) + little(quint64(path.size()) / 2, 1) + path +
                  tail);
}

} // namespace

QByteArray hex(const char* text)
{
    QByteArray bytes;
    bytes.reserve(static_cast<int>(std::strlen(text) / 2 + 1));
    int nibbles = 0;
    unsigned value = 0;
    for (; *text; ++text) {
        const char* digits = "0123456789abcdef";
        const char c = static_cast<char>(*text >= 'A' && *text <= 'F' ? *text + 32 : *text);
        if (c == ' ' || c == '\n')
            continue;
        const char* at = std::char_traits<char>::find(digits, 16, c);
        if (!at)
            std::abort();
        value = value * 16 + static_cast<unsigned>(at - digits);
        if (++nibbles % 2 == 0) {
            bytes.append(static_cast<char>(value));
            value = 0;
        }
    }
    if (nibbles % 2 != 0)
        std::abort();
    return bytes;
}

std::string text(const QByteArray& bytes)
{
    return bytes.toHex(' ').toUpper().toStdString();
}

std::uint16_t crc16Arc(const QByteArray& bytes)
{
    return reflectedCrc(bytes, 0);
}

std::uint16_t crc16Modbus(const QByteArray& bytes)
{
    return reflectedCrc(bytes, 0xFFFF);
}

QByteArray withDoubledDle(const QByteArray& data)
{
    if (!data.contains('\x10'))
        return data;
    return QByteArray(data).replace("\x10", "\x10\x10");
}

QByteArray framed(const QByteArray& data)
{
    return frameStart() + withDoubledDle(data) + frameEnd() + little(frameCrc(data), 2);
}

QByteArray unframed(const QByteArray& frame)
{
    const QByteArray& end = frameEnd();
    if (frame.size() < 8 || !frame.startsWith(frameStart()) ||
        std::memcmp(frame.constData() + frame.size() - 4, end.constData(), 2) != 0)
        return QByteArray();
    QByteArray data = frame.mid(4, frame.size() - 8);
    if (data.contains('\x10'))
        data.replace("\x10\x10", "\x10");
    const bool intact = little(frameCrc(data), 2) == frame.right(2);
    return intact ? data : QByteArray();
}

QByteArray little(quint64 value, int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i, value /= 256)
        bytes[i] = static_cast<char>(value % 256);
    return bytes;
}

QByteArray identityRequest(quint16 tns)
{
    return requestHead(0x0B, tns) + hex("01 02 20 01 24 01");
}

QByteArray forwardOpenRequest(quint16 tns, quint32 serial)
{
    return requestHead(0x0B, tns) +
           hex("54 02 20 06 24 01 05 F7 02 00 00 80 01 00 01 80 02 00 34 12") + little(serial, 3) +
           hex("02 02 00 00 00 80 84 1E 00 F8 43 80 84 1E 00 F8 43") + hex("A3 02 20 02 24 01");
}

QByteArray identityReply(quint16 tns)
{
    const QByteArray attributes = hex("01 00 0E 00 9A 00 0C 0B 30 00 78 56 34 12");
    const QByteArray name = "PLC under test, 25 chars.";
    return framed(replyHead(0x0B, tns) + hex("81 00 00 00") + attributes +
                  little(quint64(name.size()), 1) + name + hex("03"));
}

QByteArray forwardOpenReply(quint16 tns, const QByteArray& connectionIdLow)
{
    return framed(replyHead(0x0B, tns) + hex("D4 00 00 00") + connectionIdLow +
                  hex("01 80 01 00 01 80 02 00 34 12 23 16 C6 02 80 84 1E 00 80 84 1E 00 00 00"));
}

QByteArray tagPath(const QByteArray& name, quint32 element)
{
    QByteArray path = hex("91") + little(quint64(name.size()), 1) + name;
    if (name.size() % 2 != 0)
        path += hex("00");
    if (element == 0)
        return path;
    if (element <= 0xFF)
        return path + hex("28") + little(element, 1);
    if (element <= 0xFFFF)
        return path + hex("29 00") + little(element, 2);
    return path + hex("30 00") + little(element, 4);
}

QByteArray readRequest(quint16 tns, const QByteArray& connectionId, const QByteArray& path,
                       quint32 count)
{
    return connectedRequest(tns, connectionId, 0x52, path, little(count, 4) + hex("00 00"));
}

QByteArray writeRequest(quint16 tns, const QByteArray& connectionId, const QByteArray& path,
                        quint16 type, quint32 count, const QByteArray& value)
{
    return connectedRequest(tns, connectionId, 0x53, path,
                            little(type, 2) + little(count, 4) + hex("00 00") + value);
}

QByteArray readReply(quint16 tns, quint16 type, const QByteArray& value)
{
    return connectedReply(tns, hex("D2 00 00 00") + little(type, 2) + value);
}

QByteArray writeReply(quint16 tns)
{
    return connectedReply(tns, hex("D3 00 00 00"));
}

QByteArray errorReply(quint16 tns, quint8 service, quint8 status)
{
    return connectedReply(tns,
                          little(service | 0x80u, 1) + hex("00") + little(status, 1) + hex("00"));
}

} // namespace wire
