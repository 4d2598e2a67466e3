#include "Counters.h"

#include <gtest/gtest.h>

using namespace micro850::host;

TEST(Counters, HoldAFewKindsOfErrorsHoweverManyAPeerInvents)
{
    Counters counters;
    for (int i = 0; i < 10000; ++i)
        counters.countError(QString::number(i));
    counters.countError("7");
    EXPECT_EQ(counters.errors.size(), 51);
    EXPECT_EQ(counters.errors.value("7"), 2);
    EXPECT_EQ(counters.errors.value("other"), 9950);
}
