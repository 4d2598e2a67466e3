#include "RoundTrips.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using micro850::Duration;
using micro850::wholeMilliseconds;
using micro850::host::RoundTrips;

namespace {

RoundTrips learnt(Duration roundTrip, Duration bytes, int times = 100)
{
    RoundTrips trips;
    for (int i = 0; i < times; ++i)
        trips.note(roundTrip, bytes);
    return trips;
}

} // namespace

TEST(RoundTrips, AreUnknownBeforeTheFirst)
{
    EXPECT_FALSE(RoundTrips().isKnown());
    EXPECT_EQ(RoundTrips().longest(), 0ms);
    EXPECT_TRUE(learnt(5ms, 4ms, 1).isKnown());
}

TEST(RoundTrips, AreAwaitedAtLeast20Ms)
{
    EXPECT_EQ(learnt(3ms, 2ms).patience(2ms, 0ms), 20ms);
}

TEST(RoundTrips, AreAwaitedHalfAsLongAgainWhenTheyAreSteady)
{
    // 80 ms of bytes and 20 ms of the peer.
    EXPECT_EQ(wholeMilliseconds(learnt(100ms, 80ms).patience(80ms, 0ms)), 150);
}

TEST(RoundTrips, AreAwaitedLongerForMoreBytes)
{
    EXPECT_EQ(wholeMilliseconds(learnt(30ms, 10ms).patience(500ms, 0ms)), 780);
}

TEST(RoundTrips, AreNeverAwaitedLongerThanFourUsualOnes)
{
    RoundTrips trips;
    for (int i = 0; i < 400; ++i)
        trips.note(i % 10 == 0 ? 200ms : 10ms, 5ms);
    for (int i = 0; i < 5; ++i)
        trips.note(10ms, 5ms);
    const Duration mean = (200ms + 9 * 10ms) / 10;
    EXPECT_LE(trips.patience(5ms, 0ms), 4 * mean);
    EXPECT_GT(trips.patience(5ms, 0ms), 20ms);
}

TEST(RoundTrips, ThatVaryAreAwaitedLongEnoughForMostOfThem)
{
    RoundTrips trips;
    for (int i = 0; i < 100; ++i)
        trips.note(Duration(10000 + 900 * (i * 37 % 100)), 5ms);
    EXPECT_GT(trips.patience(5ms, 0ms), 100ms);
}

TEST(RoundTrips, CountTheDelayOfTheLineWhileTheyAreShorter)
{
    EXPECT_GE(learnt(6ms, 5ms).patience(5ms, 1200ms), 1205ms);
    const RoundTrips slow = learnt(1205ms, 5ms);
    EXPECT_EQ(slow.patience(5ms, 1200ms), slow.patience(5ms, 0ms));
}

TEST(RoundTrips, AreForgottenWhenThePeerAnswersFasterAgain)
{
    RoundTrips trips = learnt(400ms, 5ms);
    for (int i = 0; i < 60; ++i)
        trips.note(6ms, 5ms);
    EXPECT_LT(trips.patience(5ms, 0ms), 40ms);
}

// Bytes of a fast device come before their computed time: the speed of a pseudo-terminal is a name.
TEST(RoundTrips, ShorterThanTheirBytesCountAsNothing)
{
    EXPECT_EQ(learnt(1ms, 90ms).longest(), 0ms);
}

TEST(RoundTrips, AreBoundedWhateverAPeerDoes)
{
    EXPECT_LE(learnt(3600s, 0ms).longest(), 41s);
}
