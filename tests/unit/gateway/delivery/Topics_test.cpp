#include "Topics.h"

#include "RetainedTopics.h"

#include <gtest/gtest.h>

using namespace micro850::gateway;

namespace {

const QString kPrefix = QStringLiteral("plant/hall2");

TEST(Topics, EncodesWhatATopicCannotHold)
{
    EXPECT_EQ(topicLevel("a/b"), "a%2Fb");
    EXPECT_EQ(topicLevel("a+b"), "a%2Bb");
    EXPECT_EQ(topicLevel("#1"), "%231");
    EXPECT_EQ(topicLevel("50%"), "50%25");
    EXPECT_EQ(topicLevel("a\tb\x7F"), "a%09b%7F");
    EXPECT_EQ(topicLevel(QString::fromUtf8("\xC2\x85")), "%C2%85");
    EXPECT_EQ(topicLevel(QString(QChar(0xFFFE))), "%EF%BF%BE");
    EXPECT_EQ(topicLevel(QString(QChar(0xFDD0))), "%EF%B7%90");
    const uint last = 0x10FFFF;
    EXPECT_EQ(topicLevel(QString::fromUcs4(&last, 1)), "%F4%8F%BF%BF");
}

TEST(Topics, LeavesOtherCharactersAsTheyAre)
{
    EXPECT_EQ(topicLevel("Level 1 (old).x-y_z$*?"), "Level 1 (old).x-y_z$*?");
    EXPECT_EQ(topicLevel(QString::fromUtf8("F\xC3\xBCllstand \xF0\x9F\x98\x80")),
              "F\xC3\xBCllstand \xF0\x9F\x98\x80");
}

TEST(Topics, EncodesTheBeginOfWordsThatHaveAMeaning)
{
    EXPECT_EQ(topicLevel("state"), "%73tate");
    EXPECT_EQ(topicLevel("statistics"), "%73tatistics");
    EXPECT_EQ(topicLevel("events"), "%65vents");
    EXPECT_EQ(topicLevel("history"), "%68istory");
    EXPECT_EQ(topicLevel("set"), "%73et");
    EXPECT_EQ(topicLevel("result"), "%72esult");
    EXPECT_EQ(topicLevel("status"), "%73tatus");
    EXPECT_EQ(topicLevel("State"), "State");
    EXPECT_EQ(topicLevel("states"), "states");
}

// A name that looks like an encoded one.
TEST(Topics, GivesDifferentNamesDifferentLevels)
{
    EXPECT_EQ(topicLevel("%73tate"), "%2573tate");
    EXPECT_NE(topicLevel("a/b"), topicLevel("a%2Fb"));
}

TEST(Topics, BuildsTheTopicsOfTheDocument)
{
    const Topics topics(kPrefix);
    EXPECT_EQ(topics.status(), "plant/hall2/status");
    EXPECT_EQ(topics.value("press", 1, "Level"), "plant/hall2/press/1/Level");
    EXPECT_EQ(topics.of("press", 2, "state"), "plant/hall2/press/2/state");
    EXPECT_EQ(topics.of("press", -1, "statistics"), "plant/hall2/press/statistics");
    EXPECT_EQ(topics.of(QString(), -1, "events"), "plant/hall2/events");
    EXPECT_EQ(topics.orders(), "plant/hall2/+/+/+/set");
    EXPECT_EQ(Topics::history("a/b"), "a/b/history");
    EXPECT_EQ(Topics::result("a/b"), "a/b/result");
}

TEST(Topics, FindsTheVariableOfAnOrder)
{
    const Topics topics(kPrefix);
    EXPECT_EQ(topics.valueOfOrder("plant/hall2/press/1/Level/set"), "plant/hall2/press/1/Level");
    EXPECT_EQ(topics.valueOfOrder("plant/hall2/press/1/Level/result"), "");
    EXPECT_EQ(topics.valueOfOrder("plant/hall2/press/Level/set"), "");
    EXPECT_EQ(topics.valueOfOrder("plant/hall2/press/1/2/Level/set"), "");
    EXPECT_EQ(topics.valueOfOrder("plant/hall3/press/1/Level/set"), "");
    EXPECT_EQ(topics.valueOfOrder("plant/hall22/press/1/Level/set"), "");
    EXPECT_EQ(topics.valueOfOrder("/set"), "");
    EXPECT_EQ(topics.valueOfOrder(""), "");
}

TEST(Topics, LeaveRoomForTheLongestWordOfAVariable)
{
    const int kHistory = 8; // "/history"
    EXPECT_TRUE(Topics::fits(QByteArray(65535 - kHistory, 'x')));
    EXPECT_FALSE(Topics::fits(QByteArray(65536 - kHistory, 'x')));
}

TEST(RetainedTopics, AreObsoleteWhenTheyAreNotUsedAnyMore)
{
    RetainedTopics topics{QString()};
    topics.setUsed({"a", "b", "c"});
    EXPECT_EQ(topics.obsolete(), QList<QByteArray>());
    topics.setUsed({"b", "d"});
    EXPECT_EQ(topics.obsolete(), (QList<QByteArray>{"a", "c"}));
    topics.remove("a");
    EXPECT_EQ(topics.obsolete(), QList<QByteArray>{"c"});
}

TEST(RetainedTopics, OutliveTheProcess)
{
    RetainedTopics before{QString()};
    before.setUsed({"plant/\xC3\xBC \"x\"", "b"});
    EXPECT_TRUE(before.use("c"));
    EXPECT_FALSE(before.use("c"));
    RetainedTopics after(before.text());
    after.setUsed({"b"});
    EXPECT_EQ(after.obsolete(), (QList<QByteArray>{"c", "plant/\xC3\xBC \"x\""}));
}

TEST(RetainedTopics, StayWhenATopicIsUsedAgainBeforeItWasCleared)
{
    RetainedTopics topics{QStringLiteral(R"(["a"])")};
    topics.setUsed({});
    topics.setUsed({"a"});
    topics.remove("a"); // the acknowledgement of the clearing
    topics.setUsed({});
    EXPECT_EQ(topics.obsolete(), QList<QByteArray>{"a"});
}

TEST(RetainedTopics, AreNoneWhenTheTextIsNoList)
{
    for (const char* const text : {"", "{", "{\"a\": 1}", "7"})
        EXPECT_EQ(RetainedTopics(QString::fromLatin1(text)).obsolete(), QList<QByteArray>());
    EXPECT_EQ(RetainedTopics(QStringLiteral("[1, \"a\"]")).obsolete(), QList<QByteArray>{"a"});
}

} // namespace
