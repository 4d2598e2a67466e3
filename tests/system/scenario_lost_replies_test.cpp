// Replies that never arrive: retries, reconnection, power cycles, connections that expire.

#include "scenario_fixture.h"

namespace {

using Requests = std::vector<std::string>;

class LostReplies : public ScenarioTest
{
protected:
    LostReplies()
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
        popRequests();
    }
};

// The repetitions have the request's transaction number. The controller recognises them as
// duplicates and only acknowledges them.
TEST_F(LostReplies, AWithheldReplyCostsThreeTransmissionsAndANewConnection)
{
    connectAndRead();
    write("A", wire::hex("05 00"), 1, 0, 17);
    faults(R"({"fault": "withhold", "message": 5})");

    const int transmissions = transactUntil([&] { return !finished.empty(); });

    EXPECT_EQ(transmissions, 3);
    EXPECT_EQ(popRequests(), Requests(3, "4 write A x1 = 05 00"));
    EXPECT_EQ(finished, std::vector<Finished>({{9, 3, 17, 2}}));
    ASSERT_EQ(refreshed.size(), 2u) << "one when the write was encoded, one for the failure";
    EXPECT_TRUE(refreshed[1].hasList);
    EXPECT_EQ(refreshed[1].listSize, 0);
    EXPECT_EQ(exchanges.back().retValue, 44);
    EXPECT_EQ(shown("A"), "none") << "no value while the station is not connected";
    EXPECT_EQ(inController("A"), "05 00") << "the write was executed, only its reply was lost";

    EXPECT_EQ(transactUntil([&] { return shown("A") == "05 00" && shown("B") == "78 56"; }), 3);
    EXPECT_EQ(popRequests(), (Requests{"4 identity", "5 open", "6 read A x1"}));
    EXPECT_EQ(controller.counters().duplicates, 2u);
}

TEST_F(LostReplies, AReadWithoutReplyTakesSevenTransmissionsUntilItsNextValue)
{
    connectAndRead();
    setInController("A", "05 00");
    faults(R"({"fault": "withhold", "message": 5})");

    EXPECT_EQ(transactUntil([&] { return shown("A") == "05 00"; }), 7);

    EXPECT_EQ(popRequests(), (Requests{"4 read A x1", "4 read A x1", "4 read A x1", "4 identity",
                                       "5 open", "6 read B x1", "7 read A x1"}));
    EXPECT_EQ(refreshed.size(), 1u);
    EXPECT_TRUE(finished.empty()) << "a cyclic read has no callback";
}

TEST_F(LostReplies, AForwardOpenWithoutReplyIsSentFourTimesWithNewNumbersThenTheSetUpStartsAgain)
{
    faults(R"({"fault": "withhold", "message": [2, 3, 4, 5]})");

    EXPECT_EQ(transactUntil([&] { return shown("A") == "34 12"; }), 8);

    EXPECT_EQ(popRequests(), (Requests{"0 identity", "1 open", "2 open", "3 open", "4 open",
                                       "5 identity", "6 open", "7 read A x1"}));
    for (int i = 1; i <= 4; ++i)
        EXPECT_EQ(exchanges[static_cast<std::size_t>(i)].retValue, 201) << i;
}

TEST_F(LostReplies, AnIdentityRequestWithoutReplyIsRepeatedWithTheNextNumber)
{
    faults(R"({"fault": "withhold", "message": 1})");
    transact();
    EXPECT_EQ(exchanges.back().retValue, 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());

    transact(3);
    EXPECT_EQ(popRequests(), (Requests{"0 identity", "1 identity", "2 open", "3 read A x1"}));
    EXPECT_EQ(shown("A"), "34 12");
}

// The controller answers "connection not found". The driver does not check the status: such a reply
// counts as an answer, so the driver goes on for ever with a connection that no longer exists.
TEST_F(LostReplies, TheDriverAloneDoesNotNoticeAPowerCycleOfTheControllerAsDocumented)
{
    connectAndRead();
    controller.powerCycle(false);
    setInController("A", "05 00");

    transact(200);

    EXPECT_EQ(shown("A"), "34 12") << "the last good value is kept";
    EXPECT_EQ(controller.server().openConnections(), 0u);
    EXPECT_EQ(controller.server().answersByStatus().at(0x01), 200u);
}

TEST_F(LostReplies, AHostThatTreatsALostConnectionAsATimeOutRecoversFromAPowerCycle)
{
    connectAndRead();
    controller.powerCycle(false);
    setInController("A", "05 00");
    setInController("B", "06 00");
    accepts = [](const QByteArray&, const QByteArray& reply) {
        // Status 01 and extended status 0107, after the connection header of a data reply.
        return wire::unframed(reply).mid(14) != wire::hex("01 01 07 01");
    };

    const int transmissions =
        transactUntil([&] { return shown("A") == "05 00" && shown("B") == "06 00"; });

    EXPECT_EQ(transmissions, 7) << "three attempts, two to connect, two reads";
    EXPECT_EQ(controller.server().openConnections(), 1u);
}

// The interval is 2 s, the multiplier 16.
TEST_F(LostReplies, TheControllerForgetsAConnectionThatIsUnusedFor32Seconds)
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

TEST_F(LostReplies, APulledCableCostsANewConnectionAfterItIsPutBack)
{
    connectAndRead();
    setInController("A", "05 00");
    faults(R"({"fault": "hang-up", "on": "requests", "message": 5, "seconds": 5})");

    const int transmissions = transactUntil([&] { return shown("A") == "05 00"; }, 100);

    // Five seconds are 17 time-outs of 300 ms: three for a read, then one for each set-up, which
    // the driver gives up at once.
    EXPECT_EQ(transmissions, 21);
    const Requests requests = popRequests();
    EXPECT_EQ(requests[2], "4 read A x1");
    EXPECT_EQ(requests[3], "4 identity");
    EXPECT_EQ(requests[16], "17 identity");
    EXPECT_EQ(requests[18], "19 open");
    EXPECT_EQ(controller.server().openConnections(), 1u);
}

TEST_F(LostReplies, AfterADownloadThatRemovesATagItsLastValueStaysOnTheScreenAsDocumented)
{
    connectAndRead();
    defineTags(R"({"name": "B", "type": "INT", "value": 1})");
    transact(2);
    EXPECT_EQ(shown("A"), "34 12");
    EXPECT_EQ(shown("B"), "01 00");
    EXPECT_EQ(controller.server().answersByStatus().at(0x05), 1u);
}

TEST_F(LostReplies, AfterADownloadThatChangesATagsTypeItIsReadAsTheOldTypeAsDocumented)
{
    connectAndRead();
    defineTags(
        R"({"name": "A", "type": "DINT", "value": 305419896}, {"name": "B", "type": "INT"})");
    transact(1);
    EXPECT_EQ(shown("A"), "78 56");
    EXPECT_EQ(shown("A", 2), "78 56 34 12") << "the bytes are new, the class is not";
    transact(1);
    EXPECT_EQ(getRegType(wire::hex("C4 00")), 4);
    EXPECT_EQ(PLCDataStorage[1].tagInfo["A"].at(0), '\x03');
}

} // namespace
