// Replies that come too late, and stations of which one is dead: what the driver does with a host
// that leaves everything to it.

#include "scenario_fixture.h"

namespace {

using Requests = std::vector<std::string>;

const char kFirst[] = "11 11";
const char kSecond[] = "22 22";

class LateScenario : public ScenarioTest
{
protected:
    LateScenario()
    {
        defineTags(R"({"name": "A", "type": "INT", "value": 4369},
                 {"name": "B", "type": "INT", "value": 8738})");
        declareIndexed("A");
        declareIndexed("B");
        pollCyclically({{"A", 0, 1}, {"B", 0, 1}});
        transact(4);
        takeRequests();
    }
    /// What was shown over so many transactions: both tags right, none, or a value of something
    /// else.
    std::string shownOver(int times)
    {
        bool foreign = false;
        for (int i = 0; i < times; ++i) {
            transact();
            foreign = foreign || (shown("A") != kFirst && shown("A") != "none");
            foreign = foreign || (shown("B") != kSecond && shown("B") != "none");
        }
        const bool right = shown("A") == kFirst && shown("B") == kSecond;
        return std::string(foreign ? "foreign values" : "no foreign value") +
               (right ? ", right at the end" : ", wrong at the end");
    }
    static std::string lateBy(int requests, const char* points)
    {
        return R"({"fault": "delay", "later": )" + std::to_string(requests) + ", " + points + "}";
    }
};

// Replies are told apart by nothing: what comes next is the reply.

TEST_F(LateScenario, AReplyLateBy1RequestIsTakenForTheIdentityReplyAsIsKnown)
{
    faults(lateBy(1, R"("message": 5)"));
    EXPECT_EQ(shownOver(8), "no foreign value, right at the end");
    EXPECT_EQ(takeRequests(), (Requests{"4 read A x1", "4 read A x1", "4 read A x1", "4 identity",
                                        "5 open", "6 read B x1", "7 read A x1", "8 read B x1"}));
    EXPECT_EQ(wire::unframed(exchanges[7].reply).mid(12, 4), wire::hex("D2 00 00 00"))
        << "a data reply answered the identity request";
}

// The identity reply is taken as it is; the late one answers the request for the connection.
TEST_F(LateScenario, AReplyLateBy2RequestsIsTakenForTheConnectionsReplyAsIsKnown)
{
    faults(lateBy(2, R"("message": 5)"));
    transact(5);
    setInController("A", "33 33");
    transact(40);
    EXPECT_EQ(shown("A"), kFirst) << "the last good value, for ever";
    EXPECT_EQ(controller.server().answersByStatus().at(0x01), 40u) << "connection not found";
}

TEST_F(LateScenario, AReplyLateBy5RequestsIsStoredUnderAnotherTagUntilItsNextReadAsIsKnown)
{
    faults(lateBy(5, R"("message": 5)"));
    EXPECT_EQ(shownOver(40), "foreign values, right at the end");
}

TEST_F(LateScenario, AReplyThatIsSentAgainInPlaceOfTheNextIsStoredUnderAnotherTagAsIsKnown)
{
    faults(R"({"fault": "previous", "message": 5})");
    EXPECT_EQ(shownOver(40), "foreign values, right at the end");
}

TEST_F(LateScenario, AControllerThatIsAlwaysOneReplyBehindGetsNothingRightAsIsKnown)
{
    faults(lateBy(1, R"("rate": 1)"));
    EXPECT_EQ(shownOver(40), "foreign values, wrong at the end");
}

TEST_F(LateScenario, ASecondCopyShiftsAllThatFollowsWhereTheHostDoesNotEmptyTheInputAsIsKnown)
{
    emptiesInput = false;
    faults(R"({"fault": "duplicate", "message": 5})");
    EXPECT_EQ(shownOver(1), "no foreign value, right at the end");
    EXPECT_EQ(shownOver(40), "foreign values, wrong at the end");
}

TEST_F(LateScenario, AHostThatComparesTransactionNumbersNeverShowsAReplyUnderAnotherTag)
{
    accepts = isAnswerTo;
    int strike = 5;
    for (const int late : {1, 2, 5}) {
        faults(lateBy(late, (R"("message": )" + std::to_string(strike)).c_str()));
        EXPECT_EQ(shownOver(40), "no foreign value, right at the end") << late;
        strike = static_cast<int>(line().messages(micro850::sim::Side::Replies)) + 1;
    }
    faults(R"({"fault": "previous", "message": )" + std::to_string(strike) + "}");
    EXPECT_EQ(shownOver(40), "no foreign value, right at the end");
    faults(lateBy(1, R"("rate": 1)"));
    EXPECT_EQ(shownOver(40), "no foreign value, wrong at the end");
}

/// Two stations; the second is behind the same port and never answers.
class TwoStations : public ScenarioTest
{
protected:
    TwoStations()
    {
        defineTags(R"({"name": "A", "type": "INT", "value": 4369})");
        declareIndexed("A");
        for (const int station : {1, 2}) {
            RW_VAR request = readOf("A");
            request.stationNo = station;
            AddListReadVar(&request);
        }
        // Frames of the two look alike on the wire: the dead one's are those that the test takes.
        isDead = [](const Protocol& sent) { return sent.var.stationNo == 2; };
    }
};

TEST_F(TwoStations, ADeadStationsConnectionSetUpKeepsTheLiveOneWaitingForEverAsIsKnown)
{
    transact(3);
    EXPECT_EQ(shown("A"), kFirst);
    takeRequests();
    transact(50);
    Requests requests = takeRequests();
    EXPECT_EQ(requests.front(), "1 identity");
    EXPECT_EQ(requests.back(), "50 identity");
}

TEST_F(TwoStations, ALiveStationGoesOnWhileTheDeadOneIsDisabled)
{
    transact(3);
    EnCommStation(2, 0);
    setInController("A", "05 00");
    transact(2);
    EXPECT_EQ(shown("A"), "05 00");
    EnCommStation(2, 1);
    transact(2);
    takeRequests();
    transact();
    EXPECT_EQ(takeRequests().back().find("identity") != std::string::npos, true);
}

} // namespace
