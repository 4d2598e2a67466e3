// Replies that never come: retries, reconnection, power cycles, connections that expire.

#include "scenario_fixture.h"

namespace {

using Requests = std::vector<std::string>;

class FailureScenario : public ScenarioTest
{
protected:
    FailureScenario()
    {
        defineTags(R"({"name": "A", "type": "INT", "value": 4660},
                 {"name": "B", "type": "INT", "value": 22136})");
        declareIndexed("A");
        declareIndexed("B");
        pollCyclically({{"A", 0, 1}, {"B", 0, 1}});
    }
    void connectAndRead()
    {
        transact(4);
        takeRequests();
    }
};

// The repetitions have the number of the request, so that the controller takes them for duplicates
// and acknowledges them only.
TEST_F(FailureScenario, AWithheldReplyCostsThreeTransmissionsAndANewConnection)
{
    connectAndRead();
    write("A", wire::hex("05 00"), 1, 0, 17);
    faults(R"({"fault": "withhold", "message": 5})");

    const int transmissions = transactUntil([&] { return !finished.empty(); });

    EXPECT_EQ(transmissions, 3);
    EXPECT_EQ(takeRequests(), Requests(3, "4 write A x1 = 05 00"));
    EXPECT_EQ(finished, std::vector<Finished>({{9, 3, 17, 2}}));
    ASSERT_EQ(refreshed.size(), 2u) << "one when the write was encoded, one for the failure";
    EXPECT_TRUE(refreshed[1].hasList);
    EXPECT_EQ(refreshed[1].listSize, 0);
    EXPECT_EQ(exchanges.back().retValue, 44);
    EXPECT_EQ(shown("A"), "none") << "no value while the station is not connected";
    EXPECT_EQ(inController("A"), "05 00") << "the write was carried out, only its reply was lost";

    EXPECT_EQ(transactUntil([&] { return shown("A") == "05 00" && shown("B") == "78 56"; }), 3);
    EXPECT_EQ(takeRequests(), (Requests{"4 identity", "5 open", "6 read A x1"}));
    EXPECT_EQ(controller.counters().duplicates, 2u);
}

TEST_F(FailureScenario, AReadWithoutReplyTakesSevenTransmissionsUntilItsValueFlowsAgain)
{
    connectAndRead();
    setInController("A", "05 00");
    faults(R"({"fault": "withhold", "message": 5})");

    EXPECT_EQ(transactUntil([&] { return shown("A") == "05 00"; }), 7);

    EXPECT_EQ(takeRequests(), (Requests{"4 read A x1", "4 read A x1", "4 read A x1", "4 identity",
                                        "5 open", "6 read B x1", "7 read A x1"}));
    EXPECT_EQ(refreshed.size(), 1u);
    EXPECT_TRUE(finished.empty()) << "a cyclic read has no callback";
}

TEST_F(FailureScenario, AWithheldForwardOpenIsSentThreeTimesMoreUnderNewNumbersAndThenBegunAnew)
{
    faults(R"({"fault": "withhold", "message": [2, 3, 4, 5]})");

    EXPECT_EQ(transactUntil([&] { return shown("A") == "34 12"; }), 8);

    EXPECT_EQ(takeRequests(), (Requests{"0 identity", "1 open", "2 open", "3 open", "4 open",
                                        "5 identity", "6 open", "7 read A x1"}));
    for (int i = 1; i <= 4; ++i)
        EXPECT_EQ(exchanges[static_cast<std::size_t>(i)].retValue, 201) << i;
}

TEST_F(FailureScenario, AWithheldIdentityReplyIsAskedForAgainUnderTheNextNumber)
{
    faults(R"({"fault": "withhold", "message": 1})");
    transact();
    EXPECT_EQ(exchanges.back().retValue, 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());

    transact(3);
    EXPECT_EQ(takeRequests(), (Requests{"0 identity", "1 identity", "2 open", "3 read A x1"}));
    EXPECT_EQ(shown("A"), "34 12");
}

// The controller answers "connection not found". The driver does not look at the status: such a
// reply counts as answered, so that it goes on for ever on a connection that is gone.
TEST_F(FailureScenario, APowerCycleOfTheControllerIsNotNoticedByTheDriverAloneAsIsKnown)
{
    connectAndRead();
    controller.powerCycle(false);
    setInController("A", "05 00");

    transact(200);

    EXPECT_EQ(shown("A"), "34 12") << "the last good value is kept";
    EXPECT_EQ(controller.server().openConnections(), 0u);
    EXPECT_EQ(controller.server().answersByStatus().at(0x01), 200u);
}

TEST_F(FailureScenario, AHostThatTakesALostConnectionForSilenceRecoversFromAPowerCycle)
{
    connectAndRead();
    controller.powerCycle(false);
    setInController("A", "05 00");
    setInController("B", "06 00");
    accepts = [](const QByteArray&, const QByteArray& reply) {
        // Status 01, extended status 0107, behind the connection header of a data reply.
        return wire::unframed(reply).mid(14) != wire::hex("01 01 07 01");
    };

    const int transmissions =
        transactUntil([&] { return shown("A") == "05 00" && shown("B") == "06 00"; });

    EXPECT_EQ(transmissions, 7) << "three attempts, two to connect, two reads";
    EXPECT_EQ(controller.server().openConnections(), 1u);
}

// 2 s interval, multiplier 16.
TEST_F(FailureScenario, AConnectionThatIsUnusedFor32SecondsIsGoneInTheController)
{
    connectAndRead();
    pass(31900);
    transact();
    EXPECT_EQ(controller.server().openConnections(), 1u);
    pass(32100);
    EXPECT_EQ(controller.server().openConnections(), 0u);
    transact();
    EXPECT_EQ(wire::unframed(exchanges.back().reply).mid(14), wire::hex("01 01 07 01"));
}

TEST_F(FailureScenario, APulledCableCostsANewConnectionOncePutBack)
{
    connectAndRead();
    setInController("A", "05 00");
    faults(R"({"fault": "hang-up", "on": "requests", "message": 5, "seconds": 5})");

    const int transmissions = transactUntil([&] { return shown("A") == "05 00"; }, 100);

    // Five seconds are 17 time-outs of 300 ms: three of a read and then set-ups, each of which is
    // given up at once.
    EXPECT_EQ(transmissions, 21);
    const Requests requests = takeRequests();
    EXPECT_EQ(requests[2], "4 read A x1");
    EXPECT_EQ(requests[3], "4 identity");
    EXPECT_EQ(requests[16], "17 identity");
    EXPECT_EQ(requests[18], "19 open");
    EXPECT_EQ(controller.server().openConnections(), 1u);
}

TEST_F(FailureScenario, ADownloadThatRemovesATagLeavesItsLastValueOnTheScreenAsIsKnown)
{
    connectAndRead();
    defineTags(R"({"name": "B", "type": "INT", "value": 1})");
    transact(2);
    EXPECT_EQ(shown("A"), "34 12");
    EXPECT_EQ(shown("B"), "01 00");
    EXPECT_EQ(controller.server().answersByStatus().at(0x05), 1u);
}

TEST_F(FailureScenario, ADownloadThatChangesATagsTypeIsStillReadAsTheOldOneAsIsKnown)
{
    connectAndRead();
    defineTags(
        R"({"name": "A", "type": "DINT", "value": 305419896}, {"name": "B", "type": "INT"})");
    transact(1);
    EXPECT_EQ(shown("A"), "78 56");
    EXPECT_EQ(shown("A", 2), "78 56 34 12") << "the bytes are there, the class is not";
    transact(1);
    EXPECT_EQ(getRegType(wire::hex("C4 00")), 4);
    EXPECT_EQ(PLCDataStorage[1].tagInfo["A"].at(0), '\x03');
}

} // namespace
