#include "TagKey.h"

#include <gtest/gtest.h>

using micro850::host::TagKey;

TEST(TagKey, IsOrderedByStationAndThenByName)
{
    EXPECT_TRUE((TagKey{1, "Z"} < TagKey{2, "A"}));
    EXPECT_FALSE((TagKey{2, "A"} < TagKey{1, "Z"}));
    EXPECT_TRUE((TagKey{1, "A"} < TagKey{1, "B"}));
    EXPECT_FALSE((TagKey{1, "A"} < TagKey{1, "A"}));
}

TEST(TagKey, IsEqualOnlyWithTheSameStationAndName)
{
    EXPECT_TRUE((TagKey{1, "A"} == TagKey{1, "A"}));
    EXPECT_TRUE((TagKey{1, "A"} != TagKey{2, "A"}));
    EXPECT_TRUE((TagKey{1, "A"} != TagKey{1, "a"}));
    EXPECT_EQ(qHash(TagKey{1, "A"}), qHash(TagKey{1, "A"}));
}
