#include "WriteLimits.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using micro850::CipValue;

namespace {

Variable limited(std::optional<int> minimum, std::optional<int> maximum)
{
    Variable variable;
    if (minimum)
        variable.minimum = CipValue::ofSigned(*minimum);
    if (maximum)
        variable.maximum = CipValue::ofSigned(*maximum);
    return variable;
}

std::string problem(int number, const Variable& variable)
{
    return limitsProblem(CipValue::ofSigned(number), std::to_string(number), variable);
}

} // namespace

TEST(WriteLimits, AllowWhatIsBetweenThemAndOnThem)
{
    const Variable variable = limited(-5, 80);
    for (const int number : {-5, 0, 80})
        EXPECT_EQ(problem(number, variable), "") << number;
    EXPECT_EQ(problem(-6, variable), "-6 is outside its limits (minimum -5, maximum 80)");
    EXPECT_EQ(problem(81, limited({}, 80)), "81 is outside its limits (maximum 80)");
    EXPECT_EQ(problem(-1, limited(0, {})), "-1 is outside its limits (minimum 0)");
    EXPECT_EQ(problem(32767, limited({}, {})), "");
}

TEST(WriteLimits, CompareTheNumberThatTheVariableShows)
{
    Variable variable = limited(0, 10);
    variable.gain = 0.1;
    const micro850::CipType& type = micro850::cipTypeNamed("INT");
    const CipValue shown = limitedNumber(type, CipValue::ofSigned(95), variable);
    EXPECT_EQ(shown.text(), "9.5");
    EXPECT_EQ(
        limitedNumber(micro850::cipTypeNamed("BOOL"), CipValue::ofBoolean(true), variable).text(),
        "1");
}
