#include "UserError.h"

#include <gtest/gtest.h>

namespace micro850 {
namespace {

TEST(UserErrorMessage, IsOneShortLine)
{
    EXPECT_STREQ(UserError("a: \x1b[2J\nb\u009b").what(), "a: \\x1b[2J\\nb\\u009b");
    const std::string message =
        UserError("plant.json: " + std::string(1000000, '1') + " is too large (use less)").what();
    EXPECT_EQ(message.size(), 1000U);
    EXPECT_EQ(message.substr(0, 13), "plant.json: 1");
    EXPECT_EQ(message.substr(message.size() - 11), " (use less)");
}

} // namespace
} // namespace micro850
