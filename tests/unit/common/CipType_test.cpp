#include "CipType.h"

#include "UserError.h"

#include <gtest/gtest.h>

namespace micro850 {
namespace {

TEST(CipType, HasTheCodesOfTheElementaryTypesInOrder)
{
    std::uint16_t code = 0xC1;
    for (const CipType& type : cipTypes())
        EXPECT_EQ(type.code, code++) << type.name;
    EXPECT_STREQ(cipTypeOf(0xDA)->name, "SHORT_STRING");
    EXPECT_EQ(cipTypeOf(0x2A0), nullptr);
}

TEST(CipType, SuggestsTheNameThatWasProbablyMeant)
{
    try {
        cipTypeNamed("INTT");
        FAIL();
    } catch (const UserError& error) {
        EXPECT_STREQ(error.what(), "\"INTT\" is not a CIP type (did you mean INT?)");
    }
}

} // namespace
} // namespace micro850
