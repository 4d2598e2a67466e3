#include "Order.h"

#include "UserError.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

std::string complaintAbout(const std::string& line)
{
    try {
        orderFrom(line);
    } catch (const UserError& error) {
        return error.what();
    }
    return "none";
}

TEST(Order, OfAPowerCycleLosesTheValuesOfAllStationsUnlessToldOtherwise)
{
    const auto order = orderFrom("power-cycle");
    ASSERT_TRUE(order);
    EXPECT_EQ(order->kind, Order::PowerCycle);
    EXPECT_FALSE(order->retain);
    EXPECT_FALSE(order->station);
}

TEST(Order, OfAPowerCycleTakesRetainAndAStation)
{
    const auto order = orderFrom("  power-cycle retain  3 ");
    ASSERT_TRUE(order);
    EXPECT_TRUE(order->retain);
    EXPECT_EQ(order->station, 3);
}

TEST(Order, OfADownloadTakesAFileAndAStation)
{
    EXPECT_EQ(orderFrom("download")->file, "");
    EXPECT_EQ(orderFrom("download new.json")->file, "new.json");
    EXPECT_EQ(orderFrom("download new.json 2")->station, 2);
    EXPECT_EQ(orderFrom("download 2")->station, 2);
    EXPECT_EQ(orderFrom("download 2")->kind, Order::Download);
}

TEST(Order, IsNoneInABlankLine)
{
    EXPECT_FALSE(orderFrom(""));
    EXPECT_FALSE(orderFrom("  \t"));
}

TEST(Order, NamesTheWordThatIsWrong)
{
    EXPECT_EQ(complaintAbout("power-cicle"),
              "\"power-cicle\" is not an order (did you mean power-cycle?) (power-cycle [retain] "
              "[STATION] or download [FILE] [STATION])");
    EXPECT_EQ(complaintAbout("power-cycle keep"),
              "power-cycle: \"keep\" is neither \"retain\" nor a station's number");
    EXPECT_EQ(complaintAbout("download a.json b.json"),
              "download: \"b.json\" is one word too many");
}

} // namespace
} // namespace micro850::sim
