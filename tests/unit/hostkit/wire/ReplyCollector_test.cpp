#include "ReplyCollector.h"

#include "wire.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

using micro850::host::ReplyCollector;
using wire::hex;
using Kind = ReplyCollector::Kind;

namespace {

// What the events say, one word each: "frame", "corrupt", "ack", "nak", "enq".
std::string kinds(const QList<ReplyCollector::Event>& events)
{
    std::string text;
    for (const ReplyCollector::Event& event : events) {
        const char* names[] = {"frame", "corrupt", "ack", "nak", "enq"};
        text += (text.empty() ? "" : " ") + std::string(names[static_cast<int>(event.kind)]);
    }
    return text;
}

// The frames' data in hexadecimal.
std::string frames(const QList<ReplyCollector::Event>& events)
{
    std::string text;
    for (const ReplyCollector::Event& event : events) {
        if (event.kind == Kind::Frame)
            text += (text.empty() ? "" : ", ") + wire::text(event.data);
    }
    return text;
}

const QByteArray kData = hex("01 00 4A 00 05 00 00 00 5A 3C 0C 45 D2 00 00 00 C3 00 D2 04");

} // namespace

TEST(ReplyCollector, ReturnsTheDataOfACompleteFrame)
{
    ReplyCollector collector;
    const auto events = collector.feed(wire::framed(kData));
    EXPECT_EQ(kinds(events), "ack frame");
    EXPECT_EQ(frames(events), wire::text(kData));
}

TEST(ReplyCollector, AcceptsAFrameWithoutALeadingAcknowledgement)
{
    ReplyCollector collector;
    EXPECT_EQ(kinds(collector.feed(wire::framed(kData).mid(2))), "frame");
}

TEST(ReplyCollector, FindsTheSameInTwoPiecesCutAnywhere)
{
    const QByteArray stream = wire::framed(hex("01 10 4A 10 10 03 10") + kData);
    for (int cut = 0; cut <= stream.size(); ++cut) {
        ReplyCollector collector;
        QList<ReplyCollector::Event> events = collector.feed(stream.left(cut));
        events += collector.feed(stream.mid(cut));
        EXPECT_EQ(kinds(events), "ack frame") << "cut at " << cut;
        EXPECT_EQ(frames(events), wire::text(hex("01 10 4A 10 10 03 10") + kData));
    }
}

TEST(ReplyCollector, FindsTheSameByteByByte)
{
    ReplyCollector collector;
    QList<ReplyCollector::Event> events;
    for (const char byte : wire::framed(kData))
        events += collector.feed(QByteArray(1, byte));
    EXPECT_EQ(frames(events), wire::text(kData));
}

TEST(ReplyCollector, DoesNotEndAFrameAtADoubledDleBeforeAnEtx)
{
    ReplyCollector collector;
    // On the wire: ... 10 10 03 ..., which is data.
    const QByteArray data = hex("01 00 4A 00 05 00 00 00 10 03 77");
    EXPECT_EQ(frames(collector.feed(wire::framed(data))), wire::text(data));
}

TEST(ReplyCollector, DoesNotUndoubleACrcByteThatIsADle)
{
    // Data with such a CRC is searched for, with the CRC of this test's own model.
    for (const quint16 wanted : {quint16(0x0010), quint16(0x1000), quint16(0x1010)}) {
        const quint16 mask = wanted == 0x1010 ? 0xFFFF : wanted == 0x0010 ? 0x00FF : 0xFF00;
        QByteArray data;
        for (quint32 n = 0; data.isEmpty() && n < 0x1000000; ++n) {
            const QByteArray candidate = kData + wire::little(n, 3);
            if ((wire::crc16Arc(candidate + hex("03")) & mask) == wanted)
                data = candidate;
        }
        ReplyCollector collector;
        auto events = collector.feed(wire::framed(data));
        EXPECT_EQ(frames(events), wire::text(data));
        // Nothing of the CRC is left to be taken for the beginning of something.
        events = collector.feed(wire::framed(kData));
        EXPECT_EQ(frames(events), wire::text(kData));
    }
}

TEST(ReplyCollector, ReportsAFrameWithAWrongCrcAsCorrupt)
{
    QByteArray frame = wire::framed(kData);
    frame[10] = static_cast<char>(frame.at(10) ^ 0x04);
    ReplyCollector collector;
    EXPECT_EQ(kinds(collector.feed(frame)), "ack corrupt");
    EXPECT_EQ(kinds(collector.feed(wire::framed(kData))), "ack frame");
}

TEST(ReplyCollector, ReportsAFrameWithAnIllegalEscapeAsCorrupt)
{
    ReplyCollector collector;
    EXPECT_EQ(kinds(collector.feed(hex("10 02 01 10 77 02 10 03 00 00"))), "corrupt");
}

TEST(ReplyCollector, ReportsLinkControlsOutsideAndInsideAFrame)
{
    ReplyCollector collector;
    EXPECT_EQ(kinds(collector.feed(hex("10 06 10 15 10 05"))), "ack nak enq");
    const QByteArray frame = wire::framed(kData).mid(2);
    EXPECT_EQ(kinds(collector.feed(frame.left(9) + hex("10 06 10 15 10 05") + frame.mid(9))),
              "ack nak enq frame");
}

// The bytes on the line, event by event.
std::string rawOf(const QByteArray& stream)
{
    ReplyCollector collector;
    std::string text;
    for (const char byte : stream) {
        for (const ReplyCollector::Event& event : collector.feed(QByteArray(1, byte)))
            text += (text.empty() ? "" : ", ") + wire::text(event.raw);
    }
    return text;
}

TEST(ReplyCollector, ReturnsTheBytesThatWereOnTheLine)
{
    const QByteArray frame = wire::framed(kData);
    const std::string whole = wire::text(frame);
    const std::string bare = wire::text(frame.mid(2));
    EXPECT_EQ(rawOf(frame), "10 06, " + whole);
    EXPECT_EQ(rawOf(frame.mid(2)), bare);
    EXPECT_EQ(rawOf(hex("10 06 10 06 10 06") + frame.mid(2)), "10 06, 10 06, 10 06, " + whole);
    EXPECT_EQ(rawOf(hex("10 06 55") + frame.mid(2)), "10 06, " + bare) << "noise in between";
    EXPECT_EQ(rawOf(hex("10 15 10 05") + frame.mid(2)), "10 15, 10 05, " + bare);
    EXPECT_EQ(rawOf(hex("10 41 10") + frame.mid(2)), bare) << "an escape that means nothing";
    EXPECT_EQ(rawOf(frame.left(9) + frame.mid(2)), "10 06, " + bare) << "begun again";
    const QByteArray embedded = frame.left(9) + hex("10 15") + frame.mid(9);
    EXPECT_EQ(rawOf(embedded), "10 06, 10 15, " + wire::text(embedded));
    QByteArray corrupt = frame;
    corrupt[6] = '\x7F';
    EXPECT_EQ(rawOf(corrupt + frame), "10 06, " + wire::text(corrupt) + ", 10 06, " + whole);
}

TEST(ReplyCollector, StartsAgainWithAFrameInTheMiddleOfAnother)
{
    ReplyCollector collector;
    const auto events =
        collector.feed(wire::framed(hex("01 02 03 04")).left(7) + wire::framed(kData).mid(2));
    EXPECT_EQ(frames(events), wire::text(kData));
}

TEST(ReplyCollector, SkipsNoiseAndCountsIt)
{
    ReplyCollector collector;
    EXPECT_EQ(kinds(collector.feed(hex("00 FF 10 33 10") + wire::framed(kData).mid(2))), "frame");
    EXPECT_EQ(collector.noiseBytes(), 5);
}

TEST(ReplyCollector, KnowsWhetherAFrameHasBegun)
{
    ReplyCollector collector;
    const QByteArray frame = wire::framed(kData);
    collector.feed(frame.left(3));
    EXPECT_FALSE(collector.inFrame());
    collector.feed(frame.mid(3, 1));
    EXPECT_TRUE(collector.inFrame());
    collector.feed(frame.mid(4, frame.size() - 5));
    EXPECT_TRUE(collector.inFrame());
    collector.feed(frame.right(1));
    EXPECT_FALSE(collector.inFrame());
}

TEST(ReplyCollector, GivesUpAFrameThatNeverEnds)
{
    ReplyCollector collector;
    const auto events = collector.feed(hex("10 02") + QByteArray(5000, 'x') + wire::framed(kData));
    EXPECT_EQ(kinds(events), "corrupt ack frame");
}

TEST(ReplyCollector, GivesUpAFrameThatHasOnlyEmbeddedResponses)
{
    ReplyCollector collector;
    const QList<ReplyCollector::Event> events =
        collector.feed(hex("10 02") + hex("10 06").repeated(3000));
    ASSERT_NE(kinds(events).find(" corrupt "), std::string::npos);
    for (const ReplyCollector::Event& event : events)
        EXPECT_LE(event.raw.size(), 4100);
    EXPECT_EQ(kinds(collector.feed(wire::framed(kData))), "ack frame");
}

TEST(ReplyCollector, FindsEveryFrameOfAnyDataInAnyPieces)
{
    rc::check([](const std::vector<std::vector<char>>& messages, const std::vector<int>& cuts) {
        QByteArray stream;
        std::string expected;
        for (const std::vector<char>& message : messages) {
            const QByteArray data(message.data(), static_cast<int>(message.size()));
            stream += wire::framed(data);
            expected +=
                (expected.empty() && &message == &messages.front() ? "" : ", ") + wire::text(data);
        }
        ReplyCollector collector;
        QList<ReplyCollector::Event> events;
        std::string found;
        bool first = true;
        const auto take = [&](const QByteArray& piece) {
            for (const ReplyCollector::Event& event : collector.feed(piece)) {
                if (event.kind == Kind::Ack)
                    continue;
                RC_ASSERT(event.kind == Kind::Frame);
                found += (first ? "" : ", ") + wire::text(event.data);
                first = false;
            }
        };
        for (const int cut : cuts) {
            const int size = stream.isEmpty() ? 0 : std::abs(cut % stream.size());
            take(stream.left(size));
            stream.remove(0, size);
        }
        take(stream);
        RC_ASSERT(found == expected);
    });
}

TEST(ReplyForDriver, BeginsWithTheAcknowledgementThatTheDriverCountsFrom)
{
    EXPECT_EQ(wire::text(micro850::host::replyForDriver(kData, true)),
              wire::text(wire::framed(kData)));
}

TEST(ReplyForDriver, HasAFillerByteAfterACrcOfTwoDles)
{
    QByteArray data;
    for (quint32 n = 0; data.isEmpty(); ++n) {
        const QByteArray candidate = kData + wire::little(n, 3);
        if (wire::crc16Arc(candidate + hex("03")) == 0x1010)
            data = candidate;
    }
    EXPECT_EQ(wire::text(micro850::host::replyForDriver(data, true)),
              wire::text(wire::framed(data) + hex("00")));
    EXPECT_EQ(wire::text(micro850::host::replyForDriver(data, false)),
              wire::text(wire::framed(data)));
}
