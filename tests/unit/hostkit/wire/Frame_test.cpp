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
    EXPECT_EQ(wire::text(dataOf(wire::framed(data))), wire::text(data));
}

TEST(Frame, IsNotOpenedWhenDamagedOrShort)
{
    QByteArray frame = wire::framed(hex("00 01 0A 00"));
    frame[5] = 0x7F;
    EXPECT_TRUE(dataOf(frame).isEmpty());
    EXPECT_TRUE(dataOf(QByteArray()).isEmpty());
    EXPECT_TRUE(dataOf(hex("10 06 10 02 10 03 00")).isEmpty());
}

TEST(Request, OfAReadHasTagElementAndCount)
{
    const QByteArray path = wire::tagPath("Level", 300);
    const Request request =
        requestOf(wire::framed(wire::unframed(wire::readRequest(0x1234, kId, path, 20))));
    EXPECT_TRUE(request.valid);
    EXPECT_EQ(request.tns, 0x1234);
    EXPECT_EQ(request.service, kReadTagFragmented);
    EXPECT_EQ(request.tag, QString("Level"));
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
    EXPECT_EQ(requestOf(wire::framed(request)).tag, QString::fromLatin1("Le\0el", 5));
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
    EXPECT_TRUE(request.tag.isEmpty());
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
    EXPECT_EQ(wire::text(reply.values()), "D2 04");
    EXPECT_EQ(statusText(reply), QString());
}

TEST(Reply, HasStatusAndExtendedStatus)
{
    EXPECT_EQ(statusText(replyOf(wire::errorReply(5, 0x52, 0x05))),
              QString("path destination unknown (status 05)"));
    const Reply beyond = extended(0xFF, 0x2105);
    EXPECT_FALSE(beyond.good());
    EXPECT_EQ(statusKey(beyond), QString("FF/2105"));
    EXPECT_EQ(statusText(beyond), QString("access beyond the end of the tag (status FF/2105)"));
    EXPECT_EQ(statusText(replyOf(wire::errorReply(5, 0x52, 0x77))), QString("refused (status 77)"));
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
    EXPECT_FALSE(saysNoConnection(extended(0xFF, 0x2105)));
    EXPECT_FALSE(saysNoConnection(replyOf(wire::readReply(5, 0x00C3, hex("01 00")))));
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
