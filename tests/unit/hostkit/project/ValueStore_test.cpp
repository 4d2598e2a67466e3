#include "ValueStore.h"

#include "wire.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;
using wire::hex;

namespace {

const char kProject[] = R"({"staleAfterMs": 1000, "variables": [
    {"name": "single", "tag": "Level", "element": 2},
    {"name": "all", "tag": "Level", "length": 4},
    {"name": "once", "tag": "Level", "poll": "once"},
    {"name": "real", "tag": "Level", "type": "REAL"},
    {"name": "text", "tag": "Text"},
    {"name": "scaled", "tag": "Scaled", "length": 2, "gain": 0.1, "offset": 2, "unit": "bar"},
    {"name": "date", "tag": "Date"}]})";
enum { kSingle, kAll, kOnce, kReal, kText, kScaled, kDate };

class ValueStoreTest : public ::testing::Test
{
protected:
    const Project project = Project::fromText(kProject, "p.json");
    ValueStore values{project};
    const TagKey level{1, "Level"};

    void storeInts(int element, const char* bytes, micro850::Duration now)
    {
        values.store(level, element, micro850::cipTypeNamed("INT"), hex(bytes), now);
    }
};

} // namespace

TEST_F(ValueStoreTest, HasNoValuesAtFirst)
{
    EXPECT_EQ(values.text(kAll), QString());
    EXPECT_EQ(values.quality(kAll, 0ms, 0ms), Quality::Never);
    EXPECT_FALSE(values.refreshedAt(kAll));
}

TEST_F(ValueStoreTest, StoresARunInEveryVariableThatShowsSomeOfIt)
{
    storeInts(1, "0A 00 0B 00 0C 00", 5ms);
    EXPECT_EQ(values.text(kSingle), QString("11"));
    EXPECT_EQ(values.text(kAll), QString("[?, 10, 11, 12]"));
    EXPECT_FALSE(values.wasRead(kAll));
    storeInts(0, "09 00", 6ms);
    EXPECT_EQ(values.text(kAll), QString("[9, 10, 11, 12]"));
    EXPECT_TRUE(values.wasRead(kAll));
    EXPECT_EQ(values.refreshedAt(kAll), 5ms);
}

TEST_F(ValueStoreTest, IgnoresAValueWhoseTypeDiffersFromTheProjects)
{
    storeInts(0, "01 00", 5ms);
    EXPECT_EQ(values.text(kReal), QString());
}

TEST_F(ValueStoreTest, AcceptsATypeWithoutASize)
{
    const micro850::CipType sizeless = {"NONE", 0xFF, 0, micro850::CipKind::Unsigned, 0, 0};
    values.store(level, 0, sizeless, hex("01 02"), 5ms);
    EXPECT_FALSE(values.wasRead(kAll));
}

TEST_F(ValueStoreTest, ReportsOnlyVariablesWhoseElementsChanged)
{
    storeInts(0, "01 00 02 00 03 00 04 00", 5ms);
    values.popChanged();
    storeInts(0, "01 00 02 00 03 00 04 00", 6ms);
    EXPECT_EQ(values.popChanged(), QSet<int>());
    storeInts(0, "01 00 02 00 03 00 05 00", 7ms);
    EXPECT_EQ(values.popChanged(), (QSet<int>{kAll}));
    EXPECT_EQ(values.text(kAll), QString("[1, 2, 3, 5]"));
}

TEST_F(ValueStoreTest, DistinguishesTagsOfDifferentStations)
{
    values.store({2, "Level"}, 0, micro850::cipTypeNamed("INT"), hex("01 00"), 5ms);
    EXPECT_EQ(values.text(kOnce), QString());
}

TEST_F(ValueStoreTest, MarksAValueStaleWhenItIsOldOrItsStationIsDead)
{
    storeInts(2, "0B 00", 100ms);
    EXPECT_EQ(values.quality(kSingle, 1100ms, 0ms), Quality::Good);
    EXPECT_EQ(values.quality(kSingle, 1101ms, 0ms), Quality::Stale);
    EXPECT_EQ(values.quality(kSingle, 100ms, std::nullopt), Quality::Stale);
}

TEST_F(ValueStoreTest, MarksAValueStaleUntilAllItsElementsAreFromThePresentConnection)
{
    storeInts(0, "01 00 02 00 03 00 04 00", 100ms);
    EXPECT_EQ(values.quality(kAll, 200ms, 100ms), Quality::Good);
    EXPECT_EQ(values.quality(kAll, 200ms, 101ms), Quality::Stale);
    EXPECT_EQ(values.quality(kOnce, 200ms, 101ms), Quality::Stale);
    storeInts(0, "01 00 02 00 03 00", 150ms);
    EXPECT_EQ(values.quality(kAll, 200ms, 101ms), Quality::Stale);
    EXPECT_EQ(values.quality(kOnce, 200ms, 101ms), Quality::Good);
    storeInts(3, "04 00", 160ms);
    EXPECT_EQ(values.quality(kAll, 200ms, 101ms), Quality::Good);
}

TEST_F(ValueStoreTest, KeepsAValueThatIsReadOnceGoodWhateverItsAge)
{
    storeInts(0, "01 00", 100ms);
    EXPECT_EQ(values.quality(kOnce, 100000ms, 0ms), Quality::Good);
    EXPECT_EQ(values.quality(kOnce, 100000ms, std::nullopt), Quality::Stale);
}

TEST_F(ValueStoreTest, KeepsTheValueAndTheErrorUntilTheNextGoodReply)
{
    storeInts(2, "0B 00", 100ms);
    values.setError(kSingle, "gone");
    EXPECT_EQ(values.text(kSingle), QString("11"));
    EXPECT_EQ(values.quality(kSingle, 100ms, 0ms), Quality::Stale);
    storeInts(2, "0B 00", 200ms);
    EXPECT_EQ(values.error(kSingle), QString());
    EXPECT_EQ(values.quality(kSingle, 200ms, 0ms), Quality::Good);
}

// Another variable shows elements 0 and 1 of the same tag, whose last two do not exist.
TEST_F(ValueStoreTest, KeepsAnErrorWhenAReplyForAnotherVariableBringsSomeOfItsElements)
{
    storeInts(0, "01 00 02 00 03 00 04 00", 100ms);
    values.setError(kAll, "beyond the end");
    storeInts(0, "01 00 02 00", 200ms);
    EXPECT_EQ(values.error(kAll), QString("beyond the end"));
    EXPECT_EQ(values.error(kOnce), QString());
    storeInts(1, "02 00 03 00", 300ms);
    EXPECT_EQ(values.error(kAll), QString("beyond the end"));
    storeInts(3, "04 00", 400ms);
    EXPECT_EQ(values.error(kAll), QString());
}

TEST_F(ValueStoreTest, KeepsAnErrorThatComesAgainUntilAllElementsAreThereAgain)
{
    values.setError(kAll, "beyond the end");
    storeInts(0, "01 00 02 00", 100ms);
    values.setError(kAll, "beyond the end");
    storeInts(2, "03 00 04 00", 200ms);
    EXPECT_EQ(values.error(kAll), QString("beyond the end"));
}

TEST_F(ValueStoreTest, ReportsEachChangeOnce)
{
    storeInts(2, "0B 00", 100ms);
    EXPECT_EQ(values.popChanged(), (QSet<int>{kSingle, kAll}));
    storeInts(2, "0B 00", 200ms);
    EXPECT_EQ(values.popChanged(), QSet<int>());
    storeInts(2, "0C 00", 300ms);
    EXPECT_EQ(values.popChanged(), (QSet<int>{kSingle, kAll}));
    values.setError(kText, "gone");
    EXPECT_EQ(values.popChanged(), QSet<int>{kText});
}

TEST_F(ValueStoreTest, ShowsAStringAsText)
{
    values.store({1, "Text"}, 0, micro850::cipTypeNamed("SHORT_STRING"), hex("03 50 E4 61"), 1ms);
    EXPECT_EQ(values.text(kText), QString::fromUtf8("Päa"));
}

TEST_F(ValueStoreTest, ShowsTheSameScaledValueToPeopleAndPrograms)
{
    values.store({1, "Scaled"}, 0, micro850::cipTypeNamed("INT"), hex("03 00 0A 00"), 1ms);
    EXPECT_EQ(values.text(kScaled), QString("[2.3, 3] bar"));
    EXPECT_EQ(values.texts(kScaled), (QStringList{"2.3", "3"}));
    EXPECT_EQ(values.values(kScaled).first().number(), 2.3);
    EXPECT_EQ(values.number(kScaled), 2.3);
}

TEST_F(ValueStoreTest, ShowsADateAsIso8601EverywhereButAsItsNumberInRaw)
{
    values.store({1, "Date"}, 0, micro850::cipTypeNamed("DATE"), hex("3B 00"), 1ms);
    EXPECT_EQ(values.text(kDate), QString("1972-02-29"));
    EXPECT_EQ(values.texts(kDate), QStringList("1972-02-29"));
    EXPECT_EQ(values.values(kDate).first().text(), "1972-02-29");
}

TEST(RawValueStore, ShowsTheControllersOwnNumbersWithoutUnit)
{
    Project project = Project::fromText(kProject, "p.json");
    project.showRaw();
    ValueStore values(project);
    values.store({1, "Scaled"}, 0, micro850::cipTypeNamed("TIME"), hex("C4 09 00 00 00 00 00 00"),
                 1ms);
    EXPECT_EQ(values.text(kScaled), QString("[2500, 0]"));
    EXPECT_EQ(values.values(kScaled).first().signedNumber(), 2500);
    values.store({1, "Date"}, 0, micro850::cipTypeNamed("DATE"), hex("3B 00"), 1ms);
    EXPECT_EQ(values.text(kDate), QString("59"));
}
