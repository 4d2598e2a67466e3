#include "GrowingPause.h"

#include <gtest/gtest.h>

using micro850::host::GrowingPause;
using namespace std::chrono_literals;

TEST(GrowingPause, DoublesUpToTheLongest)
{
    GrowingPause pause(250ms, 1500ms);
    EXPECT_EQ(pause.next(), 250ms);
    EXPECT_EQ(pause.next(), 500ms);
    EXPECT_EQ(pause.next(), 1000ms);
    EXPECT_EQ(pause.next(), 1500ms);
    EXPECT_EQ(pause.next(), 1500ms);
}

TEST(GrowingPause, BeginsWithTheFirstPauseAfterAReset)
{
    GrowingPause pause(250ms, 5s);
    pause.next();
    pause.next();
    pause.reset();
    EXPECT_EQ(pause.next(), 250ms);
}
