#include "CounterLedger.h"

#include <gtest/gtest.h>

using namespace micro850::gateway;

namespace {

const MetricKey kSent = {"sent", "station=\"1\""};
const MetricKey kLost = {"lost", "station=\"1\""};

} // namespace

TEST(CounterLedger, ShowsWhatAProcessCounts)
{
    CounterLedger ledger;
    ledger.take("press", {{kSent, 3}});
    ledger.take("press", {{kSent, 5}, {kLost, 1}});
    EXPECT_EQ(ledger.totals("press"), (MetricNumbers{{kSent, 5}, {kLost, 1}}));
}

TEST(CounterLedger, GoesOnWhenTheNextProcessBeginsAtZero)
{
    CounterLedger ledger;
    ledger.take("press", {{kSent, 100}, {kLost, 7}});
    ledger.take("press", {{kSent, 0}, {kLost, 0}});
    EXPECT_EQ(ledger.totals("press"), (MetricNumbers{{kSent, 100}, {kLost, 7}}));
    ledger.take("press", {{kSent, 2}, {kLost, 1}});
    ledger.take("press", {{kSent, 1}, {kLost, 0}}); // the third process
    EXPECT_EQ(ledger.totals("press"), (MetricNumbers{{kSent, 103}, {kLost, 8}}));
}

// Another process, even where a counter of it is already above that of the one before.
TEST(CounterLedger, TakesAllCountersOfAProcessTogether)
{
    CounterLedger ledger;
    ledger.take("press", {{kSent, 100}, {kLost, 1}});
    ledger.take("press", {{kSent, 40}, {kLost, 5}});
    EXPECT_EQ(ledger.totals("press"), (MetricNumbers{{kSent, 140}, {kLost, 6}}));
}

TEST(CounterLedger, KeepsACounterThatTheNextProcessDoesNotHaveYet)
{
    CounterLedger ledger;
    ledger.take("press", {{kSent, 100}, {kLost, 1}});
    ledger.take("press", {{kSent, 200}});
    EXPECT_EQ(ledger.totals("press"), (MetricNumbers{{kSent, 300}, {kLost, 1}}));
}

TEST(CounterLedger, CountsGroupsApartAndForgetsThoseThatAreGone)
{
    CounterLedger ledger;
    ledger.take("press", {{kSent, 100}});
    ledger.take("oven", {{kSent, 5}});
    ledger.take("press", {{kSent, 1}});
    EXPECT_EQ(ledger.totals("press"), (MetricNumbers{{kSent, 101}}));
    EXPECT_EQ(ledger.totals("oven"), (MetricNumbers{{kSent, 5}}));
    ledger.keepOnly({"oven"});
    EXPECT_TRUE(ledger.totals("press").isEmpty());
    EXPECT_EQ(ledger.totals("oven"), (MetricNumbers{{kSent, 5}}));
}
