#include "ArrayLengths.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <vector>

using namespace micro850;
using namespace micro850::host;

namespace {

const TagKey kLevel = {1, "Level"};

/// One tag with a number of elements.
class OneTag : public TagAccess
{
public:
    explicit OneTag(int elements, const char* type = "INT") : length(elements), m_type(type) {}

    void setInterrupt(const std::function<bool()>&) override {}
    const CipType& typeOf(const TagKey& tag) override
    {
        if (tag != kLevel)
            throw TagRefused(tag.name.toStdString(), "no such tag");
        return cipTypeNamed(m_type);
    }
    QVector<QByteArray> read(const TagKey&, int, int, const std::function<void(int)>&) override
    {
        ADD_FAILURE() << "a whole run is read";
        return {};
    }
    void requireElements(const TagKey&, int element, int elements) override
    {
        EXPECT_EQ(elements, 1);
        asked.push_back(element);
        if (failsAt == element)
            throw UserError("nobody answers", kExitRefused);
        if (element >= length)
            throw TagRefused("Level", "beyond the end", element);
    }
    void requireAllowed(const TagKey&, int, const QByteArray&) override {}
    void write(const TagKey&, int, const QByteArray&) override { ADD_FAILURE() << "a write"; }
    void finish() override {}

    int length;
    int failsAt = -1;
    std::vector<int> asked;

private:
    const char* m_type;
};

} // namespace

TEST(ArrayLengths, FindsTheLengthByDoublingAndHalving)
{
    OneTag tag(10);
    EXPECT_EQ(ArrayLengths().lengthOf(tag, kLevel), 10);
    EXPECT_EQ(tag.asked, (std::vector<int>{1, 2, 4, 8, 16, 12, 10, 9}));
}

TEST(ArrayLengths, AsksForOneMoreElementOfATagThatIsNoArray)
{
    OneTag tag(1);
    EXPECT_EQ(ArrayLengths().lengthOf(tag, kLevel), 1);
    EXPECT_EQ(tag.asked, std::vector<int>{1});
}

TEST(ArrayLengths, AsksForNoIndexThatCannotBeSent)
{
    for (const int length : {32767, 32768, 65534, 65535, 65536, 100000}) {
        OneTag tag(length);
        EXPECT_EQ(ArrayLengths().lengthOf(tag, kLevel), std::min(length, 65536));
        EXPECT_LE(*std::max_element(tag.asked.begin(), tag.asked.end()), 65535) << length;
    }
}

TEST(ArrayLengths, AsksForNoElementOfAString)
{
    OneTag tag(1, "SHORT_STRING");
    EXPECT_EQ(ArrayLengths().lengthOf(tag, kLevel), 1);
    EXPECT_TRUE(tag.asked.empty());
}

TEST(ArrayLengths, RemembersUntilItIsToldToForget)
{
    OneTag tag(3);
    ArrayLengths lengths;
    EXPECT_EQ(lengths.lengthOf(tag, kLevel), 3);
    const size_t reads = tag.asked.size();
    tag.length = 5;
    EXPECT_EQ(lengths.lengthOf(tag, kLevel), 3);
    EXPECT_EQ(tag.asked.size(), reads);
    lengths.forget(kLevel);
    EXPECT_EQ(lengths.lengthOf(tag, kLevel), 5);
}

TEST(ArrayLengths, RemembersNothingOfASearchThatFailed)
{
    OneTag tag(9);
    tag.failsAt = 4;
    ArrayLengths lengths;
    EXPECT_THROW(lengths.lengthOf(tag, kLevel), UserError);
    tag.failsAt = -1;
    EXPECT_EQ(lengths.lengthOf(tag, kLevel), 9);
    EXPECT_THROW(lengths.lengthOf(tag, {1, "Nope"}), TagRefused);
}

TEST(ArrayLengths, LetsTheCallerEndTheSearchBeforeEachRead)
{
    OneTag tag(10);
    const auto interrupted = [&tag] {
        if (tag.asked.size() == 3)
            throw UserError("interrupted", kExitRefused);
    };
    EXPECT_THROW(ArrayLengths().lengthOf(tag, kLevel, interrupted), UserError);
    EXPECT_EQ(tag.asked.size(), 3U);
}

RC_GTEST_PROP(ArrayLengthsProperty, EveryLengthIsFoundWithoutAskingTwice, ())
{
    const int length = *rc::gen::inRange(1, 65537);
    OneTag tag(length);
    RC_ASSERT(ArrayLengths().lengthOf(tag, kLevel) == length);
    std::sort(tag.asked.begin(), tag.asked.end());
    RC_ASSERT(std::adjacent_find(tag.asked.begin(), tag.asked.end()) == tag.asked.end());
    RC_ASSERT(tag.asked.size() <= 32U);
}
