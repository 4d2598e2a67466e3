#include "ExactNumbers.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

using micro850::CipValue;
using namespace micro850::host;

namespace {

CipValue s(std::int64_t value)
{
    return CipValue::ofSigned(value);
}
CipValue u(std::uint64_t value)
{
    return CipValue::ofUnsigned(value);
}
CipValue r(double value)
{
    return CipValue::ofReal(value);
}

const std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();
const std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
const std::uint64_t kLargest = std::numeric_limits<std::uint64_t>::max();
const double kInfinity = std::numeric_limits<double>::infinity();

} // namespace

TEST(CompareNumbers, OrdersNumbersOfEveryKindExactly)
{
    // Each is smaller than the next one; neighbours of 2^53, 2^63 and 2^64 are equal as doubles.
    const CipValue ordered[] = {r(-kInfinity),
                                r(-1e300),
                                s(kLeast),
                                s(kLeast + 1),
                                r(-1.5),
                                s(-1),
                                r(-0.5),
                                s(0),
                                CipValue::ofReal(0.25F),
                                CipValue::ofBoolean(true),
                                r(1.5),
                                s(9007199254740992),
                                s(9007199254740993),
                                u(9007199254740994),
                                s(kMost),
                                u(static_cast<std::uint64_t>(kMost) + 1),
                                u(kLargest - 1),
                                u(kLargest),
                                r(18446744073709551616.0),
                                r(kInfinity)};
    const int count = static_cast<int>(std::size(ordered));
    for (int i = 0; i < count; ++i) {
        for (int j = 0; j < count; ++j) {
            const int order = compareNumbers(ordered[i], ordered[j]);
            EXPECT_EQ(order < 0, i < j) << i << ' ' << j;
            EXPECT_EQ(order > 0, i > j) << i << ' ' << j;
        }
    }
    EXPECT_EQ(compareNumbers(s(kLeast), r(-9223372036854775808.0)), 0);
    EXPECT_EQ(compareNumbers(s(7), u(7)), 0);
    EXPECT_EQ(compareNumbers(s(0), r(-0.0)), 0);
}

TEST(DiffersByMore, ComparesIntegersOf64BitsExactly)
{
    EXPECT_TRUE(differsByMore(s(9007199254740992), s(9007199254740993), 0));
    EXPECT_FALSE(differsByMore(s(9007199254740992), s(9007199254740993), 1));
    EXPECT_TRUE(differsByMore(u(kLargest), u(kLargest - 3), 2));
    EXPECT_FALSE(differsByMore(u(kLargest), u(kLargest - 2), 2));
    EXPECT_TRUE(differsByMore(s(kLeast), s(kMost), 1.8e19));
    EXPECT_FALSE(differsByMore(s(kLeast), s(kMost), 1.9e19));
    EXPECT_TRUE(differsByMore(s(-1), s(1), 1.5));
    EXPECT_FALSE(differsByMore(s(-1), s(1), 2));
    EXPECT_FALSE(differsByMore(s(5), s(5), 0));
}

TEST(DiffersByMore, TakesRoundingOfRealNumbersForNoChange)
{
    EXPECT_FALSE(differsByMore(r(0.9), r(1.1), 0.2)); // 0.20000000000000007
    EXPECT_TRUE(differsByMore(r(0.9), r(1.11), 0.2));
    EXPECT_FALSE(differsByMore(CipValue::ofReal(0.9F), CipValue::ofReal(1.1F), 0.2));
    EXPECT_TRUE(differsByMore(CipValue::ofReal(0.9F), CipValue::ofReal(1.11F), 0.2));
    EXPECT_TRUE(differsByMore(r(1), r(std::nextafter(1.0, 2.0)), 0)); // every change
    EXPECT_FALSE(differsByMore(r(0.0), r(-0.0), 0));
}

TEST(DiffersByMore, SeesNumbersThatComeFromAndGoToInfinityOrNaN)
{
    const CipValue none = r(std::nan(""));
    EXPECT_FALSE(differsByMore(none, none, 5));
    EXPECT_TRUE(differsByMore(none, r(1), 1e300));
    EXPECT_TRUE(differsByMore(r(1), none, 1e300));
    EXPECT_FALSE(differsByMore(r(kInfinity), r(kInfinity), 5));
    EXPECT_TRUE(differsByMore(r(kInfinity), r(-kInfinity), 5));
    EXPECT_TRUE(differsByMore(r(kInfinity), r(1), 1e300));
    EXPECT_TRUE(differsByMore(r(-1e308), r(1e308), 1e308)); // their difference is infinite
}

TEST(DiffersByMore, SeesEveryChangeOfATextOrABit)
{
    EXPECT_TRUE(differsByMore(CipValue::ofText("a"), CipValue::ofText("b"), 100));
    EXPECT_FALSE(differsByMore(CipValue::ofText("a"), CipValue::ofText("a"), 0));
    EXPECT_TRUE(differsByMore(CipValue::ofBoolean(false), CipValue::ofBoolean(true), 100));
    EXPECT_TRUE(differsByMore(CipValue::ofBits(1, 2), CipValue::ofBits(2, 2), 100));
    EXPECT_TRUE(differsByMore(CipValue::ofText("1"), s(1), 100));
}

TEST(IsWithinLimits, IncludesTheLimitsAndNoNumberThatIsNone)
{
    EXPECT_TRUE(isWithinLimits(s(5), std::nullopt, std::nullopt));
    EXPECT_TRUE(isWithinLimits(CipValue::ofText("x"), std::nullopt, std::nullopt));
    EXPECT_TRUE(isWithinLimits(s(5), s(5), s(5)));
    EXPECT_FALSE(isWithinLimits(s(4), s(5), std::nullopt));
    EXPECT_FALSE(isWithinLimits(r(5.000001), s(0), s(5)));
    EXPECT_FALSE(isWithinLimits(s(9007199254740993), std::nullopt, s(9007199254740992)));
    EXPECT_FALSE(isWithinLimits(r(std::nan("")), s(0), std::nullopt));
    EXPECT_FALSE(isWithinLimits(CipValue::ofText("5"), s(0), s(9)));
    EXPECT_FALSE(isWithinLimits(r(kInfinity), std::nullopt, s(9)));
}
