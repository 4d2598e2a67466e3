#include "ReplyCollector.h"

#include "wire.h"

#include <gtest/gtest.h>
#include <rapidcheck.h>

using micro850::host::ReplyCollector;
using wire::hex;
using Kind = ReplyCollector::Kind;

namespace {

// What the events say, one word each: "frame", "corrupt", "nak", "enq".
template<typename Events> std::string kinds(const Events& events)
{
    std::string text;
    for (const ReplyCollector::Event& event : events) {
        const char* names[] = {"frame", "corrupt", "nak", "enq"};
        text += (text.empty() ? "" : " ") + std::string(names[static_cast<int>(event.kind)]);
    }
    return text;
}

// The frames' data in hexadecimal.
template<typename Events> std::string frames(const Events& events)
{
    std::string text;
    for (const ReplyCollector::Event& event : events) {
        if (event.kind == Kind::Frame)
            text += (text.empty() ? "" : ", ") + wire::text(event.data.bytes());
    }
    return text;
}

void append(QList<ReplyCollector::Event>& all, const ReplyCollector::Events& events)
{
    for (const ReplyCollector::Event& event : events)
        all.append(event);
}

const QByteArray kData = hex("01 00 4A 00 05 00 00 00 5A 3C 0C 45 D2 00 00 00 C3 00 D2 04");

} // namespace

TEST(ReplyCollector, ReturnsTheDataOfACompleteFrame)
{
    ReplyCollector collector;
    const auto events = collector.feed(wire::framed(kData));
    EXPECT_EQ(kinds(events), "frame");
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
        QList<ReplyCollector::Event> events;
        for (const QByteArray& piece : {stream.left(cut), stream.mid(cut)})
            append(events, collector.feed(piece));
        EXPECT_EQ(kinds(events), "frame") << "cut at " << cut;
        EXPECT_EQ(frames(events), wire::text(hex("01 10 4A 10 10 03 10") + kData));
    }
}

TEST(ReplyCollector, FindsTheSameByteByByte)
{
    ReplyCollector collector;
    QList<ReplyCollector::Event> events;
    for (const char byte : wire::framed(kData))
        append(events, collector.feed(QByteArray(1, byte)));
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
    EXPECT_EQ(kinds(collector.feed(frame)), "corrupt");
    EXPECT_EQ(kinds(collector.feed(wire::framed(kData))), "frame");
}

TEST(ReplyCollector, ReportsAFrameWithAnIllegalEscapeAsCorrupt)
{
    ReplyCollector collector;
    EXPECT_EQ(kinds(collector.feed(hex("10 02 01 10 77 02 10 03 00 00"))), "corrupt");
}

TEST(ReplyCollector, ReportsLinkControlsOutsideAndInsideAFrame)
{
    ReplyCollector collector;
    EXPECT_EQ(kinds(collector.feed(hex("10 06 10 15 10 05"))), "nak enq");
    const QByteArray frame = wire::framed(kData).mid(2);
    EXPECT_EQ(kinds(collector.feed(frame.left(9) + hex("10 06 10 15 10 05") + frame.mid(9))),
              "nak enq frame");
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
    EXPECT_EQ(rawOf(frame), whole);
    EXPECT_EQ(rawOf(frame.mid(2)), bare);
    EXPECT_EQ(rawOf(hex("10 06 10 06 10 06") + frame.mid(2)), whole);
    EXPECT_EQ(rawOf(hex("10 06 55") + frame.mid(2)), bare) << "noise in between";
    EXPECT_EQ(rawOf(hex("10 15 10 05") + frame.mid(2)), "10 15, 10 05, " + bare);
    EXPECT_EQ(rawOf(hex("10 41 10") + frame.mid(2)), bare) << "an escape that means nothing";
    EXPECT_EQ(rawOf(frame.left(9) + frame.mid(2)), bare) << "begun again";
    const QByteArray embedded = frame.left(9) + hex("10 15") + frame.mid(9);
    EXPECT_EQ(rawOf(embedded), "10 15, " + wire::text(embedded));
    QByteArray corrupt = frame;
    corrupt[6] = '\x7F';
    EXPECT_EQ(rawOf(corrupt + frame), wire::text(corrupt) + ", " + whole);
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
    EXPECT_EQ(kinds(events), "corrupt frame");
}

TEST(ReplyCollector, GivesUpAFrameThatHasOnlyEmbeddedResponses)
{
    ReplyCollector collector;
    const auto events = collector.feed(hex("10 02") + hex("10 06").repeated(3000));
    EXPECT_EQ(kinds(events), "corrupt");
    for (const ReplyCollector::Event& event : events)
        EXPECT_LE(event.raw.size(), 4100);
    EXPECT_EQ(kinds(collector.feed(wire::framed(kData))), "frame");
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
        std::string found;
        bool first = true;
        const auto take = [&](const QByteArray& piece) {
            for (const ReplyCollector::Event& event : collector.feed(piece)) {
                RC_ASSERT(event.kind == Kind::Frame);
                found += (first ? "" : ", ") + wire::text(event.data.bytes());
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

// A frame whose CRC is 1010, which a model of its own finds.
QByteArray dataWithCrcOfTwoDles()
{
    for (quint32 n = 0;; ++n) {
        const QByteArray candidate = kData + wire::little(n, 3);
        if (wire::crc16Arc(candidate + hex("03")) == 0x1010)
            return candidate;
    }
}

// The frames that the bytes bring, each as the driver gets it.
std::string framesForDriver(const QByteArray& stream, bool searchedFor = true)
{
    ReplyCollector collector;
    std::string text;
    for (const ReplyCollector::Event& event : collector.feed(stream)) {
        if (event.kind == Kind::Frame)
            text += (text.empty() ? "" : ", ") +
                    wire::text(micro850::host::replyForDriver(event.frame(), searchedFor));
    }
    return text;
}

TEST(ReplyForDriver, IsTheFrameAsItCameWithoutACopy)
{
    const QByteArray frame = wire::framed(kData);
    ReplyCollector collector;
    const auto events = collector.feed(frame);
    ASSERT_EQ(kinds(events), "frame");
    EXPECT_EQ(micro850::host::replyForDriver(events[0].frame(), true).constData(),
              frame.constData());
}

TEST(ReplyForDriver, BeginsWithTheAcknowledgementThatTheDriverCountsFrom)
{
    const QByteArray frame = wire::framed(kData);
    const std::string whole = wire::text(frame);
    EXPECT_EQ(framesForDriver(frame), whole);
    EXPECT_EQ(framesForDriver(frame.mid(2)), whole) << "none came";
    EXPECT_EQ(framesForDriver(hex("10 06 55") + frame.mid(2)), whole) << "noise after it";
    EXPECT_EQ(framesForDriver(hex("10 06 10 15") + frame.mid(2)), whole) << "NAK after it";
    EXPECT_EQ(framesForDriver(hex("10 06 10 06") + frame.mid(2)), whole) << "twice";
    EXPECT_EQ(framesForDriver(frame.left(9) + frame.mid(2)), whole) << "begun again";
    EXPECT_EQ(framesForDriver(frame + frame), whole + ", " + whole) << "two at once";
}

TEST(ReplyForDriver, HasNoEmbeddedControls)
{
    const QByteArray frame = wire::framed(hex("01 10 4A 10 10 03 10") + kData);
    for (const char* control : {"10 06", "10 15", "10 05"})
        EXPECT_EQ(framesForDriver(frame.left(8) + hex(control) + frame.mid(8)), wire::text(frame));
}

TEST(ReplyForDriver, HasAFillerByteAfterACrcOfTwoDles)
{
    const QByteArray frame = wire::framed(dataWithCrcOfTwoDles());
    EXPECT_EQ(framesForDriver(frame), wire::text(frame + hex("00")));
    EXPECT_EQ(framesForDriver(frame, false), wire::text(frame));
    EXPECT_EQ(framesForDriver(frame.mid(2)), wire::text(frame + hex("00")));
}

// What the driver gets must not depend on what else came, nor on the pieces in which it came.
TEST(ReplyForDriver, IsForAnyStreamTheFrameBuiltAnewOfItsData)
{
    rc::check([](const std::vector<std::vector<char>>& messages, const std::vector<char>& noise,
                 unsigned pieceBytes) {
        QByteArray stream;
        for (const std::vector<char>& message : messages) {
            const QByteArray data(message.data(), static_cast<int>(message.size()));
            const QByteArray frame = wire::framed(data + QByteArray(data.size() % 3, '\x10'));
            for (const char byte : noise) // a control within the frame, or noise before it
                stream += byte % 2 != 0 ? frame.left(6) + hex("10 06") + frame.mid(6)
                                        : QByteArray(1, byte) + frame.mid(byte % 4 == 0 ? 2 : 0);
            stream += frame;
        }
        ReplyCollector collector;
        const int piece = 1 + static_cast<int>(pieceBytes % 50);
        for (int at = 0; at < stream.size(); at += piece) {
            for (const ReplyCollector::Event& event : collector.feed(stream.mid(at, piece))) {
                if (event.kind == Kind::Frame)
                    RC_ASSERT(wire::text(event.frame()) ==
                              wire::text(wire::framed(event.data.bytes())));
            }
        }
    });
}
