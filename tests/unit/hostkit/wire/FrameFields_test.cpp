#include "FrameFields.h"

#include "wire.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

using namespace micro850::host;
using wire::hex;

namespace {

/// "OFFSET BYTES NAME MEANING" of each part.
QStringList partsOf(const QByteArray& message, const Request& request = Request())
{
    QStringList parts;
    for (const FrameField& field : frameFields(message, request))
        parts +=
            QStringLiteral("%1 %2 %3: %4")
                .arg(QString::number(field.offset), QString::fromStdString(wire::text(field.bytes)),
                     field.name, field.meaning);
    return parts;
}

} // namespace

// The example of the protocol's description; its number has a byte 10, which is sent twice.
TEST(FrameFields, NameEveryByteOfARead)
{
    const QByteArray frame = wire::framed(
        hex("00 01 0A 00 10 00 00 00 5A 3C 17 45 52 05 91 05 53 70 65 65 64 00 28 07 01 00 "
            "00 00 00 00"));
    const QString crc = QString::fromStdString(wire::text(frame.right(2)));
    const QString crcNumber = crc.section(' ', 1) + crc.section(' ', 0, 0);
    EXPECT_EQ(partsOf(frame),
              (QStringList{"0 10 06 DLE ACK: the message before came intact",
                           "2 10 02 DLE STX: the data begin", "4 00 destination: node 0",
                           "5 01 source: node 1", "6 0A command: connected message",
                           "7 00 link status: good", "8 10 10 00 TNS: 16",
                           "11 00 00 reserved: ", "13 5A 3C connection: 3C5A", "15 17 sequence: 23",
                           "16 45 reserved: ", "17 52 service: read", "18 05 path size: 5 words",
                           "19 91 05 53 70 65 65 64 00 tag: Speed", "27 28 07 element: 7",
                           "29 01 00 elements: 1", "31 00 00 00 00 byte offset: 0",
                           "35 10 03 DLE ETX: the data end",
                           "37 " + crc + " CRC: " + crcNumber + ", right"}));
}

TEST(FrameFields, NameTheElementsOfAReplyByItsRequest)
{
    const QByteArray frame =
        wire::framed(hex("01 00 4A 00 21 00 00 00 01 00 28 00 D2 00 00 00 C3 00 D2 04 FE FF"));
    EXPECT_EQ(
        partsOf(frame).mid(15, 3),
        (QStringList{"20 C3 00 type: INT", "22 D2 04 value 0: 1234", "24 FE FF value 1: -2"}));
    const Request request = decodeRequest(
        hex("00 01 0A 00 21 00 00 00 5A 3C 28 45 52 05 91 05 4C 65 76 65 6C 00 28 03 02 00 00 "
            "00 00 00"));
    EXPECT_EQ(partsOf(frame, request).mid(16, 2),
              (QStringList{"22 D2 04 Level[3]: 1234", "24 FE FF Level[4]: -2"}));
}

TEST(FrameFields, NameElementsOfEachSize)
{
    const auto element = [](const char* path) {
        const QByteArray frame = wire::framed(hex("00 01 0A 00 21 00 00 00 5A 3C 28 45 52") +
                                              hex(path) + hex("01 00 00 00 00 00"));
        return partsOf(frame).at(14);
    };
    EXPECT_EQ(element("03 91 01 5A 00 28 07"), QString("22 28 07 element: 7"));
    EXPECT_EQ(element("04 91 01 5A 00 29 00 2C 01"), QString("22 29 00 2C 01 element: 300"));
    EXPECT_EQ(element("05 91 01 5A 00 30 00 01 00 01 00"),
              QString("22 30 00 01 00 01 00 element: 65537"));
}

TEST(FrameFields, TellWhyARequestIsRefused)
{
    const QByteArray frame =
        wire::framed(hex("01 00 4A 00 21 00 00 00 01 00 28 00 D2 00 FF 01 05 21"));
    EXPECT_EQ(
        partsOf(frame).mid(13, 3),
        (QStringList{"18 FF general status: access beyond the end of the tag (status FF/2105)",
                     "19 01 status words: 1", "20 05 21 extended status: 2105"}));
}

TEST(FrameFields, TellTheRightCrcOfADamagedMessage)
{
    QByteArray frame = wire::framed(hex("00 01 0B 00 01 00 00 00 01 02 20 01 24 01"));
    frame[6] = 0x0F;
    const QByteArray data = hex("00 01 0F 00 01 00 00 00 01 02 20 01 24 01");
    const QString right = QString::number(wire::crc16Arc(data + '\x03'), 16).toUpper();
    EXPECT_TRUE(partsOf(frame).last().endsWith("CRC: 358E, wrong: " + right.rightJustified(4, '0') +
                                               " is right for these data"))
        << partsOf(frame).last().toStdString();
}

TEST(FrameFields, NameControlsAndWhatIsNoMessage)
{
    EXPECT_EQ(partsOf(hex("10 15")),
              QStringList("0 10 15 DLE NAK: the message before did not come intact"));
    EXPECT_EQ(partsOf(hex("10 05")), QStringList("0 10 05 DLE ENQ: asks for the last response"));
    EXPECT_EQ(partsOf(hex("41 10 07")), (QStringList{"0 41 noise: no part of a message",
                                                     "1 10 07 DLE 07: not allowed here"}));
    // A response within a message.
    const QStringList parts = partsOf(hex("10 02 00 10 06 01 0A"));
    EXPECT_EQ(parts, (QStringList{"0 10 02 DLE STX: the data begin", "2 00 destination: node 0",
                                  "3 10 06 DLE ACK: the message before came intact",
                                  "5 01 source: node 1", "6 0A command: connected message"}));
}

// Whatever a peer sends, each byte is in one part.
RC_GTEST_PROP(FrameFields, HaveEveryByteOnce, (std::vector<unsigned char> bytes, bool asFrame))
{
    QByteArray message;
    for (const unsigned char byte : bytes)
        message += static_cast<char>(byte % 5 == 0 ? 0x10 : byte % 7 == 0 ? 0x52 : byte);
    if (asFrame)
        message = wire::framed(hex("00 01 4A 00 01 00 00 00 00 00 00 45") + message);
    int size = 0;
    int last = -1;
    for (const FrameField& field : frameFields(message, Request())) {
        RC_ASSERT(field.offset > last);
        RC_ASSERT(!field.bytes.isEmpty());
        size += field.bytes.size();
        last = field.offset;
    }
    RC_ASSERT(size == message.size());
}
