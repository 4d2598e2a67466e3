#include "PlantTexts.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

LineView lineView(bool isUp)
{
    LineView line;
    line.text = "/dev/ttyUSB0, 38400 8N1";
    line.isUp = isUp;
    line.error = isUp ? "" : "no such device";
    line.reportedError = isUp ? "" : "the device is gone";
    return line;
}

StationView stationView(const char* state, const char* problem)
{
    StationView station;
    station.state = state;
    station.problem = problem;
    station.isConnected = station.state == "connected";
    return station;
}

// Up to the counters.
std::string stateOf(const StationView& station)
{
    return stationText(station, 100s).section("; ", 0, 0).toStdString();
}

} // namespace

TEST(LineStateText, HasAReasonOnlyWhileTheLineIsDown)
{
    EXPECT_EQ(lineStateText(lineView(true)), QString("line /dev/ttyUSB0, 38400 8N1"));
    EXPECT_EQ(reportedLineStateText(lineView(true)), QString("line /dev/ttyUSB0, 38400 8N1"));
    EXPECT_EQ(lineStateText(lineView(false)),
              QString("line /dev/ttyUSB0, 38400 8N1: DOWN, no such device"));
    EXPECT_EQ(reportedLineStateText(lineView(false)),
              QString("line /dev/ttyUSB0, 38400 8N1: DOWN, the device is gone"));
}

TEST(LineFiguresText, HasTheRetriesOfAllStations)
{
    LineFigures figures;
    figures.transactionsPerSecond = 60.52;
    figures.percentInUse = 99.6;
    figures.roundTripMedian = 999us;
    figures.roundTrip99 = 12ms;
    figures.reopened = 3;
    QVector<StationView> stations(2);
    stations[0].counters.retries = 4;
    stations[1].counters.retries = 5;
    EXPECT_EQ(lineFiguresText(figures, stations),
              QString("60.5 transactions/s, 100 % in use, round trip <1 ms, 99 % within 12 ms, "
                      "retries 9, reopened 3"));
}

TEST(LineFiguresText, HasDashesForWhatIsNotKnownYet)
{
    LineFigures figures;
    figures.transactionsPerSecond = 60.52;
    figures.hasRates = false;
    EXPECT_EQ(lineFiguresText(figures, {}),
              QString("- transactions/s, - % in use, round trip -, 99 % within -, retries 0, "
                      "reopened 0"));
}

TEST(StationText, HasTheNameIfThereIsOne)
{
    StationView station = stationView("connected", "");
    EXPECT_EQ(stateOf(station), "station 1: connected");
    station.name = "press";
    EXPECT_EQ(stateOf(station), "station 1 (press): connected");
}

TEST(StationText, HasTheProblemUnlessItIsThatOfTheLine)
{
    EXPECT_EQ(stateOf(stationView("dead", "no answer")), "station 1: dead, no answer");
    EXPECT_EQ(stateOf(stationView("line down", "no such device")), "station 1: line down");
}

TEST(StationText, TellsOfAStationWithoutAConnectionWhenItAnsweredLast)
{
    StationView station = stationView("dead", "");
    EXPECT_EQ(stateOf(station), "station 1: dead") << "it never answered";
    station.lastAnswer = 87s;
    EXPECT_EQ(stateOf(station), "station 1: dead, last answer 13 s ago");
    station.isConnected = true;
    EXPECT_EQ(stateOf(station), "station 1: dead") << "a connected one answers all the time";
}

TEST(StationText, HasTheCountersAndTheErrorsByTheirStatus)
{
    StationView station = stationView("connected", "");
    Counters& counters = station.counters;
    counters.sent = 12;
    counters.answered = 11;
    counters.timedOut = 1;
    counters.corrupt = 2;
    counters.late = 3;
    counters.reconnects = 4;
    const QString all = "station 1: connected; sent 12, answered 11, timed out 1, corrupt 2, late "
                        "3, reconnects 4";
    EXPECT_EQ(stationText(station, 0s), all);
    counters.errors = {{"05", 7}, {"FF/2105", 1}};
    EXPECT_EQ(stationText(station, 0s), all + "; 7x status 05, 1x status FF/2105");
}

TEST(ConditionText, HasTheReasonOfAStationThatIsDead)
{
    EXPECT_EQ(conditionText(stationView("dead", "no answer")), QString("dead, no answer"));
    EXPECT_EQ(conditionText(stationView("refused", "out of connections")),
              QString("refused, out of connections"));
    EXPECT_EQ(conditionText(stationView("dead", "")), QString("dead"));
    EXPECT_EQ(conditionText(stationView("connecting", "no answer")), QString("connecting"))
        << "it may still get its connection";
}

TEST(OverloadText, HasAsFewDigitsAsTheReaderNeeds)
{
    const auto text = [](micro850::Duration asked, micro850::Duration actual) {
        return overloadText(1.4, "Level", asked, actual).toStdString();
    };
    const std::string head = "the line is 140 % asked for: Level is read every ";
    EXPECT_EQ(text(1s, 1400ms), head + "1.4 s instead of 1 s");
    EXPECT_EQ(text(100ms, 350ms), head + "0.35 s instead of 0.1 s");
    EXPECT_EQ(text(10s, 120s), head + "120 s instead of 10 s");
    EXPECT_EQ(text(20ms, 28ms), head + "0.028 s instead of 0.02 s");
}

// Each limit, and just below it.
TEST(AgeText, IsCoarserTheOlderTheValueIs)
{
    EXPECT_EQ(ageText(std::nullopt), QString("-"));
    EXPECT_EQ(ageText(0s), QString("0.0 s"));
    EXPECT_EQ(ageText(9999ms), QString("9.9 s"));
    EXPECT_EQ(ageText(10s), QString("10 s"));
    EXPECT_EQ(ageText(119999ms), QString("119 s"));
    EXPECT_EQ(ageText(120s), QString("2 min"));
    EXPECT_EQ(ageText(2h - 1ms), QString("119 min"));
    EXPECT_EQ(ageText(2h), QString("2 h"));
}
