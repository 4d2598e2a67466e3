#include "Frame.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace micro850::host {

namespace {

// Offsets in the application data.
enum Offset {
    kCommand = 2,
    kLinkStatus = 3,
    kTnsLow = 4,
    kUnconnectedMessage = 8,
    kSequence = 10,
    kConnectedMessage = 12
};
// Offsets in a request that opens a connection: the service, the path to the connection manager,
// which has two words, and the fields after it.
enum OpenOffset {
    kOpenTimes = 14, ///< tick time and ticks
    kOpenTimesBytes = 2,
    kOpenKey = 24,
    kOpenKeyBytes = 8,
    kOpenPath = 49 ///< its size in words, and the path of the connection
};
const quint8 kConnectedCommand = 0x0A;
const quint8 kUnconnectedCommand = 0x0B;
const quint8 kConnectionFailure = 0x01;
const quint8 kPartialTransfer = 0x06;
const quint8 kConnectionLost = 0x07;
const quint8 kTypeMark = 0xA3;

const char kHead[kHeadBytes] = {kDle, kAck, kDle, kStx};

quint16 wordAt(const ByteSlice& bytes, int index)
{
    return static_cast<quint16>(bytes.at(index) | bytes.at(index + 1) << 8);
}

// Offset of the CIP message, which follows the header of this command.
int messageStart(quint8 command)
{
    const bool connected = (command & ~kReplyCommandBit) == kConnectedCommand;
    return connected ? kConnectedMessage : kUnconnectedMessage;
}

// For each low byte of a CRC, what one step of eight bits changes.
constexpr std::array<quint16, 256> crcTable()
{
    std::array<quint16, 256> table{};
    for (unsigned byte = 0; byte < table.size(); ++byte) {
        unsigned value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = (value & 1u) != 0 ? (value >> 1) ^ 0xA001u : value >> 1;
        table[byte] = static_cast<quint16>(value);
    }
    return table;
}
constexpr std::array<quint16, 256> kCrcTable = crcTable();

quint16 crcStep(quint16 crc, char byte)
{
    return static_cast<quint16>(crc >> 8 ^ kCrcTable[(crc ^ static_cast<quint8>(byte)) & 0xFF]);
}

bool isOpenRequest(const ByteSlice& data)
{
    const quint8 words = 2;
    return data.size() > kOpenPath && data.at(kCommand) == kUnconnectedCommand &&
           data.at(kUnconnectedMessage) == kForwardOpen &&
           data.at(kUnconnectedMessage + 1) == words;
}

// Parses an element segment, if there is one. Returns the offset after it.
int parseElement(const ByteSlice& data, int at, int end, quint32& element)
{
    switch (at < end ? data.at(at) : 0) {
    case 0x28:
        element = data.at(at + 1);
        return at + 2;
    case 0x29:
        element = wordAt(data, at + 2);
        return at + 4;
    default:
        return end;
    }
}

} // namespace

QByteArray linkControl(char control)
{
    switch (control) {
    case kAck:
        return QByteArrayLiteral("\x10\x06");
    case kNak:
        return QByteArrayLiteral("\x10\x15");
    default:
        return QByteArray(1, kDle).append(control);
    }
}

quint16 frameCrc(const ByteSlice& data)
{
    quint16 crc = 0;
    for (const char byte : data)
        crc = crcStep(crc, byte);
    return crcStep(crc, kEtx);
}

QByteArray wireFrame(const ByteSlice& data)
{
    QByteArray wire(2 * data.size() + kHeadBytes + kTrailerBytes, Qt::Uninitialized);
    char* const begin = wire.data();
    char* out = std::copy_n(kHead, kHeadBytes, begin);
    for (const char byte : data) {
        *out++ = byte;
        if (byte == kDle)
            *out++ = kDle;
    }
    const quint16 crc = frameCrc(data);
    *out++ = kDle;
    *out++ = kEtx;
    *out++ = static_cast<char>(crc & 0xFF);
    *out++ = static_cast<char>(crc >> 8);
    wire.truncate(static_cast<int>(out - begin));
    return wire;
}

ByteSlice uncheckedDataOf(const QByteArray& frame)
{
    const char* in = frame.constData();
    const int size = frame.size() - kHeadBytes - kTrailerBytes;
    if (size < 0 || !std::equal(kHead, kHead + kHeadBytes, in))
        return ByteSlice();
    in += kHeadBytes;
    const char* const end = in + size;
    if (end[0] != kDle || end[1] != kEtx)
        return ByteSlice();
    if (!std::memchr(in, kDle, static_cast<std::size_t>(size)))
        return ByteSlice(frame, kHeadBytes, size);
    QByteArray data(size, Qt::Uninitialized);
    char* const begin = data.data();
    char* out = begin;
    for (; in != end; ++in) {
        *out++ = *in;
        if (*in == kDle && (++in == end || *in != kDle))
            return ByteSlice();
    }
    data.truncate(static_cast<int>(out - begin));
    return data;
}

ByteSlice dataOf(const QByteArray& frame)
{
    const ByteSlice data = uncheckedDataOf(frame);
    const quint16 crc = frameCrc(data);
    const bool closed =
        frame.size() >= kHeadBytes + kTrailerBytes && wordAt(frame, frame.size() - 2) == crc;
    return closed ? data : ByteSlice();
}

QByteArray renumbered(const QByteArray& frame, quint16 tns)
{
    const unsigned sequenceAhead = 7;
    QByteArray data = dataOf(frame).bytes();
    if (data.size() <= kConnectedMessage)
        return frame;
    data[kTnsLow] = static_cast<char>(tns & 0xFF);
    data[kTnsLow + 1] = static_cast<char>(tns >> 8);
    if (static_cast<quint8>(data.at(kCommand)) == kConnectedCommand)
        data[kSequence] = static_cast<char>((tns + sequenceAhead) & 0xFF);
    return wireFrame(data);
}

Request decodeRequest(const ByteSlice& data)
{
    Request request;
    request.command = data.at(kCommand);
    request.tns = wordAt(data, kTnsLow);
    const int start = messageStart(request.command);
    if (data.size() < start + 2)
        return Request();
    request.valid = true;
    request.service = data.at(start);
    if (request.service != kReadTagFragmented && request.service != kWriteTagFragmented)
        return request;
    const int path = start + 2;
    const int pathEnd = path + 2 * data.at(start + 1);
    const int nameSize = data.at(path + 1);
    request.name = data.mid(path + 2, nameSize);
    const int afterName = path + 2 + nameSize + nameSize % 2;
    const int end = parseElement(data, afterName, pathEnd, request.element);
    const int parameters = std::max(end, pathEnd);
    if (request.service == kReadTagFragmented) {
        request.count = wordAt(data, parameters);
        return request;
    }
    const int countAndOffset = 2 + 4;
    request.typeCode = wordAt(data, parameters);
    request.count = wordAt(data, parameters + 2);
    request.values = data.mid(parameters + 2 + countAndOffset);
    return request;
}

Reply decodeReply(const ByteSlice& data)
{
    Reply reply;
    if (data.size() < kUnconnectedMessage)
        return reply;
    reply.valid = true;
    reply.command = data.at(kCommand);
    reply.linkStatus = data.at(kLinkStatus);
    reply.tns = wordAt(data, kTnsLow);
    const int start = messageStart(reply.command);
    if (data.size() < start + 4) {
        reply.valid = reply.linkStatus != 0;
        return reply;
    }
    reply.service = data.at(start) & static_cast<quint8>(~kReplyBit);
    reply.generalStatus = data.at(start + 2);
    const int words = data.at(start + 3);
    for (int i = 0; i < words && start + 4 + 2 * i < data.size(); ++i)
        reply.extendedStatus.append(wordAt(data, start + 4 + 2 * i));
    reply.body = data.mid(start + 4 + 2 * words);
    return reply;
}

bool Reply::good() const
{
    return valid && linkStatus == 0 && (generalStatus == 0 || generalStatus == kPartialTransfer);
}

quint16 Reply::typeCode() const
{
    if (body.size() < 2)
        return 0;
    return body.at(0) == kTypeMark ? body.at(1) : wordAt(body, 0);
}

ByteSlice Reply::values() const
{
    return body.mid(2);
}

bool answers(const Reply& reply, const Request& request)
{
    if (!reply.valid || !request.valid || reply.tns != request.tns ||
        reply.command != (request.command | kReplyCommandBit))
        return false;
    return reply.linkStatus != 0 || reply.service == request.service;
}

bool isRepeatable(const Request& request)
{
    return request.valid &&
           (request.service == kReadTagFragmented ||
            (request.service == kGetAttributesAll && request.command == kUnconnectedCommand));
}

bool saysNoConnection(const Reply& reply)
{
    return reply.valid && reply.linkStatus == 0 &&
           (reply.generalStatus == kConnectionFailure || reply.generalStatus == kConnectionLost);
}

bool saysConnectionInUse(const Reply& reply)
{
    const quint16 inUse = 0x0100;
    return reply.valid && reply.linkStatus == 0 && reply.service == kForwardOpen &&
           reply.generalStatus == kConnectionFailure && reply.extendedStatus.startsWith(inUse);
}

bool hasConnection(const Reply& reply)
{
    const int identifierBytes = 4;
    return reply.good() && reply.service == kForwardOpen && reply.body.size() >= identifierBytes;
}

QByteArray connectionKey(const ByteSlice& data)
{
    return isOpenRequest(data) ? data.mid(kOpenKey, kOpenKeyBytes).bytes() : QByteArray();
}

// The paths to the connection manager and of the connection, and the times, are those of the
// request that opened it.
QByteArray closeRequest(const QByteArray& openRequest, quint16 tns)
{
    if (!isOpenRequest(openRequest))
        return QByteArray();
    const char reserved = 0;
    QByteArray data = openRequest.left(kOpenTimes + kOpenTimesBytes);
    data[kTnsLow] = static_cast<char>(tns & 0xFF);
    data[kTnsLow + 1] = static_cast<char>(tns >> 8);
    data[kUnconnectedMessage] = static_cast<char>(kForwardClose);
    data += connectionKey(openRequest);
    data += openRequest.at(kOpenPath);
    data += reserved;
    data += openRequest.mid(kOpenPath + 1);
    return data;
}

} // namespace micro850::host
