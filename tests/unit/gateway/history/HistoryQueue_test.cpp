#include "HistoryQueue.h"
#include "history_rows.h"

#include <gtest/gtest.h>

using namespace micro850;
using namespace micro850::gateway;

namespace {

HistoryItem valueItem(int number)
{
    static const auto variable = history::variable("A");
    return {{}, history::value(variable, number, number), 0};
}

HistoryItem writeItem(const QString& name)
{
    host::HistoryWrite write;
    write.name = name;
    return {{}, write, 0};
}

int numberOf(const HistoryItem& item)
{
    return std::get<host::HistoryValue>(item.row).value.get<int>();
}

TEST(HistoryQueue, GivesWhatCameInItsOrder)
{
    HistoryQueue queue;
    for (int i = 0; i < 5; ++i)
        queue.add(valueItem(i));
    EXPECT_EQ(queue.take(2).size(), 2u);
    const std::vector<HistoryItem> rest = queue.take(10);
    ASSERT_EQ(rest.size(), 3u);
    EXPECT_EQ(numberOf(rest[0]), 2);
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(queue.popLeftOut(), 0);
}

TEST(HistoryQueue, LeavesOutTheOldestValuesAndCountsThem)
{
    HistoryQueue queue;
    queue.add(writeItem("first"));
    const int most = static_cast<int>(HistoryQueue::kMostItems);
    for (int i = 0; i < most + 100; ++i)
        queue.add(valueItem(i));
    EXPECT_EQ(queue.size(), HistoryQueue::kMostItems + 1);
    EXPECT_EQ(queue.popLeftOut(), 100);
    EXPECT_EQ(queue.popLeftOut(), 0);
    const std::vector<HistoryItem> items = queue.take(2);
    EXPECT_EQ(std::get<host::HistoryWrite>(items[0].row).name, QString("first"));
    EXPECT_EQ(numberOf(items[1]), 100);
}

TEST(HistoryQueue, IsBoundInBytesToo)
{
    HistoryQueue queue;
    for (int i = 0; i < 100; ++i) {
        HistoryItem item = valueItem(i);
        std::get<host::HistoryValue>(item.row).value = std::string(1 << 20, 'x');
        queue.add(std::move(item));
    }
    EXPECT_LE(queue.size(), 16u);
    EXPECT_GE(queue.size(), 15u);
    EXPECT_EQ(queue.popLeftOut() + qint64(queue.size()), 100);
}

TEST(HistoryQueue, KeepsALimitedNumberOfWritesToo)
{
    HistoryQueue queue;
    const std::size_t all = 2 * HistoryQueue::kMostItems;
    for (std::size_t i = 0; i < all; ++i)
        queue.add(writeItem("W"));
    EXPECT_EQ(queue.size(), HistoryQueue::kMostItems + HistoryQueue::kMostSaved);
    EXPECT_EQ(queue.popLeftOut(), qint64(all - queue.size()));
}

} // namespace
