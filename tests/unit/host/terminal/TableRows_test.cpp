#include "TableRows.h"

#include "poll_fixture.h"

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

class TableRowsTest : public PollTest
{
protected:
    void begin(const char* variables, const char* stations = R"([{"number": 1}])")
    {
        start(variables, stations);
        rows = std::make_unique<TableRows>(*loop, project);
    }
    Page page(int width = 100)
    {
        rows->update(clock.now());
        QVector<int> all;
        for (int i = 0; i < project.variables.size(); ++i)
            all.append(i);
        return rows->lines(all, width);
    }
    QStringList lines(int width = 100)
    {
        QStringList texts;
        for (const PageLine& each : page(width))
            texts += each.text;
        return texts;
    }
    void setSpeed(int speed)
    {
        plc.tags["Speed"].elements[0] = wire::little(static_cast<quint64>(speed), 2);
        runFor(100);
    }

    std::unique_ptr<TableRows> rows;
};

} // namespace

TEST_F(TableRowsTest, ShowNameTypeValueAgeAndQuality)
{
    begin(R"({"tag": "Speed"}, {"tag": "Level", "length": 3}, {"tag": "Nope"})");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(0) && loop->values().wasRead(1); }));
    const QStringList table = lines();
    EXPECT_EQ(table.at(0).simplified(), QString("NAME TYPE VALUE AGE QUALITY ERROR"));
    EXPECT_EQ(table.at(1).simplified(), QString("Speed INT 1234 0.0 s good"));
    EXPECT_EQ(table.at(2).simplified(), QString("Level INT[3] [100, 101, 102] 0.0 s good"));
    EXPECT_TRUE(table.at(3).simplified().startsWith("Nope ? - never no such tag (names"));
    EXPECT_EQ(page().at(1).style, Style::Plain);
    EXPECT_EQ(page().at(3).style, Style::Error);
}

TEST_F(TableRowsTest, PutNumbersAtTheRightAndTheirUnitsBehind)
{
    plc.tags["Name"] = {0x00DA, {wire::hex("02 41 42")}};
    begin(R"({"tag": "Speed", "unit": "rpm"}, {"tag": "Level", "unit": "m³"},
             {"tag": "Speed", "name": "Tenth", "gain": 0.1, "offset": -3}, {"tag": "Name"})");
    ASSERT_TRUE(runUntilRead());
    const QStringList table = lines();
    const int at = table.at(0).indexOf("VALUE");
    EXPECT_EQ(table.at(1).mid(at, 10), QString(" 1234 rpm "));
    EXPECT_EQ(table.at(2).mid(at, 10), QString::fromUtf8("  100 m³  "));
    EXPECT_EQ(table.at(3).mid(at, 10), QString("120.4     "));
    EXPECT_EQ(table.at(4).mid(at, 10), QString("AB        "));
}

// The widths are those of all rows, and they only grow.
TEST_F(TableRowsTest, CutNoNumberForALongerOne)
{
    plc.tags["Total"] = {0x00C5, {wire::little(9007199254740993U, 8)}};
    begin(R"({"tag": "Speed", "unit": "rpm"}, {"tag": "Total"})");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(1); }));
    for (const int width : {60, 40, 34}) {
        const QStringList table = lines(width);
        EXPECT_TRUE(table.at(1).contains(" 1234 rpm")) << width << table.at(1).toStdString();
        EXPECT_TRUE(table.at(2).contains(" 900719")) << width << table.at(2).toStdString();
    }
}

TEST_F(TableRowsTest, KeepTheirColumnsWhateverIsShownAndWhenTextsBecomeShorter)
{
    begin(R"({"tag": "Speed", "name": "A name of some length"}, {"tag": "Level", "length": 10},
             {"tag": "Speed", "name": "B"})");
    ASSERT_TRUE(runUntilRead());
    const QStringList all = lines();
    const int age = all.at(0).indexOf("QUALITY");
    EXPECT_EQ(rows->lines({2}, 100).at(0).text, all.at(0));
    for (int i = 0; i < 10; ++i)
        plc.tags["Level"].elements[i] = wire::little(0, 2);
    runFor(200);
    EXPECT_EQ(lines().at(0).indexOf("QUALITY"), age);
}

TEST_F(TableRowsTest, LeaveErrorsAThirdOfTheRoom)
{
    begin(R"({"tag": "Level", "length": 10}, {"tag": "Nope"}, {"tag": "Speed"})");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(0) && !error(1).empty(); }));
    // Name 5, type 7, age 6, quality 7, four blanks: 29 of 80. Of the 51 a third is for the error
    // and its blank.
    const QStringList table = lines(80);
    EXPECT_EQ(table.at(1).mid(14, 34), QString::fromUtf8("[100, 101, 102, 103, 104, 105, 10…"));
    EXPECT_EQ(table.at(2).section("never", 1).trimmed().size(), 16) << table.at(2).toStdString();
}

TEST_F(TableRowsTest, ShowAnErrorInPlaceOfTheMissingValueWhereTheWindowIsNarrow)
{
    begin(R"({"tag": "Speed"}, {"tag": "Nope"})");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(0) && !error(1).empty(); }));
    const QStringList table = lines(40);
    EXPECT_EQ(table.at(0).simplified(), QString("NAME VALUE QUALITY"));
    EXPECT_TRUE(table.at(2).startsWith("Nope  no such")) << table.at(2).toStdString();
}

TEST_F(TableRowsTest, FitTheWidthOfTheWindow)
{
    begin(R"({"tag": "Level", "length": 10}, {"tag": "Speed"}, {"tag": "Nope"})");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(0); }));
    for (const int width : {1, 20, 40, 56, 64, 70, 80, 300}) {
        for (const QString& text : lines(width))
            EXPECT_LE(text.size(), width);
    }
}

TEST_F(TableRowsTest, MarkAValueThatChangedForASecond)
{
    begin(R"({"tag": "Speed"}, {"tag": "Level"})");
    ASSERT_TRUE(runUntilRead());
    EXPECT_TRUE(page().at(1).marks.isEmpty()); // the first one has not changed
    setSpeed(7);
    const PageLine changed = page().at(1);
    ASSERT_EQ(changed.marks.size(), 1);
    EXPECT_EQ(changed.marks.at(0).style, Style::Changed);
    EXPECT_EQ(changed.text.mid(changed.marks.at(0).column, changed.marks.at(0).width),
              QString("7"));
    EXPECT_TRUE(page().at(2).marks.isEmpty());
    runFor(1000);
    EXPECT_TRUE(page().at(1).marks.isEmpty());
}

TEST_F(TableRowsTest, StayAsTheyAreWhileTheyAreHeld)
{
    begin(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    const QStringList before = lines();
    rows->hold(true);
    setSpeed(7);
    runFor(3000);
    EXPECT_EQ(lines(), before);
    EXPECT_EQ(rows->values().text(0), QString("1234"));
    EXPECT_EQ(rows->latest().text(0), QString("7"));
    rows->hold(false);
    EXPECT_TRUE(lines().at(1).contains("7 "));
}

TEST_F(TableRowsTest, WarnOfStaleValues)
{
    begin(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    ASSERT_TRUE(runUntil([&] { return station().state() == Station::State::Dead; }));
    EXPECT_TRUE(lines().at(1).contains("stale"));
    EXPECT_EQ(page().at(1).style, Style::Warning);
}
