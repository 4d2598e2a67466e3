#include "TraceReport.h"

#include "wire.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using wire::hex;

namespace {

// Identity request and its good reply, except the transaction number in bytes 4 and 5.
const char kRequest[] = "01 00 0B 00 00 00 00 00 01 02 20 01 24 01";
const char kReply[] = "00 01 4B 00 00 00 00 00 81 00 00 00 34 12";

QByteArray withTns(const char* data, int tns)
{
    QByteArray bytes = hex(data);
    bytes[4] = static_cast<char>(tns & 0xFF);
    bytes[5] = static_cast<char>(tns >> 8);
    return bytes;
}

class TraceReportTest : public ::testing::Test
{
protected:
    void record(micro850::Direction direction, const QByteArray& bytes, double ms)
    {
        micro850::TraceRecord record;
        record.time = std::chrono::microseconds(static_cast<qint64>(ms * 1000));
        record.direction = direction;
        record.bytes.assign(bytes.begin(), bytes.end());
        events += report.add(record);
    }
    void request(int tns, double ms)
    {
        record(micro850::Direction::Sent, wireFrame(withTns(kRequest, tns)), ms);
    }
    void reply(int tns, double ms, quint8 status = 0)
    {
        QByteArray data = withTns(kReply, tns);
        data[10] = static_cast<char>(status);
        record(micro850::Direction::Received, wireFrame(data), ms);
    }

    TraceReport report;
    QVector<TraceEvent> events;
};

} // namespace

TEST_F(TraceReportTest, MatchesEachReplyWithItsRequest)
{
    request(0x0110, 100);
    reply(0x0110, 112.5);
    request(0x0111, 200);
    reply(0x0111, 203);
    report.finish();
    EXPECT_EQ(report.requests(), 2);
    EXPECT_EQ(report.answered(), 2);
    EXPECT_EQ(report.unanswered(), 0);
    ASSERT_EQ(events.size(), 4);
    EXPECT_EQ(events.at(1).kind, TraceEvent::Kind::Reply);
    EXPECT_DOUBLE_EQ(events.at(1).roundTripMs, 12.5);
    EXPECT_EQ(events.at(0).text, QString("TNS 272 identity"));
    EXPECT_DOUBLE_EQ(report.roundTripMs(50), 3);
    EXPECT_DOUBLE_EQ(report.roundTripMs(99), 12.5);
}

TEST_F(TraceReportTest, MarksRepetitionsAndRepliesToAnotherRequest)
{
    request(1, 0);
    request(1, 100);
    reply(7, 110);
    reply(1, 120);
    reply(1, 130);
    report.finish();
    EXPECT_EQ(report.requests(), 1);
    EXPECT_EQ(report.repetitions(), 1);
    EXPECT_EQ(report.stray(), 2);
    EXPECT_DOUBLE_EQ(report.roundTripMs(100), 120); // since the first attempt
}

TEST_F(TraceReportTest, ListsFailedRequestsAndWhy)
{
    request(1, 0);
    request(2, 100);
    reply(2, 101, 0x05);
    request(3, 200);
    request(4, 300);
    reply(4, 301);
    report.finish();
    EXPECT_EQ(report.unanswered(), 2);
    EXPECT_EQ(report.openAtEnd(), QString());
    EXPECT_EQ(report.statuses().value("05"), 1);
    EXPECT_EQ(report.failures().value("identity: no answer"), 2);
    EXPECT_EQ(report.failures().value("identity: path destination unknown (status 05)"), 1);
}

// Nobody knows whether its answer came after the recording.
TEST_F(TraceReportTest, CountsARequestAtTheEndApartFromThoseThatFailed)
{
    request(1, 0);
    request(2, 100);
    request(2, 200);
    reply(2, 210);
    request(3, 300);
    report.finish();
    EXPECT_EQ(report.requests(), 3);
    EXPECT_EQ(report.unanswered(), 1);
    EXPECT_EQ(report.openAtEnd(), QString("identity"));
    EXPECT_EQ(report.failures().value("identity: no answer"), 1);
    EXPECT_EQ(report.statistics().at(1), QString("1 not answered when the trace ends: identity"));
}

TEST_F(TraceReportTest, CountsARequestAtTheEndAsFailedWhenItWasRepeated)
{
    request(1, 0);
    request(1, 100);
    report.finish();
    EXPECT_EQ(report.unanswered(), 1);
    EXPECT_EQ(report.openAtEnd(), QString());
}

// A host that has waited long enough asks for the reply with a NAK.
TEST_F(TraceReportTest, CountsARequestAtTheEndAsFailedWhenItsReplyWasAskedFor)
{
    request(1, 0);
    record(micro850::Direction::Sent, hex("10 15"), 100);
    record(micro850::Direction::Received, hex("10 05"), 110);
    EXPECT_EQ(events.last().text, QString("ENQ: asks for the last response"));
    report.finish();
    EXPECT_EQ(report.unanswered(), 1);
    EXPECT_EQ(report.openAtEnd(), QString());
}

TEST_F(TraceReportTest, CountsARequestAtTheEndAsFailedAlsoWhenItsRepetitionIsRefused)
{
    request(1, 0);
    request(1, 100);
    record(micro850::Direction::Received, hex("10 15"), 110);
    report.finish();
    EXPECT_EQ(report.unanswered(), 1);
}

// The peer's NAK, and that of the host after a corrupt reply, come at once and not because of a
// long wait.
TEST_F(TraceReportTest, TakesNoOtherNakForALongWait)
{
    request(1, 0);
    record(micro850::Direction::Received, hex("10 15"), 5);
    QByteArray corrupt = wireFrame(withTns(kReply, 1));
    corrupt[10] = static_cast<char>(corrupt.at(10) ^ 0x40);
    record(micro850::Direction::Received, corrupt, 10);
    record(micro850::Direction::Sent, hex("10 15"), 11);
    report.finish();
    EXPECT_EQ(report.unanswered(), 0);
    EXPECT_EQ(report.openAtEnd(), QString("identity"));
}

TEST_F(TraceReportTest, CountsCorruptFramesAndFramesThatAreCutIntoPieces)
{
    request(1, 0);
    QByteArray corrupt = wireFrame(withTns(kReply, 1));
    corrupt[10] = static_cast<char>(corrupt.at(10) ^ 0x40);
    record(micro850::Direction::Received, corrupt, 5);
    const QByteArray good = wireFrame(withTns(kReply, 1));
    record(micro850::Direction::Received, good.left(9), 10);
    record(micro850::Direction::Received, good.mid(9), 11);
    report.finish();
    EXPECT_EQ(report.corrupt(), 1);
    EXPECT_EQ(report.answered(), 1);
    EXPECT_DOUBLE_EQ(report.roundTripMs(50), 11);
}

TEST_F(TraceReportTest, DrawsAHistogramOfRoundTrips)
{
    const double times[] = {0.5, 1, 1.5, 1.9, 30, 5000};
    for (int i = 0; i < 6; ++i) {
        request(i, i * 10000.0);
        reply(i, i * 10000.0 + times[i]);
    }
    report.finish();
    const auto classes = report.histogram();
    EXPECT_EQ(classes.at(0).limitMs, 1.0);
    EXPECT_EQ(classes.at(0).answers, 2);
    EXPECT_EQ(classes.at(1).limitMs, 2.0);
    EXPECT_EQ(classes.at(1).answers, 2);
    EXPECT_EQ(classes.at(5).limitMs, 50.0);
    EXPECT_EQ(classes.at(5).answers, 1);
    EXPECT_EQ(classes.last().limitMs, -1.0);
    EXPECT_EQ(classes.last().answers, 1);
    const QStringList lines = report.statistics();
    EXPECT_EQ(lines.at(1), QString("round trip: median 1.5 ms, 99 % within 5000.0 ms, longest "
                                   "5000.0 ms"));
    EXPECT_EQ(lines.at(3), "   <= 1 ms       2 " + QString(40, '#'));
    EXPECT_EQ(lines.at(5), "  <= 50 ms       1 " + QString(20, '#'));
    EXPECT_EQ(lines.at(6), " > 1000 ms       1 " + QString(20, '#'));
}

TEST_F(TraceReportTest, HasNoFailuresAndNoRoundTripsForAnEmptyTrace)
{
    report.finish();
    EXPECT_LT(report.roundTripMs(50), 0);
    EXPECT_EQ(report.statistics().size(), 2);
}

namespace {

QByteArray readRequest(int tns, const char* tagAndRest)
{
    return withTns("00 01 0A 00 00 00 00 00 5A 3C 28 45", tns) + hex(tagAndRest);
}
const char kReadSpeed[] = "52 04 91 05 53 70 65 65 64 00 02 00 00 00 00 00";
const char kReadLevel[] = "52 04 91 05 4C 65 76 65 6C 00 01 00 00 00 00 00";
// Setpoint := 22.5 as a REAL.
const char kWriteSetpoint[] =
    "53 05 91 08 53 65 74 70 6F 69 6E 74 CA 00 01 00 00 00 00 00 00 00 B4 41";

QByteArray readReply(int tns, const char* rest)
{
    return withTns("01 00 4A 00 00 00 00 00 01 00 28 00", tns) + hex(rest);
}

class TraceOfTags : public TraceReportTest
{
protected:
    void sent(const QByteArray& data, double ms)
    {
        record(micro850::Direction::Sent, wireFrame(data), ms);
    }
    void received(const QByteArray& data, double ms)
    {
        record(micro850::Direction::Received, wireFrame(data), ms);
    }
    QStringList texts() const
    {
        QStringList texts;
        for (const TraceEvent& event : events)
            texts += event.text;
        return texts;
    }
};

} // namespace

TEST_F(TraceOfTags, ShowsTheValuesThatAreReadAndWritten)
{
    sent(readRequest(5, kReadSpeed), 0);
    received(readReply(5, "D2 00 00 00 C3 00 D2 04 FE FF"), 10);
    sent(readRequest(6, kWriteSetpoint), 20);
    received(readReply(6, "D3 00 00 00"), 30);
    EXPECT_EQ(texts(), (QStringList{"TNS 5 read Speed[0] x2", "TNS 5 read reply: INT 1234 -2",
                                    "TNS 6 write Setpoint[0] x1: REAL 22.5", "TNS 6 write reply"}));
    EXPECT_EQ(events.at(1).request.tag(), QString("Speed"));
}

TEST_F(TraceOfTags, ShowsTextsDatesAndTypesThatItDoesNotKnow)
{
    const auto shown = [this](const char* rest) {
        events.clear();
        sent(readRequest(5, kReadSpeed), 0);
        received(readReply(5, rest), 10);
        return texts().last().section(": ", 1);
    };
    EXPECT_EQ(shown("D2 00 00 00 DA 00 03 41 1B 42"), QString("SHORT_STRING \"A\\x1bB\""));
    EXPECT_EQ(shown("D2 00 00 00 CD 00 6C 4A"), QString("DATE 2024-02-29"));
    EXPECT_EQ(shown("D2 00 00 00 A3 02 01 02 03"), QString("type 0002, 3 bytes"));
    EXPECT_EQ(shown("D2 00 00 00 C4 00 01 02 03"), QString("DINT, 3 bytes"));
    EXPECT_EQ(shown("D2 00 00 00 C1 00 01 00 01 00 01 00 01 00 01 00 01 00 01 00 01 00 01 00 01"),
              QString("BOOL true false true false true false true false true false true false true "
                      "false true false ... (19 values)"));
}

TEST_F(TraceOfTags, CountsAttemptsAlsoUnderAnotherNumber)
{
    sent(readRequest(5, kReadSpeed), 0);
    sent(readRequest(5, kReadSpeed), 100);
    sent(readRequest(6, kReadSpeed), 250);
    received(readReply(6, "D2 00 00 00 C3 00 D2 04"), 260);
    sent(readRequest(7, kReadSpeed), 300);
    EXPECT_EQ(texts(), (QStringList{"TNS 5 read Speed[0] x2",
                                    "TNS 5 read Speed[0] x2 (again: attempt 2 after 100.0 ms)",
                                    "read Speed[0] x2: no answer in 250.0 ms",
                                    "TNS 6 read Speed[0] x2 (again: attempt 3 after 150.0 ms)",
                                    "TNS 6 read reply: INT 1234", "TNS 7 read Speed[0] x2"}));
    EXPECT_EQ(events.at(2).kind, TraceEvent::Kind::NoAnswer);
    QVector<int> numbers;
    QVector<bool> failed;
    for (const TraceEvent& event : events) {
        numbers += event.number;
        failed += event.failed;
    }
    EXPECT_EQ(numbers, (QVector<int>{1, 2, 0, 3, 4, 5}));
    EXPECT_EQ(failed, (QVector<bool>{false, true, true, true, false, false}));
}

TEST_F(TraceOfTags, CountsNoAttemptsAcrossDifferentRequests)
{
    sent(readRequest(5, kReadSpeed), 0);
    sent(readRequest(6, kReadLevel), 100);
    EXPECT_EQ(texts(),
              (QStringList{"TNS 5 read Speed[0] x2", "read Speed[0] x2: no answer in 100.0 ms",
                           "TNS 6 read Level[0] x1"}));
}

TEST_F(TraceOfTags, TellsHowLongTheLineWasSilent)
{
    sent(readRequest(5, kReadSpeed), 1000);
    received(readReply(5, "D2 00 00 00 C3 00 D2 04"), 1010);
    sent(readRequest(6, kReadSpeed), 3510);
    EXPECT_LT(events.at(0).gapMs, 0);
    EXPECT_DOUBLE_EQ(events.at(1).gapMs, 10);
    EXPECT_DOUBLE_EQ(events.at(2).gapMs, 2500);
    EXPECT_DOUBLE_EQ(report.longestGapMs(), 2500);
    EXPECT_TRUE(report.statistics().contains("longest silence: 2500.0 ms"));
}

TEST_F(TraceOfTags, CountsAndReturnsOnlyWhatTheFilterWants)
{
    report = TraceReport([](const QString& tag, qint64) { return tag == "Level"; });
    sent(readRequest(5, kReadSpeed), 0);
    received(readReply(5, "D2 00 05 00"), 10);
    sent(readRequest(6, kReadLevel), 20);
    QByteArray corrupt = wireFrame(readReply(6, "D2 00 00 00 C3 00 D2 04"));
    corrupt[9] = static_cast<char>(corrupt.at(9) ^ 0x40);
    record(micro850::Direction::Received, corrupt, 30);
    received(readReply(6, "D2 00 00 00 C3 00 D2 04"), 40);
    sent(readRequest(7, kReadSpeed), 50);
    sent(readRequest(7, kReadSpeed), 55);
    sent(readRequest(8, kReadSpeed), 60);
    received(readReply(5, "D2 00 05 00"), 65);
    record(micro850::Direction::Received, corrupt, 70);
    report.finish();
    EXPECT_EQ(texts(), (QStringList{"TNS 6 read Level[0] x1", "corrupt frame",
                                    "TNS 6 read reply: INT 1234"}));
    EXPECT_EQ(events.first().number, 3);
    EXPECT_EQ(report.messages(), 10);
    EXPECT_EQ(report.requests(), 1);
    EXPECT_EQ(report.repetitions(), 0);
    EXPECT_EQ(report.stray(), 0);
    EXPECT_EQ(report.corrupt(), 1);
    EXPECT_EQ(report.unanswered(), 0);
    EXPECT_TRUE(report.failures().isEmpty());
    EXPECT_TRUE(report.openAtEnd().isEmpty());
}
