#include "Resampler.h"

#include "UserError.h"

#include <QtCore/QDateTime>
#include <ctime>
#include <gtest/gtest.h>

using namespace micro850::host;

namespace {

const qint64 kSecond = 1000;
const qint64 kHour = 3600 * kSecond;

std::shared_ptr<const HistoryVariable> variable(const char* name, const char* type = "INT")
{
    HistoryVariable made;
    made.name = name;
    made.type = type;
    return std::make_shared<const HistoryVariable>(made);
}

class ResamplerTest : public ::testing::Test
{
protected:
    void begin(qint64 period, Take take, qint64 hold = 0, std::optional<qint64> from = std::nullopt)
    {
        rows.clear();
        resampler = std::make_unique<Resampler>(
            ResampleSettings{period, take, hold, from}, [this](const HistoryValue& row) {
                rows += QStringLiteral("%1 %2 %3")
                            .arg(QString::number(row.time), row.variable->name,
                                 QString::fromStdString(row.value.dump()));
                return rows.size() < most;
            });
    }
    void add(qint64 time, const std::shared_ptr<const HistoryVariable>& of, const Json& value,
             const char* quality = "good")
    {
        HistoryValue row;
        row.variable = of;
        row.time = time;
        row.value = value;
        row.quality = quality;
        goesOn = resampler->add(row);
    }
    QStringList finished()
    {
        resampler->finish();
        return rows;
    }

    const std::shared_ptr<const HistoryVariable> level = variable("Level");
    std::unique_ptr<Resampler> resampler;
    QStringList rows;
    int most = 1000;
    bool goesOn = true;
};

} // namespace

// 0 for 9 of 10 seconds and 100 for one: the mean is 10, however few rows there are.
TEST_F(ResamplerTest, TakesTheMeanOverTime)
{
    begin(10 * kSecond, Take::Mean);
    add(0, level, 0);
    add(9 * kSecond, level, 100);
    add(10 * kSecond, level, 20);
    add(15 * kSecond, level, 40);
    add(20 * kSecond, level, 0);
    EXPECT_EQ(finished(), (QStringList{"0 Level 10.0", "10000 Level 30.0", "20000 Level 0.0"}));
}

TEST_F(ResamplerTest, GivesTheSameMeanForEachChangeAndForEachSecond)
{
    begin(10 * kSecond, Take::Mean);
    for (int second = 0; second < 20; ++second)
        add(second * kSecond, level, second < 7 ? 3 : 8);
    add(20 * kSecond, level, 8);
    const QStringList eachSecond = finished();
    begin(10 * kSecond, Take::Mean);
    add(0, level, 3);
    add(7 * kSecond, level, 8);
    add(20 * kSecond, level, 8);
    EXPECT_EQ(finished(), eachSecond);
    EXPECT_EQ(rows.first(), QString("0 Level 4.5"));
}

TEST_F(ResamplerTest, TakesWhatHoldsFromThePeriodBefore)
{
    const auto of = [this](Take take) {
        begin(10 * kSecond, take);
        add(5 * kSecond, level, 7);
        add(12 * kSecond, level, 3);
        add(14 * kSecond, level, 5);
        add(35 * kSecond, level, 1);
        return finished();
    };
    EXPECT_EQ(of(Take::Minimum),
              (QStringList{"0 Level 7", "10000 Level 3", "20000 Level 5", "30000 Level 1"}));
    EXPECT_EQ(of(Take::Maximum),
              (QStringList{"0 Level 7", "10000 Level 7", "20000 Level 5", "30000 Level 5"}));
    EXPECT_EQ(of(Take::Last),
              (QStringList{"0 Level 7", "10000 Level 5", "20000 Level 5", "30000 Level 1"}));
}

TEST_F(ResamplerTest, EndsAValueThatIsNoLongerGood)
{
    begin(10 * kSecond, Take::Mean);
    add(0, level, 10);
    add(2 * kSecond, level, 10, "stale");
    add(8 * kSecond, level, 20);
    add(10 * kSecond, level, 20, "stale");
    add(39 * kSecond, level, 5);
    EXPECT_EQ(finished(), (QStringList{"0 Level 15.0", "30000 Level 5.0"}));
}

TEST_F(ResamplerTest, HoldsAValueForSoLongOnly)
{
    begin(10 * kSecond, Take::Last, 15 * kSecond);
    add(2 * kSecond, level, 10);
    add(60 * kSecond, level, 20);
    EXPECT_EQ(finished(), (QStringList{"0 Level 10", "10000 Level 10", "60000 Level 20"}));
}

TEST_F(ResamplerTest, TellsPeriodsFromATimeOnWithWhatHeldBefore)
{
    begin(10 * kSecond, Take::Last, 0, 20 * kSecond);
    add(0, level, 10);
    add(35 * kSecond, level, 20);
    EXPECT_EQ(finished(), (QStringList{"20000 Level 10", "30000 Level 20"}));
}

TEST_F(ResamplerTest, TakesArraysElementByElementAndThoseOfALogAsNumbers)
{
    begin(10 * kSecond, Take::Mean);
    const auto logged = variable("Logged");
    add(0, level, Json::array({1, 10}));
    add(0, logged, "1.5 -2");
    add(5 * kSecond, level, Json::array({3, 20}));
    add(10 * kSecond, logged, "0x10 true");
    EXPECT_EQ(finished(), (QStringList{"0 Level [2.0,15.0]", "0 Logged [1.5,-2.0]",
                                       "10000 Logged [16.0,1.0]"}));
}

TEST_F(ResamplerTest, TakesOfTextsOnlyTheLast)
{
    const auto name = variable("Name", "SHORT_STRING");
    begin(10 * kSecond, Take::Last);
    add(0, name, "a 1");
    add(3 * kSecond, name, "2 3");
    EXPECT_EQ(finished(), QStringList("0 Name \"2 3\""));
    begin(10 * kSecond, Take::Maximum);
    add(0, name, "a");
    add(0, level, 5);
    add(30 * kSecond, name, "b");
    EXPECT_EQ(finished(), (QStringList{"0 Level 5", "10000 Level 5", "20000 Level 5"}));
    EXPECT_EQ(resampler->leftOut(), QStringList("Name"));
}

TEST_F(ResamplerTest, BeginsDaysAtLocalMidnightAlsoWhenSummerTimeEnds)
{
    qputenv("TZ", "Europe/Berlin");
    tzset();
    const auto utc = [](const char* text) {
        return QDateTime::fromString(text, Qt::ISODate).toMSecsSinceEpoch();
    };
    begin(24 * kHour, Take::Mean);
    // The day has 25 hours: 0 for 5 of them.
    add(utc("2026-10-24T22:00:00Z"), level, 0);
    add(utc("2026-10-25T03:00:00Z"), level, 25);
    add(utc("2026-10-26T22:59:59Z"), level, 25);
    const QString day = QString::number(utc("2026-10-24T22:00:00Z"));
    const QString next = QString::number(utc("2026-10-25T23:00:00Z"));
    EXPECT_EQ(finished(), (QStringList{day + " Level 20.0", next + " Level 25.0"}));
    qunsetenv("TZ");
    tzset();
}

TEST_F(ResamplerTest, GoesOnWhenTheClockWasSetBack)
{
    begin(10 * kSecond, Take::Last);
    add(25 * kSecond, level, 1);
    add(3 * kSecond, level, 2);
    add(12 * kSecond, level, 3);
    EXPECT_EQ(finished(), (QStringList{"20000 Level 1", "0 Level 2", "10000 Level 3"}));
}

TEST_F(ResamplerTest, RefusesMillionsOfPeriodsBetweenTwoRows)
{
    begin(1, Take::Last, 0, 1000000 * kHour); // so that none is told
    add(0, level, 1);
    EXPECT_THROW(add(1000 * kHour, level, 2), micro850::UserError);
    begin(1, Take::Last, kSecond);
    add(0, level, 1);
    add(1000 * kHour, level, 2);
    EXPECT_EQ(rows.size(), 1000); // as many as are wanted
    EXPECT_FALSE(goesOn);
}

TEST_F(ResamplerTest, HasNoRowsWithoutAny)
{
    begin(kSecond, Take::Mean);
    EXPECT_EQ(finished(), QStringList());
}
