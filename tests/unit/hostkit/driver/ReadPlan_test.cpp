#include "ReadPlan.h"

#include "TagKey.h"

#include <QtCore/QMap>

#include <gtest/gtest.h>

using namespace micro850::host;

namespace {

const int kLink = 3;

class ReadPlanTest : public ::testing::Test
{
protected:
    void know(const char* tag, const char* type, int station = 1)
    {
        types[{station, tag}] = &micro850::cipTypeNamed(type);
    }
    ReadPlan plan(const char* variables)
    {
        const QString text =
            QStringLiteral(R"({"stations": [{"number": 1}, {"number": 2}], "variables": [%1]})");
        project = Project::fromText(text.arg(variables), "p.json");
        QVector<CyclicRead> reads;
        for (int i = 0; i < project.variables.size(); ++i) {
            const Variable& variable = project.variables.at(i);
            reads.append({i, types.value({variable.station, variable.tag}), mergeable});
        }
        return planReads(project, reads, kLink);
    }
    // "start x count" of the requests for AddListReadVar().
    static std::string singles(const ReadPlan& plan)
    {
        std::string text;
        for (const RW_VAR& request : plan.single) {
            text += (text.empty() ? "" : ", ") + std::to_string(request.startAddress) + " x " +
                    std::to_string(request.count);
        }
        return text;
    }

    QMap<TagKey, const micro850::CipType*> types;
    bool mergeable = true;
    Project project;
};

} // namespace

TEST_F(ReadPlanTest, LetsTheDriverMergeNeighboursOfTheDefaultStation)
{
    know("Level", "INT");
    const ReadPlan reads = plan(R"({"tag": "Level", "name": "a", "element": 3},
                                   {"tag": "Level", "name": "b", "element": 4})");
    ASSERT_EQ(reads.merged.size(), 2);
    EXPECT_EQ(reads.merged.at(0).tagName, QString("Level"));
    EXPECT_EQ(reads.merged.at(0).addressText, QString("3"));
    EXPECT_EQ(reads.merged.at(0).count, 1);
    EXPECT_TRUE(reads.single.isEmpty());
}

TEST_F(ReadPlanTest, ListsAnElementOnceForTheDriverToMerge)
{
    know("Level", "INT");
    const ReadPlan reads = plan(R"({"tag": "Level", "name": "a", "element": 3},
                                   {"tag": "Level", "name": "b", "element": 3})");
    EXPECT_EQ(reads.merged.size(), 1);
}

TEST_F(ReadPlanTest, ListsReadsOfOtherStationsAsSingleRequests)
{
    know("Level", "INT", 2);
    const ReadPlan reads = plan(R"({"tag": "Level", "element": 3, "station": 2})");
    EXPECT_TRUE(reads.merged.isEmpty());
    ASSERT_EQ(reads.single.size(), 1);
    const RW_VAR& request = reads.single.first();
    EXPECT_EQ(request.stationNo, 2);
    EXPECT_EQ(request.tagName, QString("Level"));
    EXPECT_EQ(request.addressText, QString("3"));
    EXPECT_EQ(request.startAddress, 3);
    EXPECT_EQ(request.count, 1);
    EXPECT_EQ(request.reqFlag, 1);
    EXPECT_EQ(request.onceFlag, 0);
    EXPECT_EQ(request.accessMode, 0);
    EXPECT_EQ(request.linkId, kLink);
}

TEST_F(ReadPlanTest, AddsToTheCountOfWideElementsWhatTheDriverSubtracts)
{
    know("Recipe", "DINT");
    know("Flow", "LREAL");
    // 20 elements of 32 bits: the driver subtracts 1; 5 of 64 bits: it subtracts 3.
    EXPECT_EQ(singles(plan(R"({"tag": "Recipe", "length": 20}, {"tag": "Flow", "length": 5})")),
              "0 x 21, 0 x 8");
}

TEST_F(ReadPlanTest, CutsALongArrayIntoRunsThatFitIntoAReply)
{
    know("Zone", "INT");
    know("Recipe", "DINT");
    EXPECT_EQ(singles(plan(R"({"tag": "Zone", "length": 300})")), "0 x 125, 125 x 125, 250 x 50");
    EXPECT_EQ(singles(plan(R"({"tag": "Recipe", "element": 7, "length": 63})")), "7 x 63, 69 x 2");
}

TEST_F(ReadPlanTest, NeverLetsTheDriverMergeWideTypesThatItMovesByteByByte)
{
    know("Bits", "WORD");
    EXPECT_TRUE(plan(R"({"tag": "Bits", "element": 1})").merged.isEmpty());
}

TEST_F(ReadPlanTest, ReadsEachVariableByARequestOfItsOwnWhenMergingIsForbidden)
{
    know("Level", "INT");
    mergeable = false;
    const ReadPlan reads = plan(R"({"tag": "Level", "name": "a", "element": 3},
                                   {"tag": "Level", "name": "b", "element": 4})");
    EXPECT_TRUE(reads.merged.isEmpty());
    EXPECT_EQ(singles(reads), "3 x 1, 4 x 1");
    EXPECT_EQ(variableOf(reads.single.at(0).varIndex), 0);
    EXPECT_EQ(variableOf(reads.single.at(1).varIndex), 1);
}

TEST_F(ReadPlanTest, ReadsOnlyTheVariablesThatItIsGiven)
{
    know("A", "INT");
    know("B", "INT");
    plan(R"({"tag": "A"}, {"tag": "B", "length": 2})");
    const ReadPlan reads = planReads(project, {{1, &micro850::cipTypeNamed("INT"), true}}, kLink);
    EXPECT_TRUE(reads.merged.isEmpty());
    ASSERT_EQ(reads.single.size(), 1);
    EXPECT_EQ(reads.single.first().tagName, QString("B"));
    EXPECT_EQ(variableOf(reads.single.first().varIndex), 1);
}

TEST(RunsOf, ReadsAStringAsOneElement)
{
    const QVector<micro850::host::Run> runs =
        runsOf(Variable(), micro850::cipTypeNamed("SHORT_STRING"));
    ASSERT_EQ(runs.size(), 1);
    EXPECT_EQ(runs.first().elements, 1);
}
