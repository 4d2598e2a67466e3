// Frame integrity, doubling, undoubling and the checksum helpers with arbitrary bytes, compared
// with the rules of the wire.

#include "driver_state.h"
#include "fuzz_input.h"
#include "wire.h"

#include <memory>

namespace {

// A frame's CRC, from the bytes up to and including its DLE ETX, undoubled.
unsigned closingCrc(const QByteArray& frame)
{
    const int header = frame.size() < 2 ? 0 : frame.at(1) == 6 ? 4 : frame.at(1) == 2 ? 2 : 0;
    return wire::crc16Arc(frame.mid(header, qMax(0, frame.size() - header - 2)) + wire::hex("03"));
}

// Tries every place where a frame can end, each time from the start.
bool holdsFrame(const QByteArray& reply)
{
    if (reply.size() < 24)
        return false;
    for (int etx = 21; etx <= reply.size() - 3; ++etx) {
        if (reply.at(etx) != 3 || reply.at(etx - 1) != 0x10)
            continue;
        const QByteArray frame = reply.left(etx + 1).replace(wire::hex("10 10"), wire::hex("10"));
        if (wire::little(closingCrc(frame), 2) == reply.mid(etx + 1, 2))
            return true;
    }
    return false;
}

void checkReply(const QByteArray& reply)
{
    const QByteArray before(reply.constData(), reply.size());
    FUZZ_CHECK(DataIntegrityJudgment(&reply) == (holdsFrame(reply) ? 1 : 0));
    FUZZ_CHECK(reply == before);
    const QByteArray plain = QByteArray(reply).replace(wire::hex("10 10"), wire::hex("10"));
    FUZZ_CHECK(getRecoverData(reply, true) == plain);
    FUZZ_CHECK(checkDataCrc(reply) == closingCrc(reply));
}

void checkDoubling(const QByteArray& bytes)
{
    const QByteArray wireForm = getRecoverData(bytes, false);
    const int header = bytes.size() > 1 && bytes.at(1) == 6 ? 4 : 2;
    const QByteArray data = bytes.mid(header, qMax(0, bytes.size() - header - 4));
    const QByteArray expected =
        data.isEmpty() ? bytes : bytes.left(header) + wire::withDoubledDle(data) + bytes.right(4);
    FUZZ_CHECK(wireForm == expected);
}

// Frames any data: the frame is intact and undoubles to the same data.
void checkFrame(const QByteArray& data)
{
    const QByteArray frame = wire::framed(data);
    if (frame.size() >= 24)
        FUZZ_CHECK(DataIntegrityJudgment(&frame) == 1);
    const QByteArray undoubled = getRecoverData(frame.left(frame.size() - 2), true);
    FUZZ_CHECK(undoubled == wire::hex("10 06 10 02") + data + wire::hex("10 03"));
}

// The driver's frame for the data is the frame that the protocol demands.
void checkBuilt(QByteArray data)
{
    const int pathSize = 13;
    if (data.size() <= pathSize)
        return;
    const auto byte = [&](int at) { return static_cast<quint8>(data.at(at)); };
    const frame::Header header = {static_cast<unsigned short>(byte(4) | byte(5) << 8), byte(8),
                                  byte(9)};
    frame::Builder builder(wire::hex("10 06 10 02") + data, QString(), 0);
    data.append('\0'); // the length of the tag name
    data[10] = static_cast<char>(header.transaction + 7);
    data[pathSize] = static_cast<char>((data.size() - pathSize - 1) / 2);
    FUZZ_CHECK(builder.finish(header) == wire::framed(data));
}

void checkSums(const QByteArray& bytes)
{
    // A buffer of exactly this size, so that a sanitizer sees a read past its end.
    const std::size_t size = static_cast<std::size_t>(bytes.size());
    const std::unique_ptr<unsigned char[]> exact(new unsigned char[size + (size == 0)]());
    std::copy(bytes.constBegin(), bytes.constEnd(), exact.get());
    const unsigned short length = static_cast<unsigned short>(size);
    unsigned sum = 0;
    unsigned combined = exact[0];
    for (std::size_t i = 0; i < size; ++i) {
        sum += exact[i];
        combined ^= i > 0 ? exact[i] : 0u;
    }
    FUZZ_CHECK(CRC16_IBM(exact.get(), length) == wire::crc16Arc(bytes));
    FUZZ_CHECK(CalCRC(exact.get(), length) == wire::crc16Modbus(bytes));
    FUZZ_CHECK(CalSUM(exact.get(), length) == (sum & 0xFFFF));
    FUZZ_CHECK(CalLRC(exact.get(), length) == static_cast<int>(256 - sum % 256));
    FUZZ_CHECK(CalXOR(exact.get(), length) == combined);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    // The fuzzer's own bytes: a copy ends with a readable 00, which would hide a read past the end.
    const QByteArray reply =
        QByteArray::fromRawData(reinterpret_cast<const char*>(bytes), static_cast<int>(size));
    checkReply(reply);
    checkDoubling(reply);
    checkFrame(reply);
    checkBuilt(reply);
    checkSums(reply);
    return 0;
}
