#include "Clock.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace std::chrono_literals;

TEST(WholeMilliseconds, CutsOffTheRest)
{
    EXPECT_EQ(wholeMilliseconds(0us), 0);
    EXPECT_EQ(wholeMilliseconds(999us), 0);
    EXPECT_EQ(wholeMilliseconds(1000us), 1);
    EXPECT_EQ(wholeMilliseconds(1999us), 1);
}

TEST(FromSeconds, KeepsMicroseconds)
{
    EXPECT_EQ(fromSeconds(0), 0us);
    EXPECT_EQ(fromSeconds(0.25), 250ms);
    EXPECT_EQ(fromSeconds(1e9), 1000000000s);
}

TEST(VirtualClock, StopsUntilItIsAdvanced)
{
    VirtualClock clock;
    EXPECT_EQ(clock.now(), 0us);
    clock.advance(3ms);
    clock.advance(1us);
    EXPECT_EQ(clock.now(), 3001us);
}

TEST(SystemClock, StartsWithTheObjectAndNeverGoesBack)
{
    const SystemClock clock;
    const Duration first = clock.now();
    EXPECT_GE(first, 0us);
    EXPECT_LT(first, 1min);
    EXPECT_GE(clock.now(), first);
}
