#include "DetailView.h"

#include "keys.h"
#include "poll_fixture.h"

using namespace micro850::host;

namespace {

class DetailViewTest : public PollTest
{
protected:
    void begin(const char* variables)
    {
        start(variables);
        ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(0) || !error(0).empty(); }));
        rows = std::make_unique<TableRows>(*loop, project);
        rows->update(clock.now());
        view = std::make_unique<DetailView>(*rows, 0);
    }
    std::string shown(int width = 100, int height = 100)
    {
        QStringList lines;
        for (const PageLine& each : view->lines(width, height))
            lines += (each.isSelected ? ">" : "") + each.text;
        return lines.join('|').toStdString();
    }

    std::unique_ptr<TableRows> rows;
    std::unique_ptr<DetailView> view;
};

} // namespace

TEST_F(DetailViewTest, ShowsTheElementsOfAnArrayWithTheirUnit)
{
    plc.tags["Level"].elements[2] = wire::little(7, 2);
    begin(R"({"name": "Tank", "tag": "Level", "element": 1, "length": 3, "unit": "mm"})");
    EXPECT_EQ(shown(), "Tank  INT[3]|tag Level[1..3] of station 1, good, read 0.0 s ago||"
                       ">[0] 101 mm|[1]   7 mm|[2] 103 mm");
    EXPECT_EQ(view->place(), QString("1-3 of 3"));
}

TEST_F(DetailViewTest, ScrollsThroughElements)
{
    begin(R"({"tag": "Level", "length": 10})");
    shown(100, 6);
    pressKeys(*view, "<Down><Down><Down>");
    EXPECT_EQ(shown(100, 6), "Level  INT[10]|tag Level[0..9] of station 1, good, read 0.0 s ago||"
                             "[1] 101|[2] 102|>[3] 103");
    EXPECT_EQ(view->index(), 3);
    pressKeys(*view, "<PageDown><PageDown><PageDown><Up>");
    EXPECT_EQ(view->index(), 8);
    pressKeys(*view, "<WheelUp><Home><Up>");
    EXPECT_EQ(view->index(), 0);
    pressKeys(*view, "<End><Down>");
    EXPECT_EQ(view->index(), 9);
}

TEST_F(DetailViewTest, MarksTheElementsThatHaveJustChanged)
{
    const auto marks = [this] {
        QStringList marked;
        for (const PageLine& each : view->lines(100, 100)) {
            for (const Mark& mark : each.marks)
                marked += each.text.mid(mark.column, mark.width);
        }
        return marked;
    };
    begin(R"({"tag": "Level", "length": 10})");
    EXPECT_EQ(marks(), QStringList());
    plc.tags["Level"].elements[4] = wire::little(7, 2);
    runFor(100);
    rows->update(clock.now());
    EXPECT_EQ(marks(), QStringList("7"));
    runFor(950);
    rows->update(clock.now());
    EXPECT_EQ(marks(), QStringList("7"));
    runFor(100);
    rows->update(clock.now());
    EXPECT_EQ(marks(), QStringList());
}

TEST_F(DetailViewTest, ShowsALongTextInSeveralLines)
{
    plc.tags["Name"] = {0x00DA, {wire::hex("0B 6F 6E 65 20 74 77 6F 20 73 69 78")}};
    begin(R"({"tag": "Name"})");
    EXPECT_EQ(shown(10).substr(shown(10).find("||")), "||one two|six");
    EXPECT_EQ(view->index(), 0);
}

TEST_F(DetailViewTest, ShowsAnErrorInFull)
{
    begin(R"({"tag": "Nope"})");
    EXPECT_EQ(shown(40), "Nope  ?|tag Nope of station 1, never read|no such tag (names are as in "
                         "the|controller's program; status 05)||");
}
