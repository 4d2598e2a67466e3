#include "CipServer.h"

#include "bytes.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

const char kTags[] = R"({"tags": [
    {"name": "Speed", "type": "INT", "value": 1234},
    {"name": "Zone", "type": "INT", "length": 300, "value": [1, 2, 3]},
    {"name": "Big", "type": "DINT", "length": 200, "value": 7},
    {"name": "Text", "type": "SHORT_STRING", "value": "AB"},
    {"name": "Fixed", "type": "UINT", "value": 5, "readOnly": true}
]})";

const Bytes kForwardOpen =
    hex("54 02 20 06 24 01 05 F7 02 00 00 80 01 00 01 80 02 00 34 12 23 16 C6 02 "
        "02 00 00 00 80 84 1E 00 F8 43 80 84 1E 00 F8 43 A3 02 20 02 24 01");
// Symbol segments of the tags above.
const Bytes kSpeed = hex("91 05 53 70 65 65 64 00");
const Bytes kZone = hex("91 04 5A 6F 6E 65");
const Bytes kBig = hex("91 03 42 69 67 00");
const Bytes kText = hex("91 04 54 65 78 74");
const Bytes kFixed = hex("91 05 46 69 78 65 64 00");

class CipTest : public ::testing::Test
{
protected:
    std::string unconnected(const Bytes& cip)
    {
        const auto reply = server.handle(hex("00 01 0B 00 34 12 00 00") + cip);
        return reply ? text(*reply) : "no reply";
    }

    /// Opens the connection 5A 3C if there is none. Returns the CIP part of the reply to a
    /// connected request.
    std::string connected(const Bytes& cip)
    {
        if (server.openConnections() == 0) {
            server.setNextConnectionId(0x00013C5A);
            unconnected(kForwardOpen);
        }
        const auto reply = server.handle(hex("00 01 0A 00 21 00 00 00 5A 3C 28 45") + cip);
        return reply ? text(Bytes(reply->begin() + 12, reply->end())) : "no reply";
    }

    static Bytes read(const Bytes& path, const char* countAndOffset)
    {
        return Bytes{0x52, static_cast<std::uint8_t>(path.size() / 2)} + path + hex(countAndOffset);
    }

    static Bytes write(const Bytes& path, const char* rest)
    {
        return Bytes{0x53, static_cast<std::uint8_t>(path.size() / 2)} + path + hex(rest);
    }

    VirtualClock clock;
    TagTable table = TagTable::fromText(kTags, "tags");
    CipServer server{clock, table};
};

TEST_F(CipTest, AnswersWithItsIdentityInFortyFiveBytesAfterTheHeader)
{
    const std::string reply = unconnected(hex("01 02 20 01 24 01"));
    EXPECT_EQ(reply.substr(0, 77),
              "01 00 4B 00 34 12 00 00 81 00 00 00 34 12 0E 00 52 03 01 02 30 00 EE FF C0 00");
    EXPECT_EQ((reply.size() + 1) / 3, 8u + 45u)
        << "61 bytes with DLE ACK, DLE STX, DLE ETX and CRC";
}

TEST_F(CipTest, OpensAConnectionWithItsOwnIdentifier)
{
    server.setNextConnectionId(0x00013C5A);
    EXPECT_EQ(unconnected(kForwardOpen),
              "01 00 4B 00 34 12 00 00 D4 00 00 00 5A 3C 01 00 01 00 01 80 02 00 34 12 23 16 C6 02 "
              "80 84 1E 00 80 84 1E 00 00 00");
    EXPECT_EQ(server.openConnections(), 1u);
}

TEST_F(CipTest, OpensOneConnectionForEachOriginator)
{
    unconnected(kForwardOpen);
    Bytes other = kForwardOpen;
    other[20] ^= 0xFF; // originator serial number
    unconnected(other);
    EXPECT_EQ(server.openConnections(), 2u);
}

TEST_F(CipTest, RefusesToOpenAConnectionThatIsOpen)
{
    unconnected(kForwardOpen);
    EXPECT_EQ(unconnected(kForwardOpen), "01 00 4B 00 34 12 00 00 D4 00 01 01 00 01");
    Bytes other = kForwardOpen;
    other[16] ^= 0xFF; // connection serial number
    EXPECT_EQ(unconnected(other).substr(24, 11), "D4 00 00 00");
    EXPECT_EQ(server.openConnections(), 2u);
    clock.advance(std::chrono::seconds(32));
    EXPECT_EQ(unconnected(kForwardOpen).substr(24, 11), "D4 00 00 00")
        << "the open one has expired";
}

TEST_F(CipTest, ReplacesAConnectionThatIsOpenWhereItIsToldTo)
{
    server.setReplacesConnections(true);
    unconnected(kForwardOpen);
    EXPECT_EQ(unconnected(kForwardOpen).substr(24, 11), "D4 00 00 00");
    EXPECT_EQ(server.openConnections(), 1u);
}

TEST_F(CipTest, OpensNoMoreConnectionsThanItsLimit)
{
    server.setConnectionLimit(2);
    Bytes request = kForwardOpen;
    for (const std::uint8_t serial : {std::uint8_t(1), std::uint8_t(2)}) {
        request[20] = serial; // originator serial number
        EXPECT_EQ(unconnected(request).substr(24, 11), "D4 00 00 00") << int(serial);
    }
    request[20] = 3;
    EXPECT_EQ(unconnected(request), "01 00 4B 00 34 12 00 00 D4 00 01 01 13 01");
    request[20] = 1;
    EXPECT_EQ(unconnected(request), "01 00 4B 00 34 12 00 00 D4 00 01 01 00 01")
        << "in use comes first";
    unconnected(hex("4E 02 20 06 24 01 05 F7 02 00 34 12 01 16 C6 02 02 00 20 02 24 01"));
    request[20] = 3;
    EXPECT_EQ(unconnected(request).substr(24, 11), "D4 00 00 00");
    clock.advance(std::chrono::seconds(32));
    request[20] = 4;
    EXPECT_EQ(unconnected(request).substr(24, 11), "D4 00 00 00") << "the others have expired";
}

TEST_F(CipTest, ServesTwoOriginatorsAndClosesTheirConnectionsSeparately)
{
    server.setNextConnectionId(0x00013C5A);
    unconnected(kForwardOpen);
    Bytes other = kForwardOpen;
    other[12] = 0x77; // T->O identifier
    other[20] ^= 0xFF;
    const std::string opened = unconnected(other);
    const Bytes itsId = hex(opened.substr(36, 5));
    const auto askedOver = [&](const Bytes& id) {
        const auto reply = server.handle(hex("00 01 0A 00 21 00 00 00") + id + hex("28 45") +
                                         read(kSpeed, "01 00 00 00 00 00"));
        return text(Bytes(reply->begin() + 8, reply->end()));
    };
    EXPECT_EQ(askedOver(hex("5A 3C")), "01 00 28 45 D2 00 00 00 C3 00 D2 04");
    EXPECT_EQ(askedOver(itsId), "77 00 28 45 D2 00 00 00 C3 00 D2 04");
    unconnected(hex("4E 02 20 06 24 01 05 F7 02 00 34 12 23 16 C6 02 02 00 20 02 24 01"));
    EXPECT_EQ(askedOver(hex("5A 3C")), "5A 3C 28 45 D2 00 01 01 07 01");
    EXPECT_EQ(askedOver(itsId), "77 00 28 45 D2 00 00 00 C3 00 D2 04");
}

TEST_F(CipTest, ForgetsOnlyTheConnectionOfAnOriginatorThatIsSilent)
{
    connected(read(kSpeed, "01 00 00 00 00 00"));
    Bytes other = kForwardOpen;
    other[20] ^= 0xFF; // originator
    other[24] = 0x00;  // multiplier 4: 8 s
    unconnected(other);
    clock.advance(std::chrono::seconds(7));
    EXPECT_EQ(server.openConnections(), 2u);
    clock.advance(std::chrono::seconds(1));
    EXPECT_EQ(server.openConnections(), 1u);
    EXPECT_EQ(connected(read(kSpeed, "01 00 00 00 00 00")), "D2 00 00 00 C3 00 D2 04");
}

TEST_F(CipTest, ForgetsItsCountersAtAReset)
{
    unconnected(kForwardOpen);
    EXPECT_EQ(server.answersByStatus().size(), 1u);
    server.reset();
    EXPECT_TRUE(server.answersByStatus().empty());
}

TEST_F(CipTest, ForgetsAConnectionThatIsUnusedForIntervalTimesMultiplier)
{
    connected(read(kSpeed, "01 00 00 00 00 00"));
    clock.advance(std::chrono::seconds(31)); // 2 s x 16, less one second
    EXPECT_EQ(connected(read(kSpeed, "01 00 00 00 00 00")), "D2 00 00 00 C3 00 D2 04");
    clock.advance(std::chrono::seconds(32));
    EXPECT_EQ(server.openConnections(), 0u);
}

TEST_F(CipTest, RefusesAConnectedRequestWithoutItsConnection)
{
    const auto reply = server.handle(hex("00 01 0A 00 21 00 00 00 5A 3C 28 45") +
                                     read(kSpeed, "01 00 00 00 00 00"));
    ASSERT_TRUE(reply);
    EXPECT_EQ(text(*reply), "01 00 4A 00 21 00 00 00 5A 3C 28 45 D2 00 01 01 07 01");
}

TEST_F(CipTest, ClosesAConnectionOnce)
{
    unconnected(kForwardOpen);
    const Bytes close = hex("4E 02 20 06 24 01 05 F7 02 00 34 12 23 16 C6 02 02 00 20 02 24 01");
    EXPECT_EQ(unconnected(close),
              "01 00 4B 00 34 12 00 00 CE 00 00 00 02 00 34 12 23 16 C6 02 00 00");
    EXPECT_EQ(unconnected(close), "01 00 4B 00 34 12 00 00 CE 00 01 01 07 01");
}

TEST_F(CipTest, RepliesWithTheOriginatorsConnectionAndTheSequence)
{
    server.setNextConnectionId(0x00013C5A);
    unconnected(kForwardOpen);
    const auto reply = server.handle(hex("00 01 0A 00 21 00 00 00 5A 3C 28 45") +
                                     read(kSpeed, "01 00 00 00 00 00"));
    ASSERT_TRUE(reply);
    EXPECT_EQ(text(*reply), "01 00 4A 00 21 00 00 00 01 00 28 45 D2 00 00 00 C3 00 D2 04")
        << "the originator chose the identifier for this direction";
}

TEST_F(CipTest, ReadsScalarsElementsAndRanges)
{
    EXPECT_EQ(connected(read(kSpeed, "01 00 00 00 00 00")), "D2 00 00 00 C3 00 D2 04");
    EXPECT_EQ(connected(read(kZone, "03 00 00 00 00 00")), "D2 00 00 00 C3 00 01 00 02 00 03 00");
    EXPECT_EQ(connected(read(kZone + hex("28 02"), "01 00 00 00 00 00")),
              "D2 00 00 00 C3 00 03 00");
    EXPECT_EQ(connected(read(kZone + hex("29 00 2B 01"), "01 00 00 00 00 00")),
              "D2 00 00 00 C3 00 00 00");
    EXPECT_EQ(connected(read(kText, "01 00 00 00 00 00")), "D2 00 00 00 DA 00 02 41 42");
}

TEST_F(CipTest, SplitsALongValueIntoFragments)
{
    const std::string first = connected(read(kBig, "C8 00 00 00 00 00"));
    EXPECT_EQ(first.substr(0, 17), "D2 00 06 00 C4 00");
    EXPECT_EQ((first.size() + 1) / 3, 6u + 480u);
    const std::string rest = connected(read(kBig, "C8 00 E0 01 00 00"));
    EXPECT_EQ(rest.substr(0, 17), "D2 00 00 00 C4 00");
    EXPECT_EQ((rest.size() + 1) / 3, 6u + 320u);
}

TEST_F(CipTest, WritesTheValueOfARequest)
{
    EXPECT_EQ(connected(write(kSpeed, "C3 00 01 00 00 00 00 00 39 30")), "D3 00 00 00");
    EXPECT_EQ(text(table.find("Speed")->elements[0]), "39 30");
    EXPECT_EQ(connected(write(kZone + hex("28 01"), "C3 00 02 00 00 00 00 00 11 11 22 22")),
              "D3 00 00 00");
    EXPECT_EQ(text(table.find("Zone")->elements[2]), "22 22");
    EXPECT_EQ(connected(write(kText, "DA 00 01 00 00 00 00 00 03 58 59 5A")), "D3 00 00 00");
    EXPECT_EQ(text(table.find("Text")->elements[0]), "03 58 59 5A");
}

// One request cannot carry 200 DINTs.
TEST_F(CipTest, AssemblesALongValueFromFragments)
{
    std::string first = "C4 00 C8 00 00 00 00 00";
    for (int i = 0; i < 120; ++i)
        first += " 11 11 11 11";
    std::string rest = "C4 00 C8 00 E0 01 00 00";
    for (int i = 0; i < 80; ++i)
        rest += " 22 22 22 22";
    EXPECT_EQ(connected(write(kBig, first.c_str())), "D3 00 00 00");
    EXPECT_EQ(text(table.find("Big")->elements[119]), "11 11 11 11");
    EXPECT_EQ(text(table.find("Big")->elements[120]), "07 00 00 00") << "not written yet";
    EXPECT_EQ(connected(write(kBig, rest.c_str())), "D3 00 00 00");
    EXPECT_EQ(text(table.find("Big")->elements[120]), "22 22 22 22");
    EXPECT_EQ(text(table.find("Big")->elements[199]), "22 22 22 22");
}

TEST_F(CipTest, RefusesAFragmentThatDoesNotFitItsPlace)
{
    const char* outside = "C3 00 02 00 04 00 00 00 11 11";
    const char* split = "C3 00 02 00 01 00 00 00 11 11";
    const char* tooLong = "C3 00 02 00 02 00 00 00 11 11 22 22";
    const char* half = "C3 00 02 00 02 00 00 00 11";
    EXPECT_EQ(connected(write(kZone, outside)), "D3 00 FF 01 05 21");
    EXPECT_EQ(connected(write(kZone, split)), "D3 00 FF 01 05 21");
    EXPECT_EQ(connected(write(kZone, tooLong)), "D3 00 15 00");
    EXPECT_EQ(connected(write(kZone, half)), "D3 00 13 00");
    EXPECT_EQ(connected(write(kText, "DA 00 01 00 01 00 00 00 41")), "D3 00 FF 01 05 21");
    EXPECT_EQ(text(table.find("Zone")->elements[1]), "02 00");
    EXPECT_EQ(connected(write(kZone, "C3 00 02 00 02 00 00 00 11 11")), "D3 00 00 00");
    EXPECT_EQ(text(table.find("Zone")->elements[1]), "11 11");
}

TEST_F(CipTest, AnswersWithItsIdentityOverAConnectionToo)
{
    EXPECT_EQ(connected(hex("01 02 20 01 24 01")).substr(0, 29), "81 00 00 00 34 12 0E 00 52 03");
    EXPECT_EQ(connected(hex("01 02 20 02 24 01")), "81 00 05 00");
}

TEST_F(CipTest, AnswersARefusedReadWithTheReason)
{
    EXPECT_EQ(connected(read(hex("91 04 4E 6F 6E 65"), "01 00 00 00 00 00")), "D2 00 05 00");
    EXPECT_EQ(connected(read(kZone + hex("30 00 00 00 01 00"), "01 00 00 00 00 00")),
              "D2 00 04 00");
    EXPECT_EQ(connected(read(hex("20 01 24 01"), "01 00 00 00 00 00")), "D2 00 04 00");
    EXPECT_EQ(connected(read(kZone + hex("29 00 2C 01"), "01 00 00 00 00 00")),
              "D2 00 FF 01 05 21");
    EXPECT_EQ(connected(read(kZone, "2D 01 00 00 00 00")), "D2 00 FF 01 05 21");
    EXPECT_EQ(connected(read(kZone, "00 00 00 00 00 00")), "D2 00 FF 01 05 21");
    EXPECT_EQ(connected(read(kSpeed, "01 00")), "D2 00 13 00");
    EXPECT_EQ(connected(read(kSpeed, "01 00 00 00 00 00 00")), "D2 00 15 00");
}

TEST_F(CipTest, AnswersARefusedWriteWithTheReasonAndChangesNothing)
{
    EXPECT_EQ(connected(write(kSpeed, "C4 00 01 00 00 00 00 00 01 00 00 00")), "D3 00 FF 01 07 21");
    EXPECT_EQ(connected(write(kFixed, "C7 00 01 00 00 00 00 00 01 00")), "D3 00 0E 00");
    EXPECT_EQ(connected(write(kSpeed, "C3 00 01 00 00 00 00 00 01")), "D3 00 13 00");
    EXPECT_EQ(connected(write(kSpeed, "C3 00 01 00 00 00 00 00 01 00 00")), "D3 00 15 00");
    EXPECT_EQ(connected(write(kSpeed, "C3 00 02 00 00 00 00 00 01 00 02 00")), "D3 00 FF 01 05 21");
    EXPECT_EQ(connected(write(kText, "DA 00 01 00 00 00 00 00 03 58")), "D3 00 13 00");
    EXPECT_EQ(text(table.find("Speed")->elements[0]), "D2 04");
    EXPECT_EQ(text(table.find("Fixed")->elements[0]), "05 00");
}

TEST_F(CipTest, RefusesServicesAndObjectsThatItDoesNotHave)
{
    EXPECT_EQ(connected(hex("4C 01 91 00")), "CC 00 08 00");
    EXPECT_EQ(unconnected(hex("0E 02 20 01 24 01")), "01 00 4B 00 34 12 00 00 8E 00 08 00");
    EXPECT_EQ(unconnected(hex("01 02 20 04 24 01")), "01 00 4B 00 34 12 00 00 81 00 05 00");
    EXPECT_EQ(unconnected(hex("01 09 20 01")), "01 00 4B 00 34 12 00 00 81 00 13 00");
    EXPECT_EQ(unconnected(hex("54 02 20 06 24 01 05 F7")), "01 00 4B 00 34 12 00 00 D4 00 13 00");
}

TEST_F(CipTest, DoesNotAnswerAMessageThatIsNotARequest)
{
    EXPECT_FALSE(server.handle(hex("00 01 0F 00 01 00 00 00 01 02")));
    EXPECT_FALSE(server.handle(hex("00 01 0A 00 01 00 00 00 5A 3C 28 45")));
    EXPECT_FALSE(server.handle({}));
}

} // namespace
} // namespace micro850::sim
