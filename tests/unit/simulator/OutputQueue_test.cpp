#include "OutputQueue.h"

#include "bytes.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

class OutputQueueTest : public ::testing::Test
{
protected:
    /// Flushes to an end that takes so many bytes and then fails with this error.
    void flush(std::size_t room, int error = EAGAIN)
    {
        m_queue.flush([&](const std::uint8_t* bytes, std::size_t count) -> ssize_t {
            if (room == 0) {
                errno = error;
                return -1;
            }
            const std::size_t taken = std::min({room, count, std::size_t{3}}); // in small pieces
            m_taken.insert(m_taken.end(), bytes, bytes + taken);
            room -= taken;
            return static_cast<ssize_t>(taken);
        });
    }
    std::string taken() const { return text(m_taken); }

    VirtualClock m_clock;
    OutputQueue m_queue{m_clock};
    Bytes m_taken;
};

TEST_F(OutputQueueTest, PassesBytesOnInTheirOrderAsTheOtherEndTakesThem)
{
    m_queue.add(hex("01 02 03 04 05"));
    flush(4);
    EXPECT_EQ(taken(), "01 02 03 04");
    EXPECT_FALSE(m_queue.isEmpty());
    m_queue.add(hex("06"));
    flush(9);
    EXPECT_EQ(taken(), "01 02 03 04 05 06");
    EXPECT_TRUE(m_queue.isEmpty());
}

TEST_F(OutputQueueTest, LosesWhatNobodyTakesForASecond)
{
    m_queue.add(hex("01 02"));
    m_clock.advance(Duration(999999));
    flush(0);
    EXPECT_FALSE(m_queue.isEmpty());
    m_clock.advance(Duration(1));
    flush(0);
    EXPECT_TRUE(m_queue.isEmpty());
    flush(9);
    EXPECT_EQ(taken(), "");
}

TEST_F(OutputQueueTest, KeepsTheRestForASecondAfterTheLastByteThatWasTaken)
{
    m_queue.add(hex("01 02"));
    m_clock.advance(Duration(999999));
    flush(1);
    m_clock.advance(Duration(999999));
    flush(0);
    EXPECT_FALSE(m_queue.isEmpty());
    flush(1);
    EXPECT_EQ(taken(), "01 02");
}

TEST_F(OutputQueueTest, DoesNotCountTheTimeInWhichNothingWaited)
{
    m_clock.advance(Duration(5000000));
    m_queue.add(hex("01"));
    flush(0);
    EXPECT_FALSE(m_queue.isEmpty());
}

TEST_F(OutputQueueTest, HoldsNoMoreThanItsCapacity)
{
    for (int i = 0; i < 100; ++i)
        m_queue.add(Bytes(1000, static_cast<std::uint8_t>(i)));
    flush(1000000);
    ASSERT_EQ(m_taken.size(), OutputQueue::kCapacity);
    EXPECT_EQ(m_taken.front(), 0);
    EXPECT_EQ(m_taken.back(), 65);
}

TEST_F(OutputQueueTest, LosesEverythingAtAnError)
{
    m_queue.add(hex("01 02"));
    flush(1, EPIPE);
    EXPECT_TRUE(m_queue.isEmpty());
}

} // namespace
} // namespace micro850::sim
