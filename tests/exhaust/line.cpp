#include "line.h"

#include "wire.h"

namespace line {

namespace {

// Offsets in a frame's data.
const int kCommand = 2;
const int kNumber = 4;
const int kUnconnectedCip = 8;
const int kConnectedCip = 12;
const quint8 kConnectedReply = 0x4A;

quint8 byteAt(const QByteArray& bytes, int at)
{
    return static_cast<quint8>(bytes.at(at));
}

QByteArray byte(int value)
{
    return QByteArray(1, static_cast<char>(value));
}

bool isConnected(const QByteArray& answerData)
{
    return byteAt(answerData, kCommand) == kConnectedReply;
}

/// A type of the controller; a tag's type goes by the first letter of its name.
struct Type
{
    quint16 code;
    int size;
};

Type typeOf(char letter)
{
    switch (letter) {
    case 'B':
        return {0xC4, 4}; // DINT
    case 'C':
        return {0xDA, 4}; // SHORT_STRING, of three characters
    case 'D':
        return {0xC5, 8}; // LINT
    case 'E':
        return {0xC2, 1}; // SINT
    case 'F':
        return {0xC1, 1}; // BOOL
    default:
        return {0xC3, 2}; // INT
    }
}

// Values differ by station and element, and have bytes in them that are doubled or look like an
// end.
QByteArray readAnswer(quint16 number, const QByteArray& data, int station)
{
    const int path = kConnectedCip + 2;
    const int name = byteAt(data, path + 1);
    const int segment = path + 2 + name + name % 2;
    const int pathEnd = path + 2 * byteAt(data, kConnectedCip + 1);
    const int first = segment < pathEnd ? byteAt(data, segment + 1) : 0;
    const Type type = typeOf(data.at(path + 2));
    QByteArray values;
    for (int i = 0; i < byteAt(data, pathEnd); ++i) {
        const QByteArray bytes =
            byte(2 + station) + wire::hex("10 03") + byte(first + i) + wire::hex("10 10 00 06");
        values += bytes.left(type.size);
    }
    return wire::readReply(number, type.code, values);
}

QByteArray withStatus(const QByteArray& answer, const char* status)
{
    const QByteArray data = wire::unframed(answer);
    const int cip = isConnected(data) ? kConnectedCip : kUnconnectedCip;
    return wire::framed(data.left(cip + 2) + wire::hex(status));
}

} // namespace

QByteArray good(const QByteArray& frame, int station)
{
    const QByteArray data = wire::unframed(frame);
    const auto number =
        static_cast<quint16>(byteAt(data, kNumber) | byteAt(data, kNumber + 1) << 8);
    if (byteAt(data, kCommand) == 0x0B)
        return byteAt(data, kUnconnectedCip) == 0x01
                   ? wire::identityReply(number)
                   : wire::forwardOpenReply(number, wire::hex(station == 1 ? "5A 3C" : "10 07"));
    return byteAt(data, kConnectedCip) == 0x53 ? wire::writeReply(number)
                                               : readAnswer(number, data, station);
}

QByteArray refused(const QByteArray& answer)
{
    return withStatus(answer, "04 00");
}

QByteArray forgotten(const QByteArray& answer)
{
    return isConnected(wire::unframed(answer)) ? withStatus(answer, "01 01 07 01") : answer;
}

QByteArray corrupt(const QByteArray& answer)
{
    QByteArray data = wire::unframed(answer);
    data[kConnectedCip] = static_cast<char>(byteAt(data, kConnectedCip) ^ 0x04);
    const QByteArray other = wire::framed(data);
    return other.left(other.size() - 2) + answer.right(2);
}

QByteArray cut(const QByteArray& answer)
{
    return answer.left(answer.size() / 2);
}

QByteArray foreign(const QByteArray& answer)
{
    QByteArray data = wire::unframed(answer);
    data[kNumber] = static_cast<char>(byteAt(data, kNumber) ^ 0x55);
    return wire::framed(data);
}

} // namespace line
