#include "TableView.h"

#include "keys.h"
#include "poll_fixture.h"

using namespace micro850::host;

namespace {

/// Twelve variables, of which a window of ten rows shows four.
class TableViewTest : public PollTest
{
protected:
    TableViewTest()
    {
        plc.tags["Name"] = {0x00DA, {wire::hex("05 41 70 70 6C 65")}};
        QStringList variables;
        for (int i = 0; i < 10; ++i)
            variables += QStringLiteral(R"({"name": "L%1", "tag": "Level", "element": %1})").arg(i);
        variables += R"({"name": "Speed", "tag": "Speed"})";
        variables += R"({"name": "Again", "tag": "Speed"})";
        start(variables.join(',').toLatin1().constData());
        EXPECT_TRUE(runUntilRead());
        table = std::make_unique<LiveTable>(*loop, project);
        model = std::make_unique<TableRows>(*loop, project);
        view = std::make_unique<TableView>(*table, *model, QString(), SortOrder::Project);
        page();
    }

    void press(const QString& keys)
    {
        pressKeys(*view, keys);
        page();
    }
    QStringList page(int rows = 10, int width = 100)
    {
        model->update(clock.now());
        QStringList texts;
        selected = QString();
        for (const PageLine& row : view->page(width, rows, clock.now())) {
            texts += row.text;
            if (row.isSelected)
                selected = row.text.section(' ', 0, 0);
        }
        return texts;
    }
    /// The names in the table.
    QString names(int rows = 10)
    {
        QStringList names;
        for (const QString& text : page(rows).mid(1)) {
            if (text.isEmpty())
                break;
            names += text.section(' ', 0, 0);
        }
        return names.join(' ');
    }
    QString footer() { return page().last(); }

    QString selected; ///< the name in the selected row of the last page
    std::unique_ptr<LiveTable> table;
    std::unique_ptr<TableRows> model;
    std::unique_ptr<TableView> view;
};

} // namespace

TEST_F(TableViewTest, PrintsTheWholeTableWhateverIsFiltered)
{
    press("/L3<Enter>es");
    const Page whole = view->whole(100);
    ASSERT_EQ(whole.size(), 13);
    EXPECT_TRUE(whole.at(0).text.startsWith("NAME"));
    EXPECT_TRUE(whole.at(1).text.startsWith("Again "));
    EXPECT_TRUE(whole.at(12).text.startsWith("Speed "));
}

TEST_F(TableViewTest, ShowsAsManyRowsAsTheWindowHasAndTheirNumbers)
{
    EXPECT_EQ(page().size(), 10);
    EXPECT_EQ(names(), QString("L0 L1 L2 L3"));
    EXPECT_TRUE(footer().startsWith("1-4 of 12 by project"));
    EXPECT_EQ(names(12), QString("L0 L1 L2 L3 L4 L5"));
}

TEST_F(TableViewTest, NeverShowsMoreThanTheWindowHolds)
{
    for (const int rows : {1, 2, 3, 7, 10, 50}) {
        for (const int width : {1, 10, 40}) {
            const QStringList lines = page(rows, width);
            EXPECT_LE(lines.size(), rows);
            for (const QString& text : lines)
                EXPECT_LE(text.size(), width);
        }
    }
}

TEST_F(TableViewTest, MovesTheSelectionAndScrollsWhenItLeavesTheWindow)
{
    EXPECT_EQ(selected, QString("L0"));
    press("<Down>jj");
    EXPECT_EQ(selected, QString("L3"));
    EXPECT_EQ(names(), QString("L0 L1 L2 L3"));
    press("<Down>");
    EXPECT_EQ(selected, QString("L4"));
    EXPECT_EQ(names(), QString("L1 L2 L3 L4"));
    press("<PageDown><PageDown><PageDown>");
    EXPECT_EQ(selected, QString("Again"));
    EXPECT_EQ(names(), QString("L8 L9 Speed Again"));
    press("k<Up>");
    EXPECT_EQ(selected, QString("L9"));
    press("<Home><Up>");
    EXPECT_EQ(selected, QString("L0"));
    EXPECT_EQ(names(), QString("L0 L1 L2 L3"));
    press("<End>");
    EXPECT_EQ(names(), QString("L8 L9 Speed Again"));
}

TEST_F(TableViewTest, ScrollsWithTheWheelAndSelectsWithAClick)
{
    press("<WheelDown>");
    EXPECT_EQ(names(), QString("L3 L4 L5 L6"));
    EXPECT_EQ(selected, QString("L3"));
    view->handle({Key::Code::Click, QChar(), 3});
    page();
    EXPECT_EQ(selected, QString("L5"));
    view->handle({Key::Code::Click, QChar(), 8}); // below the table
    page();
    EXPECT_EQ(selected, QString("L5"));
    press("<WheelUp>");
    EXPECT_EQ(names(), QString("L0 L1 L2 L3"));
    EXPECT_EQ(selected, QString("L3"));
}

// A write must not go to another variable because rows have moved.
TEST_F(TableViewTest, KeepsTheVariableSelectedWhenTheOrderChanges)
{
    press("jjs");
    EXPECT_EQ(selected, QString("L2"));
    EXPECT_EQ(names(), QString("Again L0 L1 L2"));
    press("/L<Enter>");
    EXPECT_EQ(selected, QString("L2"));
    press("/Sp<Enter>");
    EXPECT_EQ(selected, QString("Speed"));
}

TEST_F(TableViewTest, FollowsEachLetterOfAMatch)
{
    press("/s");
    EXPECT_EQ(names(), QString("Speed"));
    EXPECT_EQ(footer(), QString("match: s_   Enter keep, Escape back"));
    press("<Backspace>ai<Enter>");
    EXPECT_EQ(names(), QString("Again"));
    EXPECT_TRUE(footer().startsWith("1-1 of 1 that match \"ai\""));
    press("/zzz");
    EXPECT_EQ(names(), QString());
    press("<Escape>");
    EXPECT_EQ(names(), QString("Again"));
    press("<Escape>");
    EXPECT_TRUE(footer().startsWith("9-12 of 12 by project")); // where "Again" is
}

TEST_F(TableViewTest, ShowsErrorsOnlyUntilTheKeyIsPressedAgain)
{
    press("e");
    EXPECT_EQ(names(), QString());
    EXPECT_TRUE(footer().startsWith("0-0 of 0 with errors by project"));
    press("w<Enter>"); // nothing is selected
    EXPECT_TRUE(footer().startsWith("0-0 of 0"));
    plc.tags.remove("Speed");
    ASSERT_TRUE(runUntil([&] { return !error(10).empty() && !error(11).empty(); }));
    EXPECT_EQ(names(), QString("Speed Again"));
    press("e<Home>");
    EXPECT_EQ(names(), QString("L0 L1 L2 L3"));
}

TEST_F(TableViewTest, HoldsThePictureUntilTheKeyIsPressedAgain)
{
    press("p");
    EXPECT_TRUE(footer().startsWith("PAUSED 1-4 of 12"));
    plc.tags["Level"].elements[0] = wire::little(7, 2);
    runFor(500);
    EXPECT_TRUE(page().at(1).contains("100"));
    press("p");
    EXPECT_TRUE(footer().startsWith("1-4 of 12"));
    EXPECT_FALSE(page().at(1).contains("100"));
}

TEST_F(TableViewTest, ShowsTheKeysAndReturns)
{
    press("h");
    EXPECT_TRUE(page(30).join('|').contains("w            write the selected variable"));
    EXPECT_TRUE(page(30).last().startsWith("any key back"));
    EXPECT_TRUE(page(10).last().startsWith("arrows scroll"));
    press("<Down>");
    EXPECT_EQ(page(10).first().trimmed(), QString("KEYS"));
    press("x");
    EXPECT_EQ(names(), QString("L0 L1 L2 L3"));
}

TEST_F(TableViewTest, WritesTheSelectedVariableWhenItIsConfirmed)
{
    press("jw5<Enter>");
    EXPECT_TRUE(view->asks());
    EXPECT_EQ(page().at(8), QString("Write L1: 101 -> 5 ?"));
    press("y");
    EXPECT_FALSE(view->asks());
    const std::optional<WriteRequest> write = view->popWrite();
    ASSERT_TRUE(write);
    EXPECT_EQ(write->variable, 1);
    EXPECT_EQ(write->value, wire::hex("05 00"));
    EXPECT_FALSE(view->popWrite());
    press("w6<Enter>n");
    EXPECT_FALSE(view->popWrite());
    EXPECT_EQ(page().at(8), QString("nothing was written"));
    press("k");
    EXPECT_FALSE(page().contains("nothing was written"));
}

TEST_F(TableViewTest, QuitsOnQUnlessAMatchIsTyped)
{
    press("/q");
    EXPECT_FALSE(view->quits());
    press("<Enter>q");
    EXPECT_TRUE(view->quits());
}

TEST_F(TableViewTest, SortsByNameAndByAge)
{
    press("s");
    EXPECT_EQ(names(), QString("Again L0 L1 L2"));
    EXPECT_TRUE(footer().contains("by name"));
    plc.tags.remove("Speed");
    runFor(1000); // Speed and Again age, the others are read on
    press("s");
    EXPECT_EQ(names(), QString("Speed Again L0 L1"));
    press("s");
    EXPECT_EQ(names(), QString("L0 L1 L2 L3"));
}
