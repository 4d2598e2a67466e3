#include "WriteTickets.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::gateway;

namespace {

using Use = WriteTickets::Use;

class WriteTicketsTest : public testing::Test
{
protected:
    static WriteTickets::Write writeOf(const char* caller, int element = 0)
    {
        return {caller, 7, element};
    }

    VirtualClock clock;
    WriteTickets tickets{clock};
};

} // namespace

TEST_F(WriteTicketsTest, LetEachWriteThroughOnceAndOnlyForWhomTheyWereGiven)
{
    const QByteArray ticket = tickets.give(writeOf("one"));
    EXPECT_EQ(tickets.use(ticket, writeOf("other")), Use::Unknown);
    EXPECT_EQ(tickets.use(ticket, writeOf("one")), Use::Good);
    EXPECT_EQ(tickets.use(ticket, writeOf("one")), Use::Used);
    EXPECT_EQ(tickets.use(ticket, writeOf("one", 1)), Use::Used);
    const QByteArray another = tickets.give(writeOf("one"));
    EXPECT_EQ(tickets.use(another, writeOf("one", 1)), Use::Another);
    EXPECT_EQ(tickets.use(another, writeOf("one")), Use::Used);
}

TEST_F(WriteTicketsTest, HoldForAMinute)
{
    const QByteArray ticket = tickets.give(writeOf("one"));
    const QByteArray used = tickets.give(writeOf("one"));
    EXPECT_EQ(tickets.use(used, writeOf("one")), Use::Good);
    clock.advance(WriteTickets::kLifetime);
    EXPECT_EQ(tickets.use(tickets.give(writeOf("one")), writeOf("one")), Use::Good);
    clock.advance(std::chrono::microseconds(1));
    EXPECT_EQ(tickets.use(ticket, writeOf("one")), Use::TooOld);
    EXPECT_EQ(tickets.use(used, writeOf("one")), Use::Used);
}

TEST_F(WriteTicketsTest, AreNotDrivenOutByTheChecksOfOthers)
{
    const QByteArray ticket = tickets.give(writeOf("person"));
    for (int i = 0; i < 100 * WriteTickets::kMost; ++i)
        tickets.give(writeOf("program", i));
    EXPECT_EQ(tickets.use(ticket, writeOf("person")), Use::Good);
}

TEST_F(WriteTicketsTest, MakeRoomForTheLastOnesOfACaller)
{
    const QByteArray used = tickets.give(writeOf("one"));
    EXPECT_EQ(tickets.use(used, writeOf("one")), Use::Good);
    const QByteArray first = tickets.give(writeOf("one"));
    for (int i = 2; i < WriteTickets::kMostOfCaller; ++i)
        tickets.give(writeOf("one"));
    const QByteArray last = tickets.give(writeOf("one")); // the used one makes room
    EXPECT_EQ(tickets.use(used, writeOf("one")), Use::Unknown);
    tickets.give(writeOf("one"));
    EXPECT_EQ(tickets.use(first, writeOf("one")), Use::Unknown);
    EXPECT_EQ(tickets.use(last, writeOf("one")), Use::Good);
}
