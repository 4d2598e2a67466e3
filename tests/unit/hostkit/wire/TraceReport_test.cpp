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
    EXPECT_EQ(lines.at(2), "   <= 1 ms       2 " + QString(40, '#'));
    EXPECT_EQ(lines.at(4), "  <= 50 ms       1 " + QString(20, '#'));
    EXPECT_EQ(lines.at(5), " > 1000 ms       1 " + QString(20, '#'));
}

TEST_F(TraceReportTest, HasNoFailuresAndNoRoundTripsForAnEmptyTrace)
{
    report.finish();
    EXPECT_LT(report.roundTripMs(50), 0);
    EXPECT_EQ(report.statistics().size(), 2);
}
