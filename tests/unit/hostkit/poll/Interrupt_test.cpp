#include "Interrupt.h"

#include <gtest/gtest.h>

#include <csignal>

using micro850::host::Interrupt;

TEST(InterruptTest, IsRequestedByEachSignalThatEndsAProgram)
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const Interrupt interrupt;
        EXPECT_FALSE(interrupt.requested());
        ::raise(signal);
        EXPECT_TRUE(interrupt.requested()) << signal;
    }
}

// As nohup starts a program.
TEST(InterruptTest, LeavesASignalIgnoredThatWasIgnoredBefore)
{
    const auto usual = std::signal(SIGHUP, SIG_IGN);
    {
        const Interrupt interrupt;
        ::raise(SIGHUP);
        EXPECT_FALSE(interrupt.requested());
        ::raise(SIGINT);
        EXPECT_TRUE(interrupt.requested());
    }
    EXPECT_EQ(std::signal(SIGHUP, usual), SIG_IGN);
}

TEST(InterruptTest, PutsTheEarlierHandlersBack)
{
    static volatile std::sig_atomic_t handled = 0;
    const auto usual = std::signal(SIGTERM, [](int) { handled = 1; });
    {
        const Interrupt interrupt;
        ::raise(SIGTERM);
    }
    EXPECT_EQ(handled, 0);
    ::raise(SIGTERM);
    EXPECT_EQ(handled, 1);
    std::signal(SIGTERM, usual);
}
