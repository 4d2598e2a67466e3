#include "TableView.h"

#include "poll_fixture.h"

using namespace micro850::host;

namespace {

/// Twelve variables, of which a window of ten rows shows four.
class TableViewTest : public PollTest
{
protected:
    TableViewTest()
    {
        QStringList variables;
        for (int i = 0; i < 10; ++i)
            variables += QStringLiteral(R"({"name": "L%1", "tag": "Level", "element": %1})").arg(i);
        variables += R"({"name": "Speed", "tag": "Speed"})";
        variables += R"({"name": "Again", "tag": "Speed"})";
        start(variables.join(',').toLatin1().constData());
        EXPECT_TRUE(runUntilRead());
        table = std::make_unique<LiveTable>(*loop, project);
        view = std::make_unique<TableView>(*table, QString(), SortOrder::Project);
    }

    void press(const char* keys)
    {
        for (const Key& key : keysOf(keys))
            view->handle(key);
    }
    QStringList page(int rows = 10, int width = 100)
    {
        QStringList texts;
        for (const PageLine& row : view->page(width, rows, clock.now()))
            texts += row.text;
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

    std::unique_ptr<LiveTable> table;
    std::unique_ptr<TableView> view;
};

} // namespace

TEST_F(TableViewTest, ShowsOnlyItsValues)
{
    press("jj");
    const Page alone = view->values(100, 3, clock.now());
    ASSERT_EQ(alone.size(), 4);
    EXPECT_TRUE(alone.at(0).text.startsWith("NAME"));
    EXPECT_TRUE(alone.at(1).text.startsWith("L2 "));
    EXPECT_TRUE(alone.at(3).text.startsWith("L4 "));
    EXPECT_EQ(view->values(100, 50, clock.now()).size(), 13);
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

TEST_F(TableViewTest, ScrollsByLinesAndPagesAndStopsAtTheEnds)
{
    press("\x1b[B\x1b[B");
    EXPECT_EQ(names(), QString("L2 L3 L4 L5"));
    press("\x1b[6~");
    EXPECT_EQ(names(), QString("L6 L7 L8 L9"));
    press("\x1b[6~\x1b[6~\x1b[6~");
    EXPECT_EQ(names(), QString("L8 L9 Speed Again"));
    press("k");
    EXPECT_EQ(names(), QString("L7 L8 L9 Speed"));
    press("\x1b[H\x1b[A");
    EXPECT_EQ(names(), QString("L0 L1 L2 L3"));
    press("\x1b[F");
    EXPECT_EQ(names(), QString("L8 L9 Speed Again"));
}

TEST_F(TableViewTest, FollowsEachLetterOfAMatch)
{
    press("/s");
    EXPECT_EQ(names(), QString("Speed"));
    EXPECT_EQ(footer(), QString("match: s_   Enter keep, Escape back"));
    press("\x7f"
          "ai\r");
    EXPECT_EQ(names(), QString("Again"));
    EXPECT_TRUE(footer().startsWith("1-1 of 1 that match \"ai\""));
    press("/zzz");
    EXPECT_EQ(names(), QString());
    press("\x1b");
    EXPECT_EQ(names(), QString("Again"));
    press("\x1b");
    EXPECT_TRUE(footer().startsWith("1-4 of 12 by project"));
}

TEST_F(TableViewTest, QuitsOnQUnlessAMatchIsTyped)
{
    press("/q");
    EXPECT_FALSE(view->quits());
    press("\rq");
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
