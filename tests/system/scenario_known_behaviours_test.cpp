// Behaviours that look odd but are intentional; docs/known-behaviours.md gives the reasons.

#include "scenario_fixture.h"

namespace {

using Requests = std::vector<std::string>;

class KnownBehaviours : public ScenarioTest
{
};

TEST_F(KnownBehaviours, AStringThatGetsShorterKeepsItsOldTailAsDocumented)
{
    defineTags(R"({"name": "Name", "type": "SHORT_STRING", "value": "Apple juice"})");
    declareIndexed("Name");
    pollCyclically({{"Name", 0, 6}});
    transact(3);
    setInController("Name", "04 50 65 61 72"); // Pear
    transact(1);
    EXPECT_EQ(wire::hex(shown("Name", 6).c_str()), QByteArray("Peare juice\0", 12));
}

// The driver drops the length byte of the type, and the request names no element.
TEST_F(KnownBehaviours, OnlyTheFirstStringOfAnArrayIsReadAndWrittenAsDocumented)
{
    defineTags(
        R"({"name": "Names", "type": "SHORT_STRING", "length": 2, "value": ["Apple", "Pear"]})");
    declareIndexed("Names");
    pollCyclically({{"Names", 0, 3}});
    transact(3);
    EXPECT_EQ(wire::hex(shown("Names", 3).c_str()), QByteArray("Apple\0", 6));
    RW_VAR second = readOf("Names", 1, 3);
    AddListOnceReadVar(&second, 0);
    ASSERT_GE(transactUntil([] { return PLC_driver.onceReadList.isEmpty(); }), 0);
    EXPECT_EQ(wire::hex(shown("Names", 3).c_str()), QByteArray("AApple", 6));
    EXPECT_EQ(exchanges.back().request, "3 read Names x1");

    write("Names", "Plum\0\0", 3, 1);
    ASSERT_GE(transactUntil([] { return PLC_driver.writeList.isEmpty(); }), 0);
    EXPECT_EQ(inController("Names", 0), "04 50 6C 75 6D");
    EXPECT_EQ(inController("Names", 1), "04 50 65 61 72");
}

TEST_F(KnownBehaviours, ACyclicPassOverTwentyAdjacentDintsOmitsTheFifteenthAsDocumented)
{
    defineTags(
        R"({"name": "D", "type": "DINT", "length": 20, "value": [1, 2, 3, 4, 5, 6, 7, 8, 9, 10,
              11, 12, 13, 14, 15, 16, 17, 18, 19, 20]})");
    declareIndexed("D");
    std::vector<Variable> variables;
    for (int i = 0; i < 20; ++i)
        variables.push_back({"D", i, 2});
    pollCyclically(variables);
    transact(5);
    EXPECT_EQ(popRequests(),
              (Requests{"0 identity", "1 open", "2 read D x1", "3 read D[15] x5", "4 read D x14"}));
    transact(20);
    std::string covered;
    for (int i = 0; i < 20; ++i)
        covered += shown("D", 2, i) == wire::text(wire::little(static_cast<quint64>(i + 1), 4))
                       ? 'x'
                       : '-';
    EXPECT_EQ(covered, "xxxxxxxxxxxxxx-xxxxx") << "element 14 is never requested";
}

TEST_F(KnownBehaviours, ACyclicPassOverTwentyScalarDintsShowsAll)
{
    std::string tags;
    std::vector<std::string> names;
    for (int i = 0; i < 20; ++i)
        names.push_back("D" + std::to_string(i));
    for (const std::string& name : names)
        tags += (tags.empty() ? "" : ",") +
                (R"({"name": ")" + name + R"(", "type": "DINT", "value": 7})");
    defineTags(tags);
    std::vector<Variable> variables;
    for (const std::string& name : names) {
        declareIndexed(name.c_str());
        variables.push_back({name.c_str(), 0, 2});
    }
    pollCyclically(variables);
    transact(22);
    for (const std::string& name : names)
        EXPECT_EQ(shown(name.c_str(), 2), "07 00 00 00") << name;
}

TEST_F(KnownBehaviours, AShortRequestInsideALongerRangeShortensTheRangeAsDocumented)
{
    defineTags(R"({"name": "A", "type": "INT", "length": 20, "value": 7})");
    declareIndexed("A");
    pollCyclically({{"A", 0, 10}, {"A", 3, 1}});
    transact(4);
    EXPECT_EQ(popRequests(), (Requests{"0 identity", "1 open", "2 read A x1", "3 read A x4"}));
    EXPECT_EQ(shown("A", 1, 3), "07 00");
    EXPECT_EQ(shown("A", 1, 9), "00 00") << "never read";
}

} // namespace
