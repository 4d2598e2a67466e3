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
    const QByteArray unknown =
        wire::framed(hex("01 00 4A 00 21 00 00 00 01 00 28 00 D2 00 00 00 02 01 D2 04"));
    EXPECT_EQ(partsOf(unknown).mid(15, 2),
              (QStringList{"20 02 01 type: not known", "22 D2 04 data: "}));
    const Request request = decodeRequest(
        hex("00 01 0A 00 21 00 00 00 5A 3C 28 45 52 05 91 05 4C 65 76 65 6C 00 28 03 02 00 00 "
            "00 00 00"));
    EXPECT_EQ(partsOf(frame, request).mid(16, 2),
              (QStringList{"22 D2 04 Level[3]: 1234", "24 FE FF Level[4]: -2"}));
}

TEST(FrameFields, NameTheTypeAndTheValuesOfAWrite)
{
    const auto parts = [](const char* typeAndRest) {
        return partsOf(wire::framed(hex("00 01 0A 00 21 00 00 00 5A 3C 28 45 53 02 91 01 5A 00") +
                                    hex(typeAndRest)))
            .mid(14);
    };
    EXPECT_EQ(
        parts("C3 00 02 00 00 00 00 00 D2 04 FE FF").mid(0, 5),
        (QStringList{"22 C3 00 type: INT", "24 02 00 elements: 2", "26 00 00 00 00 byte offset: 0",
                     "30 D2 04 Z[0]: 1234", "32 FE FF Z[1]: -2"}));
    EXPECT_EQ(parts("DA 00 01 00 00 00 00 00 02 48 69").mid(0, 4),
              (QStringList{"22 DA 00 type: SHORT_STRING", "24 01 00 elements: 1",
                           "26 00 00 00 00 byte offset: 0", "30 02 48 69 Z[0]: Hi"}));
    EXPECT_EQ(parts("02 01 01 00 00 00 00 00 D2 04").mid(0, 4),
              (QStringList{"22 02 01 type: not known", "24 01 00 elements: 1",
                           "26 00 00 00 00 byte offset: 0", "30 D2 04 data: "}));
}

TEST(FrameFields, NameTheCommandOfAMessage)
{
    const auto command = [](const char* data) { return partsOf(wire::framed(hex(data))).at(4); };
    EXPECT_EQ(command("00 01 0B 00 21 00 00 00"), QString("6 0B command: unconnected message"));
    EXPECT_EQ(command("00 01 4B 00 21 00 00 00"),
              QString("6 4B command: unconnected message, reply"));
    EXPECT_EQ(command("00 01 0F 00 21 00 00 00"), QString("6 0F command: not known"));
}

TEST(FrameFields, NameAPathOfOneWord)
{
    const auto path = [](const char* data) {
        return partsOf(wire::framed(hex("00 01 0B 00 01 00 00 00 01") + hex(data))).mid(9, 3);
    };
    EXPECT_EQ(path("01 20 01"), (QStringList{"13 01 path size: 1 word", "14 20 01 class: 1",
                                             "16 10 03 DLE ETX: the data end"}));
    EXPECT_EQ(path("02 20 01 24 02"), (QStringList{"13 02 path size: 2 words", "14 20 01 class: 1",
                                                   "16 24 02 instance: 2"}));
}

// What a cut element has on the line is its part; its number is not known.
TEST(FrameFields, NameAnElementThatIsCutOff)
{
    const QByteArray frame =
        wire::framed(hex("00 01 0A 00 21 00 00 00 5A 3C 28 45 52 04 91 01 5A 00 29 00 2C"));
    EXPECT_EQ(partsOf(frame).at(14), QString("22 29 00 2C element: 0"));
}

TEST(FrameFields, NameEveryByteOfARequestToOpenAConnectionAndOfItsReply)
{
    const QByteArray open = wire::framed(
        hex("00 01 0B 00 02 00 00 00 54 02 20 06 24 01 05 F7 02 00 00 80 01 00 01 80 02 00 34 12 "
            "56 34 12 02 02 00 00 00 80 84 1E 00 F8 43 80 84 1E 00 F8 43 A3 02 20 02 24 01"));
    EXPECT_EQ(partsOf(open).mid(8, 22), (QStringList{"12 54 service: open connection",
                                                     "13 02 path size: 2 words",
                                                     "14 20 06 class: 6",
                                                     "16 24 01 instance: 1",
                                                     "18 05 F7 time: tick and ticks",
                                                     "20 02 00 00 80 connection there: 80000002",
                                                     "24 01 00 01 80 connection back: 80010001",
                                                     "28 02 00 connection serial: 0002",
                                                     "30 34 12 vendor: 1234",
                                                     "32 56 34 12 02 originator serial: 02123456",
                                                     "36 02 multiplier: time-out is 16 intervals",
                                                     "37 00 00 00 reserved: ",
                                                     "40 80 84 1E 00 interval there: 2000 ms",
                                                     "44 F8 43 parameters there: 43F8",
                                                     "46 80 84 1E 00 interval back: 2000 ms",
                                                     "50 F8 43 parameters back: 43F8",
                                                     "52 A3 transport: A3",
                                                     "53 02 path size: 2 words",
                                                     "54 20 02 class: 2",
                                                     "56 24 01 instance: 1",
                                                     "58 10 03 DLE ETX: the data end",
                                                     partsOf(open).last()}));
    const QByteArray opened = wire::framed(
        hex("01 00 4B 00 02 00 00 00 D4 00 00 00 5A 3C 01 00 01 00 01 80 02 00 34 12 56 34 12 02 "
            "80 84 1E 00 40 0D 03 00 00 00"));
    EXPECT_EQ(partsOf(opened).mid(8, 13),
              (QStringList{
                  "12 D4 service: open connection, reply",
                  "13 00 reserved: ", "14 00 general status: good", "15 00 status words: 0",
                  "16 5A 3C 01 00 connection there: 00013C5A",
                  "20 01 00 01 80 connection back: 80010001", "24 02 00 connection serial: 0002",
                  "26 34 12 vendor: 1234", "28 56 34 12 02 originator serial: 02123456",
                  "32 80 84 1E 00 interval there: 2000 ms", "36 40 0D 03 00 interval back: 200 ms",
                  "40 00 reply size: 0 words", "41 00 reserved: "}));
}

// The reply to a request to close one has no part that only a reply to another service has.
TEST(FrameFields, NameTheRestOfAReplyDataWhoseServiceHasNoParts)
{
    const QByteArray frame = wire::framed(hex("01 00 4B 00 02 00 00 00 CE 00 00 00 02 00 34 12"));
    EXPECT_EQ(partsOf(frame).mid(8, 5),
              (QStringList{"12 CE service: close connection, reply",
                           "13 00 reserved: ", "14 00 general status: good",
                           "15 00 status words: 0", "16 02 00 34 12 data: "}));
}

TEST(FrameFields, NameEveryByteOfARequestToCloseAConnection)
{
    const QByteArray close = wire::framed(hex("00 01 0B 00 02 40 00 00 4E 02 20 06 24 01 05 F7 02 "
                                              "00 34 12 56 34 12 02 02 00 20 02 24 01"));
    EXPECT_EQ(partsOf(close).mid(8, 13),
              (QStringList{"12 4E service: close connection", "13 02 path size: 2 words",
                           "14 20 06 class: 6", "16 24 01 instance: 1",
                           "18 05 F7 time: tick and ticks", "20 02 00 connection serial: 0002",
                           "22 34 12 vendor: 1234", "24 56 34 12 02 originator serial: 02123456",
                           "28 02 path size: 2 words", "29 00 reserved: ", "30 20 02 class: 2",
                           "32 24 01 instance: 1", "34 10 03 DLE ETX: the data end"}));
}

TEST(FrameFields, NameEveryByteOfAnIdentity)
{
    const QByteArray frame =
        wire::framed(hex("01 00 4B 00 02 00 00 00 81 00 00 00 01 00 0E 00 9A 00 0C 0B 30 00 78 56 "
                         "34 12 03 50 4C 43 03"));
    EXPECT_EQ(
        partsOf(frame).mid(8, 12),
        (QStringList{
            "12 81 service: identity, reply", "13 00 reserved: ", "14 00 general status: good",
            "15 00 status words: 0", "16 01 00 vendor: 1", "18 0E 00 device type: 14",
            "20 9A 00 product: 154", "22 0C 0B revision: 12.11", "24 30 00 status: 0030",
            "26 78 56 34 12 serial number: 12345678", "30 03 50 4C 43 name: PLC", "34 03 data: "}));
}

TEST(FrameFields, NameWhatIsThereOfAMessageWithoutItsCrc)
{
    EXPECT_EQ(partsOf(hex("10 02 00 10 03 12")),
              (QStringList{"0 10 02 DLE STX: the data begin", "2 00 destination: node 0",
                           "3 10 03 DLE ETX: the data end", "5 12 noise: no part of a message"}));
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
