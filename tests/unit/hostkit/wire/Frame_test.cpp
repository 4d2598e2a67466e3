#include "Frame.h"

#include "FrameText.h"
#include "wire.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using wire::hex;

namespace {

const QByteArray kId = hex("5A 3C");

Request requestOf(const QByteArray& frame)
{
    return decodeRequest(wire::unframed(frame));
}

Reply replyOf(const QByteArray& frame)
{
    return decodeReply(wire::unframed(frame));
}

// An error reply with one extended status word.
Reply extended(quint8 status, quint16 word)
{
    const QByteArray bare = wire::unframed(wire::errorReply(5, 0x52, status));
    return decodeReply(bare.left(bare.size() - 1) + hex("01") + wire::little(word, 2));
}

} // namespace

TEST(Frame, IsBuiltAndOpenedAsOnTheWire)
{
    const QByteArray data = hex("00 01 0A 00 10 10 03 10");
    EXPECT_EQ(wire::text(wireFrame(data)), wire::text(wire::framed(data)));
    EXPECT_EQ(wire::text(dataOf(wire::framed(data)).bytes()), wire::text(data));
}

TEST(Frame, IsNotOpenedWhenDamagedOrShort)
{
    QByteArray frame = wire::framed(hex("00 01 0A 00"));
    frame[5] = 0x7F;
    EXPECT_TRUE(dataOf(frame).isEmpty());
    EXPECT_TRUE(dataOf(QByteArray()).isEmpty());
    EXPECT_TRUE(dataOf(hex("10 06 10 02 10 03 00")).isEmpty());
}

// The beginning, the end and the doubled bytes must be those of a frame even where nobody looks at
// the CRC.
TEST(Frame, IsNotOpenedWithoutTheBytesAroundItsData)
{
    const QByteArray frame = wire::framed(hex("00 10 0A"));
    EXPECT_EQ(wire::text(uncheckedDataOf(frame).bytes()), "00 10 0A");
    const int end = frame.size() - 4;
    for (const int at : {0, 1, 2, 3, end, end + 1}) {
        QByteArray damaged = frame;
        damaged[at] = 0x11;
        EXPECT_TRUE(uncheckedDataOf(damaged).isEmpty()) << at;
    }
    EXPECT_TRUE(uncheckedDataOf(hex("10 06 10 02 00 10 0A 10 03 00 00")).isEmpty())
        << "a single DLE within the data";
    EXPECT_TRUE(uncheckedDataOf(hex("10 06 10 02 00 10 10 03 00 00")).isEmpty())
        << "a single DLE at the end of the data";
    EXPECT_EQ(wire::text(uncheckedDataOf(hex("10 06 10 02 00 0A 10 03 77 77")).bytes()), "00 0A")
        << "the CRC is not looked at";
}

TEST(Frame, IsRenumberedWithItsSequenceByte)
{
    const QByteArray path = wire::tagPath("Level", 300);
    EXPECT_EQ(wire::text(renumbered(wire::readRequest(0x1234, kId, path, 20), 0x10FF)),
              wire::text(wire::readRequest(0x10FF, kId, path, 20)));
    EXPECT_EQ(wire::text(renumbered(wire::framed(wire::identityRequest(1)), 0x2010)),
              wire::text(wire::framed(wire::identityRequest(0x2010))));
    EXPECT_EQ(renumbered(hex("10 06"), 5), hex("10 06"));
}

TEST(Request, IsRepeatableOnlyWhenItChangesNothing)
{
    const QByteArray path = wire::tagPath("A");
    EXPECT_TRUE(isRepeatable(requestOf(wire::readRequest(5, kId, path, 1))));
    EXPECT_TRUE(isRepeatable(requestOf(wire::framed(wire::identityRequest(5)))));
    EXPECT_FALSE(
        isRepeatable(requestOf(wire::writeRequest(5, kId, path, 0x00C3, 1, hex("01 00")))));
    EXPECT_FALSE(isRepeatable(requestOf(wire::framed(wire::forwardOpenRequest(5, 0x123456)))));
    // The identity's service, but within a connection, which counts its messages.
    EXPECT_FALSE(
        isRepeatable(decodeRequest(hex("00 01 0A 00 05 00 00 00 5A 3C 0C 45 01 02 20 01 24 01"))));
    EXPECT_FALSE(isRepeatable(Request()));
}

TEST(Request, OfAReadHasTagElementAndCount)
{
    const QByteArray path = wire::tagPath("Level", 300);
    const Request request =
        requestOf(wire::framed(wire::unframed(wire::readRequest(0x1234, kId, path, 20))));
    EXPECT_TRUE(request.valid);
    EXPECT_EQ(request.tns, 0x1234);
    EXPECT_EQ(request.service, kReadTagFragmented);
    EXPECT_EQ(request.tag(), QString("Level"));
    EXPECT_EQ(request.element, 300u);
    EXPECT_EQ(request.count, 20);
}

TEST(Request, OfATagWithAPercentSignAndADigitIsShownUnchanged)
{
    const QByteArray path = wire::tagPath("Fill%2", 7);
    const QString told = requestText(requestOf(wire::readRequest(1, kId, path, 3)));
    EXPECT_TRUE(told.endsWith(" Fill%2[7] x3")) << told.toStdString();
}

TEST(Request, OfATagWithAZeroByteHasTheWholeTag)
{
    QByteArray request = wire::unframed(wire::readRequest(1, kId, wire::tagPath("Le_el"), 1));
    request[request.indexOf("Le_el") + 2] = '\0';
    EXPECT_EQ(requestOf(wire::framed(request)).tag(), QString::fromLatin1("Le\0el", 5));
}

TEST(Request, WithoutAnElementSegmentIsForElementZero)
{
    for (const char* tag : {"Even", "Odd"})
        EXPECT_EQ(requestOf(wire::readRequest(1, kId, wire::tagPath(tag), 1)).element, 0u) << tag;
}

TEST(Request, OfAWriteHasItsCountAfterTheType)
{
    const Request request = requestOf(
        wire::writeRequest(7, kId, wire::tagPath("Speed", 16), 0x00C3, 2, hex("01 00 02 00")));
    EXPECT_EQ(request.service, kWriteTagFragmented);
    EXPECT_EQ(request.element, 16u);
    EXPECT_EQ(request.count, 2);
}

TEST(Request, ThatOpensAConnectionHasNoTag)
{
    const Request request = decodeRequest(wire::forwardOpenRequest(3, 0x10));
    EXPECT_EQ(request.service, kForwardOpen);
    EXPECT_EQ(request.tns, 3);
    EXPECT_TRUE(request.tag().isEmpty());
}

TEST(Request, ThatIsTooShortIsNotValid)
{
    const QByteArray data = wire::unframed(wire::readRequest(1, kId, wire::tagPath("A"), 1));
    for (int size = 0; size < 9; ++size)
        EXPECT_FALSE(decodeRequest(data.left(size)).valid) << size;
}

TEST(Reply, ToAReadHasTypeAndValues)
{
    const Reply reply = replyOf(wire::readReply(5, 0x00C3, hex("D2 04")));
    EXPECT_TRUE(reply.good());
    EXPECT_EQ(reply.typeCode(), 0xC3);
    EXPECT_EQ(wire::text(reply.values().bytes()), "D2 04");
    EXPECT_EQ(statusText(reply), QString());
}

TEST(Reply, ToAReadIsGoodWithAPartOfTheValues)
{
    const QByteArray head = hex("01 00 4A 00 05 00 00 00 01 00 0C 00 D2 00");
    const Reply part = decodeReply(head + hex("06 00 C3 00 D2 04"));
    EXPECT_TRUE(part.good());
    EXPECT_EQ(wire::text(part.values().bytes()), "D2 04");
    EXPECT_FALSE(decodeReply(head + hex("05 00 C3 00 D2 04")).good());
    EXPECT_FALSE(Reply().good());
}

TEST(Reply, HasATypeOfTwoBytes)
{
    const QByteArray head = hex("01 00 4A 00 05 00 00 00 01 00 0C 00 D2 00 00 00");
    EXPECT_EQ(decodeReply(head + hex("C3 00")).typeCode(), 0x00C3);
    EXPECT_EQ(decodeReply(head + hex("A0 02 12 34")).typeCode(), 0x02A0);
    EXPECT_EQ(decodeReply(head + hex("A3 C1")).typeCode(), 0x00C1);
    EXPECT_EQ(decodeReply(head + hex("C3")).typeCode(), 0);
    EXPECT_EQ(decodeReply(head).typeCode(), 0);
}

TEST(Reply, HasStatusAndExtendedStatus)
{
    EXPECT_EQ(statusText(replyOf(wire::errorReply(5, 0x52, 0x05))),
              QString("no such tag (names are as in the controller's program; status 05)"));
    const Reply beyond = extended(0xFF, 0x2105);
    EXPECT_FALSE(beyond.good());
    EXPECT_EQ(statusKey(beyond), QString("FF/2105"));
    EXPECT_EQ(statusText(beyond), QString("access beyond the end of the tag (status FF/2105)"));
    EXPECT_EQ(statusText(replyOf(wire::errorReply(5, 0x52, 0x77))), QString("refused (status 77)"));
}

// Status words of replies to a read of a tag.
TEST(Reply, ExplainsWhatAStatusMeansForATag)
{
    const auto textOf = [](quint8 status) {
        return statusText(replyOf(wire::errorReply(5, 0x52, status))).toStdString();
    };
    EXPECT_EQ(textOf(0x04), "path segment error (the controller does not understand the name or "
                            "the index; status 04)");
    EXPECT_EQ(textOf(0x0E), "attribute not settable (the tag may be read-only; status 0E)");
    EXPECT_EQ(textOf(0x0F), "privilege violation (the controller does not allow the access; "
                            "status 0F)");
    EXPECT_EQ(textOf(0x10), "device state conflict (the controller's mode may not allow it; "
                            "status 10)");
    EXPECT_EQ(textOf(0x08), "service not supported (status 08)");
}

TEST(Reply, ToAnotherServiceSpeaksOfNoTag)
{
    const Reply reply = decodeReply(hex("01 00 4B 00 05 00 00 00 81 00 05 00"));
    EXPECT_EQ(statusText(reply), QString("path destination unknown (status 05)"));
    EXPECT_EQ(statusPhrase(reply), QString("path destination unknown, status 05"));
}

TEST(Reply, HasWordsForExtendedStatusesOfConnections)
{
    const auto phrase = [](quint16 word) {
        return statusPhrase(extended(0x01, word)).toStdString();
    };
    EXPECT_EQ(phrase(0x0100), "connection in use, status 01/0100");
    EXPECT_EQ(phrase(0x0107), "connection not found, status 01/0107");
    EXPECT_EQ(phrase(0x0113), "out of connections, status 01/0113");
    EXPECT_EQ(phrase(0x0114), "vendor or product code does not match, status 01/0114");
    EXPECT_EQ(phrase(0x0315), "invalid segment in the path, status 01/0315");
    EXPECT_EQ(phrase(0x0777), "connection failure, extended status 0777, status 01/0777");
}

TEST(Reply, ShowsAllExtendedWordsAndCountsByTheFirst)
{
    const Reply reply = decodeReply(hex("01 00 4B 00 05 00 00 00 D4 00 01 02 09 01 F4 01"));
    EXPECT_EQ(statusText(reply), QString("invalid connection size (status 01/0109/01F4)"));
    EXPECT_EQ(statusKey(reply), QString("01/0109"));
    const QByteArray many = hex("01 00 4B 00 05 00 00 00 D4 00 01 FF") + QByteArray(510, '\x11');
    EXPECT_LT(statusText(decodeReply(many)).size(), 100);
}

// The driver's request with the serial number 123456, as the protocol document shows it.
const char kOpenRequest[] = "00 01 0B 00 02 00 00 00 54 02 20 06 24 01 05 F7 02 00 00 80 01 00 01 "
                            "80 02 00 34 12 56 34 12 02 02 00 00 00 80 84 1E 00 F8 43 80 84 1E 00 "
                            "F8 43 A3 02 20 02 24 01";

TEST(CloseRequest, NamesTheConnectionByTheNumbersItWasOpenedWith)
{
    EXPECT_EQ(wire::text(connectionKey(hex(kOpenRequest))), "02 00 34 12 56 34 12 02");
    EXPECT_EQ(wire::text(closeRequest(hex(kOpenRequest), 0x4002)),
              // service and path, tick and ticks, numbers, size in words, reserved, path
              "00 01 0B 00 02 40 00 00 4E 02 20 06 24 01 05 F7 02 00 34 12 56 34 12 02 02 00 20 02 "
              "24 01");
}

TEST(CloseRequest, IsMadeOfARequestThatOpensAConnectionOnly)
{
    const QByteArray open = hex(kOpenRequest);
    for (int size = 0; size < 50; ++size)
        EXPECT_TRUE(closeRequest(open.left(size), 1).isEmpty()) << size;
    // Another command, another service, a path of another size.
    for (const int at : {2, 8, 9}) {
        QByteArray other = open;
        other[at] = 0x01;
        EXPECT_TRUE(closeRequest(other, 1).isEmpty()) << at;
        EXPECT_TRUE(connectionKey(other).isEmpty()) << at;
    }
}

TEST(Reply, ToAConnectionRequestTellsARefusalFromAConnection)
{
    const QByteArray head = hex("01 00 4B 00 05 00 00 00");
    EXPECT_TRUE(saysConnectionInUse(decodeReply(head + hex("D4 00 01 01 00 01"))));
    EXPECT_FALSE(saysConnectionInUse(decodeReply(head + hex("D4 00 01 01 13 01"))));
    EXPECT_FALSE(saysConnectionInUse(decodeReply(head + hex("D4 00 01 00"))));
    EXPECT_FALSE(saysConnectionInUse(decodeReply(head + hex("CE 00 01 01 00 01"))));
    EXPECT_FALSE(saysConnectionInUse(decodeReply(head + hex("D4 00 02 01 00 01"))));
    EXPECT_FALSE(saysConnectionInUse(Reply()));
    EXPECT_FALSE(saysConnectionInUse(decodeReply(hex("01 00 4B 10 05 00 00 00 D4 00 01 01 00 01"))))
        << "the link layer refused it";
    EXPECT_TRUE(hasConnection(decodeReply(head + hex("D4 00 00 00 5A 3C 01 00"))));
    EXPECT_FALSE(hasConnection(decodeReply(head + hex("D4 00 00 00 5A 3C 01"))));
    EXPECT_FALSE(hasConnection(decodeReply(head + hex("D4 00 01 00 5A 3C 01 00"))));
    EXPECT_FALSE(hasConnection(decodeReply(head + hex("81 00 00 00 5A 3C 01 00"))));
}

TEST(Reply, ThatTheLinkLayerRefusesIsNotGood)
{
    const Reply reply = decodeReply(hex("01 00 4A 10 05 00 00 00"));
    EXPECT_TRUE(reply.valid);
    EXPECT_FALSE(reply.good());
    EXPECT_EQ(statusKey(reply), QString("link 10"));
}

TEST(Reply, ThatIsTooShortIsNotValid)
{
    const QByteArray data = wire::unframed(wire::writeReply(1));
    for (int size = 0; size < 16; ++size)
        EXPECT_FALSE(decodeReply(data.left(size)).valid) << size;
    EXPECT_TRUE(decodeReply(data).valid);
}

TEST(Reply, ShowsThatThePeerDoesNotKnowTheConnection)
{
    EXPECT_TRUE(saysNoConnection(extended(0x01, 0x0107)));
    EXPECT_TRUE(saysNoConnection(replyOf(wire::errorReply(5, 0x52, 0x07))));
    EXPECT_FALSE(saysNoConnection(Reply()));
    Reply refused = extended(0x01, 0x0107);
    refused.linkStatus = 0x10;
    EXPECT_FALSE(saysNoConnection(refused)) << "the message did not reach the connection";
    EXPECT_FALSE(saysNoConnection(extended(0xFF, 0x2105)));
    EXPECT_FALSE(saysNoConnection(replyOf(wire::readReply(5, 0x00C3, hex("01 00")))));
}

TEST(FrameText, NamesWhatIsNoFrame)
{
    EXPECT_EQ(frameText(hex("10 06")), QString("ACK"));
    EXPECT_EQ(frameText(hex("10 15")), QString("NAK: not received intact"));
    EXPECT_EQ(frameText(hex("10 05")), QString("ENQ: asks for the last response"));
    EXPECT_EQ(frameText(wire::readReply(5, 0x00C3, hex("01 00")).left(12)), QString("no frame"));
    EXPECT_EQ(frameText(QByteArray()), QString("no frame"));
}

TEST(FrameText, TellsWhatAFrameAsksForOrAnswers)
{
    const QByteArray path = wire::tagPath("Level", 3);
    EXPECT_EQ(frameText(wire::readRequest(5, kId, path, 2)), QString("TNS 5 read Level[3] x2"));
    EXPECT_EQ(frameText(wire::writeRequest(5, kId, path, 0x00C3, 1, hex("D2 04"))),
              QString("TNS 5 write Level[3] x1: INT 1234"));
    EXPECT_EQ(frameText(wire::writeRequest(5, kId, QByteArray(), 0x00C3, 1, hex("D2 04"))),
              QString("TNS 5 write"))
        << "without a name nobody knows what the bytes are";
    EXPECT_EQ(frameText(wire::readReply(5, 0x00C3, hex("D2 04"))),
              QString("TNS 5 read reply: INT 1234"));
    EXPECT_EQ(frameText(wire::framed(wire::identityRequest(5))), QString("TNS 5 identity"));
    EXPECT_EQ(frameText(wire::framed(hex("00 01 0A 00 05 00"))), QString("no frame"))
        << "neither request nor reply";
    EXPECT_EQ(frameText(wire::framed(hex("00 01 0B 00 05 00 00 00 01"))), QString("no frame"))
        << "no request, and as a reply it is too short";
    QByteArray damaged = wire::readReply(5, 0x00C3, hex("D2 04"));
    damaged[9] = static_cast<char>(damaged.at(9) ^ 1);
    EXPECT_EQ(frameText(damaged), QString("corrupt frame"));
    EXPECT_EQ(frameText(damaged + hex("10 05")), QString("ENQ: asks for the last response"))
        << "the last one counts";
}

TEST(FrameText, ShowsADurationWithItsUnits)
{
    EXPECT_EQ(valuesText(0x00D6, hex("D2 04 00 00")), QString("FTIME PT0.001234S"));
    EXPECT_EQ(valueTexts(0x00C3, ByteSlice()), QStringList());
}

TEST(StatusText, OfALinkLayerThatRefusesHasItsStatusOnly)
{
    const Reply reply = decodeReply(hex("01 00 4A 10 05 00 00 00"));
    EXPECT_EQ(statusText(reply), QString("refused by the link layer (status 10)"));
    EXPECT_EQ(statusPhrase(reply), QString("refused by the link layer, status 10"));
}

TEST(StatusText, OfAGoodReplyIsEmpty)
{
    const Reply reply = replyOf(wire::writeReply(5));
    EXPECT_EQ(statusText(reply) + statusPhrase(reply) + statusKey(reply), QString());
}

TEST(Answers, OnlyARequestWithTheSameNumberCommandAndService)
{
    const Request read = requestOf(wire::readRequest(5, kId, wire::tagPath("A"), 1));
    EXPECT_TRUE(answers(replyOf(wire::readReply(5, 0x00C3, hex("01 00"))), read));
    EXPECT_FALSE(answers(replyOf(wire::readReply(4, 0x00C3, hex("01 00"))), read));
    EXPECT_FALSE(answers(replyOf(wire::writeReply(5)), read));
    EXPECT_FALSE(answers(replyOf(wire::identityReply(5)), read));
    EXPECT_FALSE(answers(Reply(), read));
}
