#include "TimedRuns.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;
using micro850::cipTypeNamed;

namespace {

TimedRun firstRun(const char* type, bool mergeable)
{
    Variable variable;
    variable.station = 3;
    variable.tag = "A";
    variable.element = type == std::string("SHORT_STRING") ? 0 : 5;
    return timedRuns(variable, {7, &cipTypeNamed(type), mergeable}, 2s).first();
}

} // namespace

TEST(TimedRuns, AreTheElementsOfTheVariableAtItsInterval)
{
    const TimedRun run = firstRun("DINT", true);
    EXPECT_EQ(run.tag.station, 3);
    EXPECT_EQ(run.tag.name, "A");
    EXPECT_EQ(run.element, 5);
    EXPECT_EQ(run.elements, 1);
    EXPECT_EQ(run.elementSize, 4);
    EXPECT_EQ(run.interval, 2s);
    EXPECT_EQ(run.variable, 7);
    EXPECT_EQ(run.first, 7);
}

// The bytes of a string do not tell where the next one would begin.
TEST(TimedRuns, AreReadWithNeighboursUnlessThatWasRefusedOrTheyAreStrings)
{
    EXPECT_TRUE(firstRun("DINT", true).mergeable);
    EXPECT_FALSE(firstRun("DINT", false).mergeable);
    EXPECT_FALSE(firstRun("SHORT_STRING", true).mergeable);
    EXPECT_FALSE(firstRun("SHORT_STRING", false).mergeable);
}
