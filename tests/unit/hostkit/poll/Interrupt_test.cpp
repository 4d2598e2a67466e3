#include "Interrupt.h"

#include "UserError.h"

#include <gtest/gtest.h>

#include <csignal>

using micro850::host::Interrupt;

TEST(InterruptTest, IsRequestedByEachSignalThatEndsAProgram)
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) {
        const Interrupt interrupt;
        EXPECT_FALSE(interrupt.requested());
        ::raise(signal);
        EXPECT_TRUE(interrupt.requested()) << signal;
    }
}

TEST(InterruptTest, EndsACommandByAnExceptionOnlyWhenItIsRequested)
{
    const Interrupt interrupt;
    EXPECT_NO_THROW(interrupt.throwIfRequested());
    ::raise(SIGINT);
    try {
        interrupt.throwIfRequested();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const micro850::UserError& error) {
        EXPECT_STREQ(error.what(), "interrupted");
        EXPECT_EQ(error.status(), 1);
    }
    interrupt.forget();
    EXPECT_NO_THROW(interrupt.throwIfRequested());
}

// A shell drops Ctrl-C and goes on, but it ends when it is told to.
TEST(InterruptTest, KeepsASignalThatEndsTheProgramWhenCtrlCFollows)
{
    const Interrupt shell;
    ::raise(SIGINT);
    EXPECT_TRUE(shell.isFromKeyboard());
    ::raise(SIGTERM);
    EXPECT_FALSE(shell.isFromKeyboard());
    ::raise(SIGINT);
    EXPECT_FALSE(shell.isFromKeyboard());
}

TEST(InterruptTest, ReachesTheCommandWhenItCameJustBefore)
{
    const Interrupt shell;
    ::raise(SIGTERM);
    {
        const Interrupt command;
        EXPECT_TRUE(command.requested());
    }
    EXPECT_TRUE(shell.requested());
}

// The way out of a program that does not end in order.
TEST(InterruptDeathTest, LetsTheSecondQuitEndTheProgram)
{
    EXPECT_EXIT(
        {
            const Interrupt interrupt;
            ::raise(SIGQUIT);
            if (interrupt.requested())
                ::raise(SIGQUIT);
        },
        ::testing::KilledBySignal(SIGQUIT), "");
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
