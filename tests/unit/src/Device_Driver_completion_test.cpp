// What the receive dispatcher does when a request is answered or has failed, and in what order.

#include "dispatcher_fixture.h"

using wire::hex;

namespace {

class Completion : public DispatcherTest
{
};

// ---- Success -----------------------------------------------------------------------------------

TEST_F(Completion, OfARequestThatFailedBeforeIsTheOneOfAGoodOne)
{
    flyUnanswerable(numbered(writeOf("T", "x"), 5, 6), kWrite);
    EXPECT_EQ(timeOut(), 0);
    EXPECT_TRUE(PLC_driver.errorFlag);
    refreshed.clear();
    PLC_driver.sendQueue.first().replyLength = kGood.size();
    EXPECT_EQ(give(kGood), 1);
    EXPECT_FALSE(PLC_driver.errorFlag);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0], (Finished{9, 5, 6, 1}));
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(refreshed.empty());
}

TEST_F(Completion, CountsTowardsTheCycleForAWriteToo)
{
    PLC_driver.readList.append(readOf("A"));
    PLC_driver.readList.append(readOf("B"));
    fly(writeOf("T", "x"), kWrite);
    answer(wire::writeReply(0x21));
    EXPECT_EQ(PLC_driver.readCycleCount, 1);
    fly(readOf("T"), kOneShotRead);
    answer(kGood);
    EXPECT_EQ(PLC_driver.readCycleCount, 2);
}

TEST_F(Completion, OfAWriteEndsACycleOfNoReads)
{
    fly(writeOf("T", "x"), kWrite);
    answer(wire::writeReply(0x21));
    EXPECT_EQ(settings.passComplete, 1);
    EXPECT_EQ(PLC_driver.readCycleCount, 0);
}

TEST_F(Completion, CountsTowardsTheCycleBehindTheLastFrameOnly)
{
    PLC_driver.readList.append(readOf("A"));
    fly(writeOf("T", "x"), kWrite);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    answer(wire::writeReply(0x21));
    EXPECT_EQ(PLC_driver.readCycleCount, 0);
    answer(wire::writeReply(0x22));
    EXPECT_EQ(PLC_driver.readCycleCount, 1);
}

TEST_F(Completion, ComesWithAnyFrameBehindTheAnnouncedOnes)
{
    for (int announced : {0, 1, -1}) {
        finished.clear();
        fly(writeOf("T", "x"), kWrite);
        settings.frameCount = announced;
        settings.framesAnswered = 1;
        EXPECT_EQ(answer(wire::writeReply(0x21)), 1);
        EXPECT_EQ(finished.size(), 1u) << announced;
        EXPECT_TRUE(PLC_driver.writeList.isEmpty()) << announced;
    }
}

TEST_F(Completion, OfARemoteRequestTakesATransactionNumberToo)
{
    RW_VAR request = readOf("T");
    request.linkId = 0;
    fly(request, kCyclicRead);
    EXPECT_EQ(answer(kGood), 100);
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 0x22);
    EXPECT_EQ(settings.framesAnswered, 1);
}

TEST_F(Completion, OfARemoteRequestsFirstFrameHasItsCodeToo)
{
    RW_VAR request = readOf("T");
    request.linkId = 0;
    fly(request, kCyclicRead);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    EXPECT_EQ(answer(kGood), 100);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
}

TEST_F(Completion, TellsTheChannelOfTheSettings)
{
    settings.callbackChannel = 31;
    fly(numbered(writeOf("T", "x"), 5, 6), kWrite);
    answer(wire::writeReply(0x21));
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0], (Finished{31, 5, 6, 1}));
}

TEST_F(Completion, TakesTheLocalLinkFromTheSettings)
{
    settings.localLink = 0;
    RW_VAR request = readOf("T");
    request.linkId = 0;
    fly(request, kCyclicRead);
    EXPECT_EQ(answer(kGood), 1);
    EXPECT_TRUE(PLCDataStorage[1].tagData.contains("T"));
    PLC_driver.readList.clear();
    request.linkId = 7;
    fly(request, kCyclicRead);
    EXPECT_EQ(answer(kGood), 100);
}

int queuedWrites;
QString resultThen;
int codeThen;

TEST_F(Completion, TellsTheHostBeforeTheRequestLeavesItsList)
{
    queuedWrites = -1;
    PLC_driver.finishCallback = [](int, int, int, int) {
        queuedWrites = PLC_driver.writeList.size();
        resultThen = PLC_driver.result.tagName;
    };
    PLC_driver.result.tagName = "before";
    fly(writeOf("T", "x"), kWrite);
    answer(wire::writeReply(0x21));
    EXPECT_EQ(queuedWrites, 1);
    EXPECT_EQ(resultThen, QString("before"));
    EXPECT_EQ(PLC_driver.result.tagName, QString("T"));
}

int counterThen, passCompleteThen, framesAnsweredThen;
bool nothingInFlightThen;

TEST_F(Completion, TellsTheHostBehindFrameCounterAndCycle)
{
    counterThen = passCompleteThen = framesAnsweredThen = -1;
    nothingInFlightThen = false;
    PLC_driver.finishCallback = [](int, int, int, int) {
        counterThen = PLCDataStorage[1].transactionCounter;
        passCompleteThen = PLC_driver.comInfo->passComplete;
        framesAnsweredThen = PLC_driver.comInfo->framesAnswered;
        nothingInFlightThen = PLC_driver.sendQueue.isEmpty();
    };
    fly(writeOf("T", "x"), kWrite);
    answer(wire::writeReply(0x21));
    EXPECT_EQ(counterThen, 0x22);
    EXPECT_EQ(passCompleteThen, 1) << "a cycle of no reads is complete";
    EXPECT_EQ(framesAnsweredThen, 1);
    EXPECT_TRUE(nothingInFlightThen);
}

TEST_F(Completion, NeedsAFrameInFlight)
{
    PLC_driver.errorFlag = true;
    PLC_driver.result.data = "x";
    settings.failureCount = 1;
    PLC_driver.writeList.append(writeOf("T", "x"));
    EXPECT_EQ(give(kGood), 1);
    EXPECT_TRUE(PLC_driver.errorFlag);
    EXPECT_EQ(PLC_driver.result.data, QByteArray("x"));
    EXPECT_EQ(settings.failureCount, 1);
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_TRUE(finished.empty());
}

// ---- Failure -----------------------------------------------------------------------------------

class Failure : public DispatcherTest
{
};

TEST_F(Failure, LeavesTheCountOfAnsweredFramesAlone)
{
    flyUnanswerable(writeOf("T", "x"), kWrite);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    EXPECT_EQ(timeOut(), 0);
    EXPECT_EQ(settings.framesAnswered, 0);
    for (int frame = 1; frame <= 2; ++frame) {
        EXPECT_TRUE(finished.empty());
        PLC_driver.sendQueue.first().replyLength = kGood.size();
        EXPECT_EQ(give(kGood), 1);
        EXPECT_EQ(settings.framesAnswered, frame);
    }
    EXPECT_EQ(finished.size(), 1u);
}

TEST_F(Failure, DropsEveryFrameOfTheRequest)
{
    fly(readOf("T"), kCyclicRead);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    failForGood();
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
}

bool queueEmptyThen, connectedThen;

TEST_F(Failure, DropsFramesAndConnectionBeforeItTellsTheHost)
{
    queueEmptyThen = false;
    connectedThen = true;
    PLC_driver.finishCallback = [](int, int, int, int) {
        queueEmptyThen = PLC_driver.sendQueue.isEmpty();
        connectedThen = getHandshakeInformation(1);
    };
    fly(writeOf("T", "x"), kWrite);
    failForGood();
    EXPECT_TRUE(queueEmptyThen);
    EXPECT_FALSE(connectedThen);
}

TEST_F(Failure, OfACyclicReadRotatesItWithoutAWord)
{
    PLC_driver.readList.append(numbered(readOf("A"), 1, 1));
    PLC_driver.readList.append(numbered(readOf("B"), 2, 2));
    ComCommunication();
    EXPECT_EQ(failForGood(), 42);
    EXPECT_EQ(order(PLC_driver.readList), QString("BA"));
    EXPECT_EQ(PLC_driver.result.tagName, QString("A"));
    EXPECT_TRUE(finished.empty());
    ASSERT_EQ(refreshed.size(), 1u);
    EXPECT_EQ(refreshed[0].varType, 1);
    EXPECT_EQ(refreshed[0].flag, 1);
}

TEST_F(Failure, OfACyclicReadDropsWhatIsQueuedLikeAnyOther)
{
    for (int multiStation : {0, 1}) {
        settings.multiStation = multiStation;
        PLC_driver.readList.clear();
        connectStation(1, kId, 0x21);
        fly(numbered(readOf("R"), 5, 6), kCyclicRead);
        PLC_driver.writeList.append(numbered(writeOf("a", "x"), 1, 1, 1));
        PLC_driver.writeList.append(numbered(writeOf("b", "x"), 1, 1, 2));
        PLC_driver.onceReadList.append(numbered(readOf("c"), 5, 6));
        failForGood();
        EXPECT_EQ(order(PLC_driver.writeList), QString(multiStation ? "b" : ""));
        EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
        EXPECT_TRUE(finished.empty());
        PLC_driver.writeList.clear();
    }
}

TEST_F(Failure, OfNoListsRequestIsFollowedUpForTheLastResult)
{
    fly(readOf("T"), kCyclicRead);
    PLC_driver.currentList = kNoListYet;
    PLC_driver.result.varType = 8;
    PLC_driver.result.varIndex = 4;
    PLC_driver.result.stationNo = 1;
    PLC_driver.onceReadList.append(numbered(readOf("a"), 8, 4));
    PLC_driver.onceReadList.append(numbered(readOf("b"), 8, 5));
    failForGood();
    ASSERT_EQ(refreshed.size(), 1u);
    EXPECT_EQ(refreshed[0].varType, 8);
    EXPECT_EQ(PLC_driver.result.varIndex, 4);
    EXPECT_EQ(order(PLC_driver.onceReadList), QString("b"));
    EXPECT_EQ(order(PLC_driver.readList), QString("T"));
}

int oneShotsThen, writesThen;
bool listHeldThen;

TEST_F(Failure, TellsTheHostToRefreshUnderTheListLockBeforeAnythingIsDropped)
{
    settings.multiStation = 0;
    oneShotsThen = writesThen = codeThen = -1;
    listHeldThen = false;
    PLC_driver.refreshCallback = [](QList<RW_VAR>*, int, int) {
        oneShotsThen = PLC_driver.onceReadList.size();
        writesThen = PLC_driver.writeList.size();
        codeThen = PLC_driver.result.retValue;
        listHeldThen = !PLC_driver.listMutex.tryLock();
    };
    RW_VAR request = numbered(readOf("T"), 5, 6);
    request.retValue = 88;
    fly(request, kOneShotRead);
    PLC_driver.onceReadList.append(numbered(readOf("a"), 5, 6));
    PLC_driver.writeList.append(writeOf("b", "x"));
    EXPECT_EQ(failForGood(), 46);
    EXPECT_EQ(oneShotsThen, 1);
    EXPECT_EQ(writesThen, 1);
    EXPECT_EQ(codeThen, 88) << "the request's own, until all is done";
    EXPECT_TRUE(listHeldThen);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(Failure, HandsTheHostAFreshListEachTime)
{
    settings.retryLimit = 0;
    static std::vector<int> sizes;
    sizes.clear();
    PLC_driver.refreshCallback = [](QList<RW_VAR>* list, int, int) {
        sizes.push_back(list->size());
        list->append(RW_VAR());
    };
    for (int i = 0; i < 2; ++i) {
        connectStation(1, kId, 0x21);
        flyUnanswerable(readOf("T"), kCyclicRead);
        timeOut();
    }
    EXPECT_EQ(sizes, (std::vector<int>{0, 0})) << "what a host adds is thrown away";
    EXPECT_EQ(PLC_driver.readList.size(), 2);
}

TEST_F(Failure, SendsTheSameFrameAgainWithinTheLimit)
{
    Protocol* head = flyUnanswerable(readOf("T"), kCyclicRead);
    const QByteArray frame = head->frame;
    const int length = head->sendLength;
    for (int i = 0; i < settings.retryLimit; ++i) {
        timeOut();
        ASSERT_EQ(ComCommunication(), head);
        EXPECT_BYTES(head->frame, frame);
        EXPECT_EQ(head->sendLength, length);
        EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
    }
}

TEST_F(Failure, KeepsOtherStationsInAnyMultiStationMode)
{
    for (int mode : {2, -1}) {
        settings.multiStation = mode;
        connectStation(1, kId, 0x21);
        fly(numbered(readOf("X"), 5, 6), kOneShotRead);
        PLC_driver.onceReadList.append(numbered(readOf("a"), 5, 6, 2));
        PLC_driver.writeList.append(numbered(writeOf("b", "x"), 1, 1, 2));
        failForGood();
        EXPECT_EQ(order(PLC_driver.onceReadList), QString("a"));
        EXPECT_EQ(order(PLC_driver.writeList), QString("b"));
        PLC_driver.onceReadList.clear();
        PLC_driver.writeList.clear();
    }
}

TEST_F(Failure, OfAReadThatWasToLearnAClassDropsTheWriteWithoutACompletion)
{
    settings.multiStation = 0;
    PLC_driver.writeList.append(writeOf("New", hex("01 02")));
    ComCommunication();
    EXPECT_EQ(failForGood(), 44);
    EXPECT_TRUE(finished.empty());
    EXPECT_EQ(refreshed.size(), 1u);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(Failure, HasTheCodeOfItsLinkAndCause)
{
    settings.retryLimit = 0;
    for (const auto& [local, codes] : {std::make_pair(true, std::vector<int>{44, 74, 14}),
                                       std::make_pair(false, std::vector<int>{144, 174, 114})})
    {
        for (std::size_t cause = 0; cause < codes.size(); ++cause) {
            connectStation(1, kId, 0x21);
            PLC_driver.readList.clear();
            RW_VAR request = readOf("T");
            request.linkId = local ? settings.localLink : settings.localLink + 1;
            Protocol* head = flyUnanswerable(request, kCyclicRead);
            if (cause == 2) {
                head->replyLength = kGood.size();
                head->var.accessMode = 2;
            }
            EXPECT_EQ(cause == 0 ? timeOut() : give(kGood), codes[cause]);
        }
    }
}

TEST_F(Failure, LeavesTheLocksFreeWithinTheLimitAndBeyond)
{
    flyUnanswerable(readOf("T"), kCyclicRead);
    for (int i = 0; i <= settings.retryLimit; ++i) {
        timeOut();
        EXPECT_TRUE(locksAreFree()) << i;
    }
}

// ---- Replies of varying length -----------------------------------------------------------------

class Judging : public DispatcherTest
{
protected:
    /// Judgements of the reply to a read in flight until it is given up.
    int judgementsUntilGivenUp()
    {
        for (int i = 1; i < 30; ++i) {
            if (give(kBad) == 1)
                return i;
        }
        return -1;
    }
    void awaitConnectionOf(int station)
    {
        PLC_driver.sendQueue.clear();
        HandshakeFunction(station);
        give(wire::identityReply(1));
    }
    void flyRead()
    {
        PLC_driver.sendQueue.clear();
        PLC_driver.readList.clear();
        fly(readOf("T"), kCyclicRead);
    }
};

TEST_F(Judging, IsNoFailureUntilTheWrongLengthIsOne)
{
    flyRead();
    PLC_driver.readCycleCount = 4;
    settings.passComplete = 1;
    EXPECT_EQ(judgementsUntilGivenUp(), 11);
    EXPECT_FALSE(PLC_driver.errorFlag);
    EXPECT_EQ(settings.failureCount, 0);
    EXPECT_EQ(PLC_driver.readCycleCount, 4);
    EXPECT_EQ(settings.passComplete, 1);
    EXPECT_TRUE(refreshed.empty());
}

TEST_F(Judging, SharesItsCountWithTheResendsOfAConnectionRequest)
{
    awaitConnectionOf(2);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(timeOut(), 201);
    flyRead();
    EXPECT_EQ(judgementsUntilGivenUp(), 8);
}

TEST_F(Judging, BeginsAtZeroBehindAConnectionRequestThatWasGivenUp)
{
    awaitConnectionOf(2);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(timeOut(), 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    flyRead();
    EXPECT_EQ(judgementsUntilGivenUp(), 11);
}

TEST_F(Judging, BeginsAtZeroBehindEachGoodReplyOfASetUp)
{
    const auto judgeFiveTimes = [this] {
        flyRead();
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(give(kBad), 0);
    };
    judgeFiveTimes();
    awaitConnectionOf(2);
    flyRead();
    EXPECT_EQ(judgementsUntilGivenUp(), 11) << "behind the identity reply";

    awaitConnectionOf(3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(timeOut(), 201);
    EXPECT_EQ(give(wire::forwardOpenReply(5, kId)), 1);
    EXPECT_TRUE(getHandshakeInformation(3));
    flyRead();
    EXPECT_EQ(judgementsUntilGivenUp(), 11) << "behind the connection reply";
}

TEST_F(Judging, IsNotCountedByAnIdentityRequestWithoutAnswer)
{
    flyRead();
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(give(kBad), 0);
    PLC_driver.sendQueue.clear();
    HandshakeFunction(2);
    EXPECT_EQ(timeOut(), 201);
    flyRead();
    EXPECT_EQ(judgementsUntilGivenUp(), 6);
}

} // namespace
