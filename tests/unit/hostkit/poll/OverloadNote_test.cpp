#include "OverloadNote.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

class OverloadNoteTest : public ::testing::Test
{
protected:
    std::string noted(double share, int variable, bool isOverload = true)
    {
        LineLoad load;
        load.isOverload = isOverload;
        load.toldShare = share;
        load.variable = variable;
        load.asked = 1s;
        load.actual = micro850::Duration(static_cast<qint64>(share * 1000000));
        note.note(load, project);
        return note.text().toStdString();
    }

    const Project project =
        Project::fromText(R"({"variables": [{"tag": "A"}, {"tag": "B", "name": "Level"}]})", "p");
    OverloadNote note;
};

} // namespace

TEST_F(OverloadNoteTest, NamesTheVariableWhileThereIsAnOverload)
{
    EXPECT_EQ(note.text(), QString());
    EXPECT_EQ(noted(0.5, -1, false), "");
    EXPECT_EQ(noted(1.4, 1),
              "the line is 140 % asked for: Level is read every 1.4 s instead of 1 s");
    EXPECT_EQ(noted(0.5, -1, false), "");
}

TEST_F(OverloadNoteTest, ChangesWithTheShareThatIsToldOnly)
{
    const std::string first = noted(1.4, 1);
    EXPECT_EQ(noted(1.4, 0), first);
    EXPECT_EQ(noted(1.8, 0), "the line is 180 % asked for: A is read every 1.8 s instead of 1 s");
    noted(1.8, 0, false);
    EXPECT_EQ(noted(1.8, 0), "the line is 180 % asked for: A is read every 1.8 s instead of 1 s")
        << "it began again";
}

// All runs of the line may belong to stations that are left out.
TEST_F(OverloadNoteTest, SaysNothingWithoutAVariable)
{
    EXPECT_EQ(noted(1.4, -1), "");
}
