#include "Raster.h"

#include <gtest/gtest.h>

using micro850::host::Raster;
using namespace std::chrono_literals;

TEST(Raster, BeginsWithTheFirstTimeAndGoesOnAtTheInterval)
{
    Raster raster(500ms);
    EXPECT_TRUE(raster.isDue(7100ms));
    EXPECT_FALSE(raster.isDue(7599ms));
    EXPECT_TRUE(raster.isDue(7640ms)); // late, and the next one is not later for that
    EXPECT_FALSE(raster.isDue(8099ms));
    EXPECT_TRUE(raster.isDue(8100ms));
}

TEST(Raster, KeepsItsTimesAfterAPause)
{
    Raster raster(500ms);
    EXPECT_TRUE(raster.isDue(100ms));
    EXPECT_TRUE(raster.isDue(2350ms)); // of 600, 1100, 1600 and 2100 only one
    EXPECT_FALSE(raster.isDue(2599ms));
    EXPECT_TRUE(raster.isDue(2600ms));
}
