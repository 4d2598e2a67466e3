#include "LossNotice.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::gateway;
using namespace std::chrono_literals;
using News = LossNotice::News;

TEST(LossNotice, ComesOnceWhenLossesBeginAndOnceAfterAMinuteWithoutAny)
{
    LossNotice notice(5);
    EXPECT_EQ(notice.take(5, 0s), News::None) << "an earlier process told them";
    EXPECT_EQ(notice.take(6, 1s), News::Begun);
    EXPECT_EQ(notice.take(9, 30s), News::None);
    EXPECT_EQ(notice.take(9, 89s), News::None);
    EXPECT_EQ(notice.take(9, 90s), News::Over);
    EXPECT_EQ(notice.take(9, 1000s), News::None);
    EXPECT_EQ(notice.take(10, 1001s), News::Begun);
}

TEST(LossNotice, ComesForALossAfterTheBrokerTurnedOutToHaveSomeOfThoseBefore)
{
    LossNotice notice(100);
    EXPECT_EQ(notice.take(60, 1s), News::None);
    EXPECT_EQ(notice.take(61, 2s), News::Begun);
    EXPECT_EQ(notice.take(20, 3s), News::None);
    EXPECT_EQ(notice.take(21, 50s), News::None);
    EXPECT_EQ(notice.take(21, 109s), News::None) << "the last loss was 59 s ago";
    EXPECT_EQ(notice.take(21, 110s), News::Over);
}
