#include "RenewalPace.h"

#include <gtest/gtest.h>

using micro850::Duration;
using micro850::host::RenewalPace;
using namespace std::chrono_literals;

TEST(RenewalPace, IsNotDueWithoutAChange)
{
    RenewalPace pace;
    EXPECT_FALSE(pace.isDue(1h));
    pace.noteChange();
    pace.noteRenewal(0s, 5);
    EXPECT_FALSE(pace.isDue(1h));
}

TEST(RenewalPace, IsDueAtOnceForAShortList)
{
    RenewalPace pace;
    pace.noteChange();
    EXPECT_TRUE(pace.isDue(0s));
    pace.noteRenewal(0s, 15);
    pace.noteChange();
    EXPECT_TRUE(pace.isDue(0s));
}

TEST(RenewalPace, WaitsUntilAnEighthOfALongListHasChanged)
{
    RenewalPace pace;
    pace.noteRenewal(2s, 800);
    for (int change = 0; change < 99; ++change)
        pace.noteChange();
    EXPECT_FALSE(pace.isDue(2s));
    pace.noteChange();
    EXPECT_TRUE(pace.isDue(2s));
}

TEST(RenewalPace, WaitsNoLongerThanATimeThatGrowsWithTheList)
{
    RenewalPace pace;
    pace.noteRenewal(2s, 10000);
    pace.noteChange();
    EXPECT_FALSE(pace.isDue(2999999us));
    EXPECT_TRUE(pace.isDue(3s));
}

// What 10,000 tags cost that are learnt one after the other.
TEST(RenewalPace, KeepsTheWorkInProportionToTheChanges)
{
    RenewalPace pace;
    long long work = 0;
    const int tags = 10000;
    for (int learnt = 1; learnt <= tags; ++learnt) {
        pace.noteChange();
        const Duration now = learnt * 6ms;
        if (!pace.isDue(now))
            continue;
        pace.noteRenewal(now, learnt);
        work += learnt;
    }
    EXPECT_LT(work, 500LL * tags);
}
