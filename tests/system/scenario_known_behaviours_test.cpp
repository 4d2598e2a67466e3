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
    ASSERT_EQ(PLC_driver.readList.size(), 2);
    EXPECT_EQ(PLC_driver.readList.at(0).count, 15);
    EXPECT_EQ(PLC_driver.readList.at(1).count, 6) << "20 elements and the second word of the last";
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

// Reports one time-out as a host should: with as many calls as the driver needs.
int reportTimeOut()
{
    QByteArray nothing;
    while (PLC_driver.sendQueue.first().replyLength == -1)
        DataCom(&nothing, 0);
    return DataCom(&nothing, 0)->retValue;
}

/// How often the line stays silent until the driver reports a failure, for a host that calls
/// DataCom once for each time-out.
int timeOutsUntilTheCode(int retryLimit, ComInfo& settings)
{
    settings.retryLimit = retryLimit;
    QByteArray nothing;
    ComCommunication();
    for (int timeOuts = 1; timeOuts < 100; ++timeOuts) {
        if (DataCom(&nothing, 0)->retValue > 1)
            return timeOuts;
        ComCommunication();
    }
    return -1;
}

TEST_F(KnownBehaviours, ATimeOutThatIsReportedByOneCallEachCountsOnlyFromTheTwelfthOnAsDocumented)
{
    for (const int limit : {0, 1, 2, 5}) {
        restart();
        connectStation();
        pollCyclically({{"A", 0, 1}});
        EXPECT_EQ(timeOutsUntilTheCode(limit, settings), 12 + limit) << "retry limit " << limit;
    }
}

TEST_F(KnownBehaviours,
       AfterATimeOutAReplyCountsAsTooLongUnlessItsLengthIsTheExpectedOneAsDocumented)
{
    for (const bool expected : {false, true}) {
        restart();
        connectStation();
        pollCyclically({{"A", 0, 1}});
        ASSERT_TRUE(ComCommunication());
        EXPECT_EQ(reportTimeOut(), 0);
        Protocol* resent = ComCommunication();
        ASSERT_TRUE(resent);
        EXPECT_EQ(resent->replyLength, 999);
        QByteArray reply = wire::readReply(0x21, 0xC3, wire::hex("D2 04"));
        EXPECT_EQ(DataCom(&reply, expected ? resent->replyLength : reply.size())->retValue,
                  expected ? 1 : 0);
        EXPECT_EQ(shown("A"), expected ? "D2 04" : "none");
    }
}

TEST_F(KnownBehaviours, NoBytesWithTheExpectedLengthCountAsAReplyAsDocumented)
{
    connectStation();
    pollCyclically({{"A", 0, 1}});
    ASSERT_TRUE(ComCommunication());
    EXPECT_EQ(reportTimeOut(), 0);
    QByteArray nothing;
    EXPECT_EQ(DataCom(&nothing, 999)->retValue, 1);
}

TEST_F(KnownBehaviours, ACyclicRequestThatFailsMovesToTheEndOfTheListAsDocumented)
{
    connectStation();
    pollCyclically({{"A", 0, 1}, {"B", 0, 1}});
    settings.retryLimit = 0;
    ComCommunication();
    EXPECT_EQ(reportTimeOut(), 41);
    EXPECT_EQ(tagsOf(PLC_driver.readList), "BA");
    EXPECT_TRUE(finished.empty()) << "cyclic requests are not reported";
}

// The first read of an indexed tag asks for element 0, since the class is not known yet. Its value
// is stored where the request begins.
TEST_F(KnownBehaviours, TheFirstReadOfAnElementShowsElement0AsDocumented)
{
    defineTags(R"({"name": "A", "type": "INT", "length": 5, "value": [10, 11, 12, 13, 14]})");
    declareIndexed("A");
    RW_VAR third = readOf("A", 3);
    third.addressText = QStringLiteral("3");
    AddListOnceReadVar(&third, 0);
    ASSERT_GE(transactUntil([] { return PLC_driver.onceReadList.isEmpty(); }), 0);
    EXPECT_EQ(popRequests(), (Requests{"0 identity", "1 open", "2 read A x1"}));
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].status, 1);
    EXPECT_EQ(shown("A", 1, 3), "0A 00") << "the value of A[0]";

    RW_VAR again = readOf("A", 3);
    again.addressText = QStringLiteral("3");
    AddListOnceReadVar(&again, 0);
    ASSERT_GE(transactUntil([] { return PLC_driver.onceReadList.isEmpty(); }), 0);
    EXPECT_EQ(shown("A", 1, 3), "0D 00");
}

TEST_F(KnownBehaviours, AnElementThatWasNeverReadShowsZerosOnceAnotherWasAsDocumented)
{
    defineTags(R"({"name": "A", "type": "INT", "length": 5, "value": 7})");
    declareIndexed("A");
    pollCyclically({{"A", 0, 1}});
    transact(3);
    EXPECT_EQ(shown("A", 1, 4), "00 00");
}

TEST_F(KnownBehaviours, RequestsOfADisabledStationVanishWithoutAReportExceptCyclicOnesAsDocumented)
{
    settings.multiStation = 1;
    pollCyclically({{"A", 0, 1}});
    RW_VAR once = readOf("B");
    AddListOnceReadVar(&once, 0);
    write("C", wire::hex("05 00"));
    EnCommStation(1, 0);
    for (int i = 0; i < 3; ++i)
        EXPECT_FALSE(ComCommunication());
    EXPECT_EQ(PLC_driver.onceReadList.size(), 0);
    EXPECT_EQ(PLC_driver.writeList.size(), 0);
    EXPECT_EQ(PLC_driver.readList.size(), 1);
    EXPECT_TRUE(finished.empty());
}

// After five writes in a row a cyclic request has its turn. While every cyclic request belongs to a
// disabled station it never has, and the writes wait.
TEST_F(KnownBehaviours, AWriteOfADisabledStationWaitsAfterABurstAsDocumented)
{
    pollCyclically({{"A", 0, 1}});
    write("C", wire::hex("05 00"));
    PLC_driver.writeBurst = 5;
    EnCommStation(1, 0);
    for (int i = 0; i < 20; ++i)
        EXPECT_FALSE(ComCommunication());
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
}

TEST_F(KnownBehaviours, AQueuedWriteWaitsForAConnectionForAsLongAsItTakesAsDocumented)
{
    defineTags(R"({"name": "W", "type": "INT"})");
    declareIndexed("W");
    isDead = [](const Protocol&) { return true; };
    write("W", wire::hex("05 00"));
    transact(50);
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_TRUE(finished.empty());
    EXPECT_EQ(inController("W"), "00 00");
    isDead = nullptr;
    ASSERT_GE(transactUntil([] { return PLC_driver.writeList.isEmpty(); }), 0);
    EXPECT_EQ(inController("W"), "05 00") << "long after it was asked for";
}

// The read that learns the type counts as a cyclic one, so that its failure ends no write.
TEST_F(KnownBehaviours, AWriteThatWaitsForATypeIsNotReportedWhenTheReadFailsAsDocumented)
{
    connectStation();
    declareIndexed("W");
    settings.retryLimit = 0;
    PLC_driver.result.stationNo = 9;
    write("W", wire::hex("05 00"));
    ASSERT_TRUE(ComCommunication());
    EXPECT_EQ(reportTimeOut(), 44) << "for the kind 3 of the write";
    EXPECT_TRUE(finished.empty());
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
}

TEST_F(KnownBehaviours, TwoWritesOfTheSameVariableAreReportedOnceAsDocumented)
{
    defineTags(R"({"name": "W", "type": "INT", "length": 2})");
    declareIndexed("W");
    write("W", wire::hex("05 00"), 1, 0, 1);
    write("W", wire::hex("06 00"), 1, 1, 1);
    ASSERT_GE(transactUntil([] { return PLC_driver.writeList.isEmpty(); }), 0);
    EXPECT_EQ(inController("W", 1), "06 00");
    EXPECT_EQ(finished.size(), 1u);
}

TEST_F(KnownBehaviours, AFullListReturnsTheSameLengthForWhatItTookLastAndForWhatItDropsAsDocumented)
{
    declareIndexed("W");
    int length = 0;
    for (int i = 0; i < 1024; ++i)
        length = write("W", wire::hex("05 00"), 1, i, i);
    EXPECT_EQ(length, 1024);
    EXPECT_EQ(write("W", wire::hex("05 00"), 1, 5000, 5000), 1024);
    EXPECT_EQ(PLC_driver.writeList.last().startAddress, 1023);
}

// Every good reply counts, whatever it answers.
TEST_F(KnownBehaviours, APassIsCompleteAfterOneReplyMoreThanTheListIsLongAsDocumented)
{
    defineTags(R"({"name": "A", "type": "INT"}, {"name": "B", "type": "INT"})");
    pollCyclically({{"A", 0, 1}, {"B", 0, 1}});
    transact(4); // identity, open, A, B
    EXPECT_EQ(settings.passComplete, 0);
    transact(1);
    EXPECT_EQ(settings.passComplete, 1);
    transact(5);
    EXPECT_EQ(settings.passComplete, 1) << "until a host clears it, or a reply fails";
    settings.passComplete = 0;
    PLC_driver.readCycleCount = 0;
    for (int i = 0; i < 3; ++i) {
        RW_VAR once = readOf("A");
        once.varIndex = i;
        AddListOnceReadVar(&once, 0);
        transact(1);
    }
    EXPECT_EQ(settings.passComplete, 1) << "B was not read in this pass";
}

TEST_F(KnownBehaviours, ARunThatIsLongerThanAMillionElementsIsDroppedAsDocumented)
{
    declareIndexed("A");
    pollCyclically({{"A", 0, (1 << 20) + 1}});
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
    pollCyclically({{"A", 0, 1 << 20}});
    EXPECT_EQ(PLC_driver.readList.size(), ((1 << 20) + 14) / 15);
}

} // namespace
