// Replies that arrive too late, and one dead station of two: what the driver does when the host
// does not check replies.

#include "scenario_fixture.h"

namespace {

using Requests = std::vector<std::string>;

const char kFirst[] = "11 11";
const char kSecond[] = "22 22";

class LateReplies : public ScenarioTest
{
protected:
    LateReplies()
    {
        defineTags(R"({"name": "A", "type": "INT", "value": 4369},
                 {"name": "B", "type": "INT", "value": 8738})");
        declareIndexed("A");
        declareIndexed("B");
        pollCyclically({{"A", 0, 1}, {"B", 0, 1}});
        transact(4);
        popRequests();
    }
    /// Says whether a tag showed a value of something else during a number of transactions, and
    /// whether both tags are right at the end.
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

// The driver does not compare transaction numbers: the next message is the reply.

TEST_F(LateReplies, AReplyLateBy1RequestCountsAsTheIdentityReplyAsDocumented)
{
    faults(lateBy(1, R"("message": 5)"));
    EXPECT_EQ(shownOver(8), "no foreign value, right at the end");
    EXPECT_EQ(popRequests(), (Requests{"4 read A x1", "4 read A x1", "4 read A x1", "4 identity",
                                       "5 open", "6 read B x1", "7 read A x1", "8 read B x1"}));
    EXPECT_EQ(wire::unframed(exchanges[7].reply).mid(12, 4), wire::hex("D2 00 00 00"))
        << "a data reply answered the identity request";
}

// The driver accepts the identity reply unchecked; the late reply answers the Forward_Open.
TEST_F(LateReplies, AReplyLateBy2RequestsCountsAsTheForwardOpenReplyAsDocumented)
{
    faults(lateBy(2, R"("message": 5)"));
    transact(5);
    setInController("A", "33 33");
    transact(40);
    EXPECT_EQ(shown("A"), kFirst) << "the last good value, for ever";
    EXPECT_EQ(controller.server().answersByStatus().at(0x01), 40u) << "connection not found";
}

TEST_F(LateReplies, AReplyLateBy5RequestsIsStoredUnderAnotherTagUntilItsNextReadAsDocumented)
{
    faults(lateBy(5, R"("message": 5)"));
    EXPECT_EQ(shownOver(40), "foreign values, right at the end");
}

TEST_F(LateReplies, AReplyThatIsSentAgainInsteadOfTheNextIsStoredUnderAnotherTagAsDocumented)
{
    faults(R"({"fault": "previous", "message": 5})");
    EXPECT_EQ(shownOver(40), "foreign values, right at the end");
}

TEST_F(LateReplies, AControllerThatIsAlwaysOneReplyLateShowsWrongValuesAsDocumented)
{
    faults(lateBy(1, R"("rate": 1)"));
    EXPECT_EQ(shownOver(40), "foreign values, wrong at the end");
}

TEST_F(LateReplies, ASecondCopyShiftsAllLaterRepliesWhenTheHostDoesNotDiscardInputAsDocumented)
{
    emptiesInput = false;
    faults(R"({"fault": "duplicate", "message": 5})");
    EXPECT_EQ(shownOver(1), "no foreign value, right at the end");
    EXPECT_EQ(shownOver(40), "foreign values, wrong at the end");
}

TEST_F(LateReplies, AHostThatComparesTransactionNumbersNeverShowsAReplyUnderAnotherTag)
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

/// Two stations on one port; the second never answers.
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
        // Their frames look alike on the wire; only the driver knows the station.
        isDead = [](const Protocol& sent) { return sent.var.stationNo == 2; };
    }
};

TEST_F(TwoStations, TheSetUpOfADeadStationKeepsTheLiveOneWaitingForEverAsDocumented)
{
    transact(3);
    EXPECT_EQ(shown("A"), kFirst);
    popRequests();
    transact(50);
    Requests requests = popRequests();
    EXPECT_EQ(requests.front(), "1 identity");
    EXPECT_EQ(requests.back(), "50 identity");
}

TEST_F(TwoStations, ALiveStationIsPolledWhileTheDeadOneIsDisabled)
{
    transact(3);
    EnCommStation(2, 0);
    setInController("A", "05 00");
    transact(2);
    EXPECT_EQ(shown("A"), "05 00");
    EnCommStation(2, 1);
    transact(2);
    popRequests();
    transact();
    EXPECT_EQ(popRequests().back().find("identity") != std::string::npos, true);
}

} // namespace
