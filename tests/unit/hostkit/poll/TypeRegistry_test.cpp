#include "TypeRegistry.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;
using State = Tag::State;

namespace {

const quint16 kInt = 0xC3;
const quint16 kReal = 0xCA;
const quint16 kShortString = 0xDA;

class TypeRegistryTest : public ::testing::Test
{
protected:
    void use(const char* variables)
    {
        const QString text =
            QStringLiteral(R"({"stations": [{"number": 1}, {"number": 2}], "variables": [%1]})");
        project = Project::fromText(text.arg(variables), "p.json");
        values = std::make_unique<ValueStore>(project);
        types = std::make_unique<TypeRegistry>(project, clock, *values);
        for (const Variable& variable : project.variables)
            types->declare({variable.station, variable.tag});
    }
    // The indexes of the variables that are read in a cycle.
    QVector<int> cycle() const
    {
        QVector<int> variables;
        for (const CyclicRead& read : types->cyclicReads())
            variables.append(read.variable);
        return variables;
    }
    QStringList namesToAskFor() const
    {
        QStringList names;
        for (const TagKey& key : types->tagsToAskFor())
            names += QString::number(key.station) + key.name;
        return names;
    }
    std::string error(int variable) const { return values->error(variable).toStdString(); }

    const TagKey a = {1, "A"};
    micro850::VirtualClock clock;
    Project project;
    std::unique_ptr<ValueStore> values;
    std::unique_ptr<TypeRegistry> types;
};

} // namespace

TEST_F(TypeRegistryTest, GivesEveryTagAnAreaOfItsOwnUnlessTheProjectNamesOne)
{
    use(R"({"tag": "A"}, {"tag": "B", "area": 9}, {"tag": "A", "name": "a2", "station": 2})");
    EXPECT_EQ(types->tag(a).area, 1);
    EXPECT_EQ(types->tag({1, "B"}).area, 9);
    EXPECT_EQ(types->tag({2, "A"}).area, 3);
    EXPECT_FALSE(types->declare(a));
    EXPECT_TRUE(types->declare({1, "Other"}));
    EXPECT_EQ(types->tag({1, "Other"}).area, 4);
}

TEST_F(TypeRegistryTest, FindsTheFirstTagOfAStation)
{
    use(R"({"tag": "B"}, {"tag": "A"}, {"tag": "C", "station": 2})");
    EXPECT_EQ(types->firstTagOf(1).value_or(TagKey()), a);
    EXPECT_EQ(types->firstTagOf(2).value_or(TagKey()), (TagKey{2, "C"}));
    EXPECT_FALSE(types->firstTagOf(0));
    EXPECT_FALSE(types->firstTagOf(3));
}

TEST_F(TypeRegistryTest, AsksForTheTagsOfVariablesUntilTheyAreKnown)
{
    use(R"({"tag": "A"}, {"tag": "B"})");
    types->declare({1, "NotShown"});
    EXPECT_EQ(namesToAskFor(), QStringList({"1A", "1B"}));
    types->markAsking(a);
    EXPECT_EQ(namesToAskFor(), QStringList("1B"));
    types->learn(a, kInt);
    types->markAsking(a); // by a program that learns the type again
    EXPECT_TRUE(types->isKnown(a));
    EXPECT_EQ(namesToAskFor(), QStringList("1B"));
}

TEST_F(TypeRegistryTest, AsksAgainASecondAfterNobodyAnswered)
{
    use(R"({"tag": "A"})");
    types->markAsking(a);
    types->markUnanswered(a);
    clock.advance(999ms);
    EXPECT_EQ(namesToAskFor(), QStringList());
    clock.advance(1ms);
    EXPECT_EQ(namesToAskFor(), QStringList("1A"));
}

TEST_F(TypeRegistryTest, KeepsATypeWhoseNextRequestIsUnanswered)
{
    use(R"({"tag": "A"})");
    types->learn(a, kInt);
    types->markUnanswered(a);
    EXPECT_TRUE(types->isKnown(a));
}

TEST_F(TypeRegistryTest, AsksForARefusedTagAgainAfterTenSeconds)
{
    use(R"({"tag": "A"})");
    types->refuseTag(a, "not there");
    EXPECT_EQ(types->tag(a).state, State::Refused);
    EXPECT_EQ(error(0), "not there");
    clock.advance(9999ms);
    EXPECT_EQ(namesToAskFor(), QStringList());
    clock.advance(1ms);
    EXPECT_EQ(namesToAskFor(), QStringList("1A"));
    EXPECT_TRUE(types->learn(a, kInt));
    EXPECT_EQ(types->tag(a).error, QString());
}

TEST_F(TypeRegistryTest, ReadsInACycleWhatIsKnownAndNotReadOnce)
{
    use(R"({"tag": "Unknown"}, {"tag": "A"}, {"tag": "B", "poll": "once"}, {"tag": "Refused"})");
    types->learn(a, kInt);
    types->learn({1, "B"}, kInt);
    types->refuseTag({1, "Refused"}, "not there");
    ASSERT_EQ(cycle(), QVector<int>{1});
    EXPECT_STREQ(types->cyclicReads().first().type->name, "INT");
    EXPECT_TRUE(types->cyclicReads().first().mergeable);
    EXPECT_STREQ(types->readableType(2)->name, "INT");
    EXPECT_EQ(types->readableType(0), nullptr);
}

TEST_F(TypeRegistryTest, KeepsTheStationsApart)
{
    use(R"({"tag": "A"}, {"tag": "A", "name": "a2", "station": 2})");
    types->learn({2, "A"}, kInt);
    EXPECT_EQ(cycle(), QVector<int>{1});
}

TEST_F(TypeRegistryTest, NeverReadsAVariableOfAnotherTypeThanTheProjectSays)
{
    use(R"({"tag": "A", "type": "REAL"}, {"tag": "A", "name": "any"})");
    EXPECT_TRUE(types->learn(a, kInt));
    EXPECT_EQ(error(0), "is INT in the controller, REAL in the project");
    EXPECT_EQ(cycle(), QVector<int>{1});
    clock.advance(24h);
    EXPECT_FALSE(types->readmitVariables());
}

TEST_F(TypeRegistryTest, ReadsOnlyElementZeroOfAString)
{
    use(R"({"tag": "A", "element": 1}, {"tag": "A", "name": "run", "length": 2},
           {"tag": "A", "name": "good"})");
    types->learn(a, kShortString);
    EXPECT_EQ(error(0), "of a string only element 0 and length 1 can be read");
    EXPECT_EQ(error(1), "of a string only element 0 and length 1 can be read");
    EXPECT_EQ(cycle(), QVector<int>{2});
}

TEST_F(TypeRegistryTest, WithdrawsATypeThatChanged)
{
    use(R"({"tag": "A"})");
    EXPECT_TRUE(types->learn(a, kInt));
    EXPECT_FALSE(types->learn(a, kInt));
    EXPECT_FALSE(types->changedTag());
    EXPECT_TRUE(types->learn(a, kReal));
    EXPECT_TRUE(types->changedTag() == a);
    EXPECT_EQ(types->tag(a).type, nullptr);
    EXPECT_EQ(error(0), "type changed in the controller (start again to take it over)");
    EXPECT_EQ(cycle(), QVector<int>());
}

TEST_F(TypeRegistryTest, ReportsATypeThatIsNotElementary)
{
    use(R"({"tag": "A"})");
    types->learn(a, 0x02A0);
    EXPECT_TRUE(types->isKnown(a));
    EXPECT_EQ(error(0), "type 02a0 is not an elementary type");
    EXPECT_EQ(cycle(), QVector<int>());
}

TEST_F(TypeRegistryTest, LeavesARefusedVariableOutForTenSeconds)
{
    use(R"({"tag": "A", "element": 9}, {"tag": "A", "name": "good"})");
    types->learn(a, kInt);
    types->refuseVariable(0, "beyond the end");
    EXPECT_EQ(error(0), "beyond the end");
    EXPECT_EQ(cycle(), QVector<int>{1});
    clock.advance(9999ms);
    EXPECT_FALSE(types->readmitVariables());
    clock.advance(1ms);
    EXPECT_TRUE(types->readmitVariables());
    EXPECT_FALSE(types->readmitVariables());
    EXPECT_EQ(cycle(), QVector<int>({0, 1}));
}

TEST_F(TypeRegistryTest, ForbidsMergingForTheWholeTag)
{
    use(R"({"tag": "A"}, {"tag": "A", "name": "a2", "element": 1}, {"tag": "B"})");
    types->learn(a, kInt);
    types->learn({1, "B"}, kInt);
    types->forbidMerging(a);
    const QVector<CyclicRead> reads = types->cyclicReads();
    ASSERT_EQ(reads.size(), 3);
    EXPECT_FALSE(reads.at(0).mergeable);
    EXPECT_FALSE(reads.at(1).mergeable);
    EXPECT_TRUE(reads.at(2).mergeable);
}

TEST_F(TypeRegistryTest, KnowsNothingOfATagThatWasNotDeclared)
{
    project = Project::fromText(R"({"variables": [{"tag": "A"}]})", "p.json");
    values = std::make_unique<ValueStore>(project);
    types = std::make_unique<TypeRegistry>(project, clock, *values);
    EXPECT_EQ(types->find(a), nullptr);
    EXPECT_FALSE(types->isKnown(a));
    EXPECT_EQ(types->readableType(0), nullptr);
    EXPECT_EQ(cycle(), QVector<int>());
    EXPECT_EQ(namesToAskFor(), QStringList("1A")) << "its type is wanted at once";
}
