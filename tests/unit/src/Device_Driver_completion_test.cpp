// What the receive dispatcher does after a request is answered or has failed, and in which order.

#include "dispatcher_fixture.h"

using wire::hex;

namespace {

class Completion : public DispatcherTest
{
};

// ---- Success -----------------------------------------------------------------------------------

TEST_F(Completion, AfterAResendReportsSuccessAndClearsTheErrorFlag)
{
    sendUnanswerable(ofVariable(writeOf("T", "x"), 5, 6), kWrite);
    EXPECT_EQ(timeOut(), 0);
    EXPECT_TRUE(PLC_driver.errorFlag);
    refreshed.clear();
    PLC_driver.sendQueue.first().replyLength = kGood.size();
    EXPECT_EQ(deliver(kGood), 1);
    EXPECT_FALSE(PLC_driver.errorFlag);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0], (Finished{9, 5, 6, 1}));
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(refreshed.empty());
}

TEST_F(Completion, CountsWritesAndOneShotReadsTowardsTheCycle)
{
    PLC_driver.readList.append(readOf("A"));
    PLC_driver.readList.append(readOf("B"));
    send(writeOf("T", "x"), kWrite);
    answer(wire::writeReply(0x21));
    EXPECT_EQ(PLC_driver.readCycleCount, 1);
    send(readOf("T"), kOneShotRead);
    answer(kGood);
    EXPECT_EQ(PLC_driver.readCycleCount, 2);
}

TEST_F(Completion, EndsTheCycleAfterAWriteWhenThereAreNoCyclicReads)
{
    send(writeOf("T", "x"), kWrite);
    answer(wire::writeReply(0x21));
    EXPECT_EQ(settings.passComplete, 1);
    EXPECT_EQ(PLC_driver.readCycleCount, 0);
}

TEST_F(Completion, CountsTowardsTheCycleOnlyAfterTheLastFrame)
{
    PLC_driver.readList.append(readOf("A"));
    send(writeOf("T", "x"), kWrite);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    answer(wire::writeReply(0x21));
    EXPECT_EQ(PLC_driver.readCycleCount, 0);
    answer(wire::writeReply(0x22));
    EXPECT_EQ(PLC_driver.readCycleCount, 1);
}

TEST_F(Completion, HappensWhenMoreFramesAreAnsweredThanAnnounced)
{
    for (int announced : {0, 1, -1}) {
        finished.clear();
        send(writeOf("T", "x"), kWrite);
        settings.frameCount = announced;
        settings.framesAnswered = 1;
        EXPECT_EQ(answer(wire::writeReply(0x21)), 1);
        EXPECT_EQ(finished.size(), 1u) << announced;
        EXPECT_TRUE(PLC_driver.writeList.isEmpty()) << announced;
    }
}

TEST_F(Completion, AdvancesTheTransactionCounterForARemoteRequestToo)
{
    RW_VAR request = readOf("T");
    request.linkId = 0;
    send(request, kCyclicRead);
    EXPECT_EQ(answer(kGood), 100);
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 0x22);
    EXPECT_EQ(settings.framesAnswered, 1);
}

TEST_F(Completion, ReturnsTheRemoteCodeForTheFirstOfTwoFrames)
{
    RW_VAR request = readOf("T");
    request.linkId = 0;
    send(request, kCyclicRead);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    EXPECT_EQ(answer(kGood), 100);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
}

TEST_F(Completion, ReportsTheCallbackChannelOfTheSettings)
{
    settings.callbackChannel = 31;
    send(ofVariable(writeOf("T", "x"), 5, 6), kWrite);
    answer(wire::writeReply(0x21));
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0], (Finished{31, 5, 6, 1}));
}

TEST_F(Completion, ReadsTheLocalLinkFromTheSettings)
{
    settings.localLink = 0;
    RW_VAR request = readOf("T");
    request.linkId = 0;
    send(request, kCyclicRead);
    EXPECT_EQ(answer(kGood), 1);
    EXPECT_TRUE(PLCDataStorage[1].tagData.contains("T"));
    PLC_driver.readList.clear();
    request.linkId = 7;
    send(request, kCyclicRead);
    EXPECT_EQ(answer(kGood), 100);
}

int queuedWrites;
QString resultThen;
int codeThen;

TEST_F(Completion, CallsTheHostBeforeTheRequestLeavesItsList)
{
    queuedWrites = -1;
    PLC_driver.finishCallback = [](int, int, int, int) {
        queuedWrites = PLC_driver.writeList.size();
        resultThen = PLC_driver.result.tagName;
    };
    PLC_driver.result.tagName = "before";
    send(writeOf("T", "x"), kWrite);
    answer(wire::writeReply(0x21));
    EXPECT_EQ(queuedWrites, 1);
    EXPECT_EQ(resultThen, QString("before"));
    EXPECT_EQ(PLC_driver.result.tagName, QString("T"));
}

int counterThen, passCompleteThen, framesAnsweredThen;
bool nothingInFlightThen;

TEST_F(Completion, CallsTheHostAfterUpdatingQueueCounterAndCycle)
{
    counterThen = passCompleteThen = framesAnsweredThen = -1;
    nothingInFlightThen = false;
    PLC_driver.finishCallback = [](int, int, int, int) {
        counterThen = PLCDataStorage[1].transactionCounter;
        passCompleteThen = PLC_driver.comInfo->passComplete;
        framesAnsweredThen = PLC_driver.comInfo->framesAnswered;
        nothingInFlightThen = PLC_driver.sendQueue.isEmpty();
    };
    send(writeOf("T", "x"), kWrite);
    answer(wire::writeReply(0x21));
    EXPECT_EQ(counterThen, 0x22);
    EXPECT_EQ(passCompleteThen, 1) << "a cycle without reads is complete";
    EXPECT_EQ(framesAnsweredThen, 1);
    EXPECT_TRUE(nothingInFlightThen);
}

TEST_F(Completion, ChangesNothingWithoutAFrameInFlight)
{
    PLC_driver.errorFlag = true;
    PLC_driver.result.data = "x";
    settings.failureCount = 1;
    PLC_driver.writeList.append(writeOf("T", "x"));
    EXPECT_EQ(deliver(kGood), 1);
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

TEST_F(Failure, DoesNotChangeTheCountOfAnsweredFrames)
{
    sendUnanswerable(writeOf("T", "x"), kWrite);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    EXPECT_EQ(timeOut(), 0);
    EXPECT_EQ(settings.framesAnswered, 0);
    for (int frame = 1; frame <= 2; ++frame) {
        EXPECT_TRUE(finished.empty());
        PLC_driver.sendQueue.first().replyLength = kGood.size();
        EXPECT_EQ(deliver(kGood), 1);
        EXPECT_EQ(settings.framesAnswered, frame);
    }
    EXPECT_EQ(finished.size(), 1u);
}

TEST_F(Failure, DropsEveryFrameOfTheRequest)
{
    send(readOf("T"), kCyclicRead);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    failBeyondTheLimit();
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
}

bool queueEmptyThen, connectedThen;

TEST_F(Failure, DropsFramesAndConnectionBeforeItCallsTheHost)
{
    queueEmptyThen = false;
    connectedThen = true;
    PLC_driver.finishCallback = [](int, int, int, int) {
        queueEmptyThen = PLC_driver.sendQueue.isEmpty();
        connectedThen = getHandshakeInformation(1);
    };
    send(writeOf("T", "x"), kWrite);
    failBeyondTheLimit();
    EXPECT_TRUE(queueEmptyThen);
    EXPECT_FALSE(connectedThen);
}

TEST_F(Failure, RotatesACyclicReadWithoutTheFinishCallback)
{
    PLC_driver.readList.append(ofVariable(readOf("A"), 1, 1));
    PLC_driver.readList.append(ofVariable(readOf("B"), 2, 2));
    ComCommunication();
    EXPECT_EQ(failBeyondTheLimit(), 42);
    EXPECT_EQ(tagsOf(PLC_driver.readList), QString("BA"));
    EXPECT_EQ(PLC_driver.result.tagName, QString("A"));
    EXPECT_TRUE(finished.empty());
    ASSERT_EQ(refreshed.size(), 1u);
    EXPECT_EQ(refreshed[0].varType, 1);
    EXPECT_EQ(refreshed[0].flag, 1);
}

TEST_F(Failure, DropsQueuedRequestsAfterACyclicReadToo)
{
    for (int multiStation : {0, 1}) {
        settings.multiStation = multiStation;
        PLC_driver.readList.clear();
        connectStation(1, kId, 0x21);
        send(ofVariable(readOf("R"), 5, 6), kCyclicRead);
        PLC_driver.writeList.append(ofVariable(writeOf("a", "x"), 1, 1, 1));
        PLC_driver.writeList.append(ofVariable(writeOf("b", "x"), 1, 1, 2));
        PLC_driver.onceReadList.append(ofVariable(readOf("c"), 5, 6));
        failBeyondTheLimit();
        EXPECT_EQ(tagsOf(PLC_driver.writeList), QString(multiStation ? "b" : ""));
        EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
        EXPECT_TRUE(finished.empty());
        PLC_driver.writeList.clear();
    }
}

TEST_F(Failure, UsesTheLastResultWhenTheRequestBelongsToNoList)
{
    send(readOf("T"), kCyclicRead);
    PLC_driver.currentList = kNoListYet;
    PLC_driver.result.varType = 8;
    PLC_driver.result.varIndex = 4;
    PLC_driver.result.stationNo = 1;
    PLC_driver.onceReadList.append(ofVariable(readOf("a"), 8, 4));
    PLC_driver.onceReadList.append(ofVariable(readOf("b"), 8, 5));
    failBeyondTheLimit();
    ASSERT_EQ(refreshed.size(), 1u);
    EXPECT_EQ(refreshed[0].varType, 8);
    EXPECT_EQ(PLC_driver.result.varIndex, 4);
    EXPECT_EQ(tagsOf(PLC_driver.onceReadList), QString("b"));
    EXPECT_EQ(tagsOf(PLC_driver.readList), QString("T"));
}

int oneShotsThen, writesThen;
bool listHeldThen;

TEST_F(Failure, CallsTheRefreshCallbackUnderTheListLockBeforeItDropsAnything)
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
    RW_VAR request = ofVariable(readOf("T"), 5, 6);
    request.retValue = 88;
    send(request, kOneShotRead);
    PLC_driver.onceReadList.append(ofVariable(readOf("a"), 5, 6));
    PLC_driver.writeList.append(writeOf("b", "x"));
    EXPECT_EQ(failBeyondTheLimit(), 46);
    EXPECT_EQ(oneShotsThen, 1);
    EXPECT_EQ(writesThen, 1);
    EXPECT_EQ(codeThen, 88) << "still the request's own code";
    EXPECT_TRUE(listHeldThen);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(Failure, PassesAnEmptyListToEachRefreshCallback)
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
        sendUnanswerable(readOf("T"), kCyclicRead);
        timeOut();
    }
    EXPECT_EQ(sizes, (std::vector<int>{0, 0})) << "records that a host adds are discarded";
    EXPECT_EQ(PLC_driver.readList.size(), 2);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_TRUE(PLC_driver.spareList.isEmpty());
}

TEST_F(Failure, ResendsTheSameFrameWithinTheRetryLimit)
{
    Protocol* head = sendUnanswerable(readOf("T"), kCyclicRead);
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

TEST_F(Failure, KeepsRequestsOfOtherStationsInEveryMultiStationMode)
{
    for (int mode : {2, -1}) {
        settings.multiStation = mode;
        connectStation(1, kId, 0x21);
        send(ofVariable(readOf("X"), 5, 6), kOneShotRead);
        PLC_driver.onceReadList.append(ofVariable(readOf("a"), 5, 6, 2));
        PLC_driver.writeList.append(ofVariable(writeOf("b", "x"), 1, 1, 2));
        failBeyondTheLimit();
        EXPECT_EQ(tagsOf(PLC_driver.onceReadList), QString("a"));
        EXPECT_EQ(tagsOf(PLC_driver.writeList), QString("b"));
        PLC_driver.onceReadList.clear();
        PLC_driver.writeList.clear();
    }
}

TEST_F(Failure, DropsTheWriteSilentlyWhenTheReadOfItsClassFails)
{
    settings.multiStation = 0;
    PLC_driver.writeList.append(writeOf("New", hex("01 02")));
    ComCommunication();
    EXPECT_EQ(failBeyondTheLimit(), 44);
    EXPECT_TRUE(finished.empty());
    EXPECT_EQ(refreshed.size(), 1u);
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
}

TEST_F(Failure, ReturnsTheCodeOfItsLinkAndCause)
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
            Protocol* head = sendUnanswerable(request, kCyclicRead);
            if (cause == 2) {
                head->replyLength = kGood.size();
                head->var.accessMode = 2;
            }
            EXPECT_EQ(cause == 0 ? timeOut() : deliver(kGood), codes[cause]);
        }
    }
}

TEST_F(Failure, ReleasesTheLocksWithinTheRetryLimitAndBeyond)
{
    sendUnanswerable(readOf("T"), kCyclicRead);
    for (int i = 0; i <= settings.retryLimit; ++i) {
        timeOut();
        EXPECT_TRUE(locksAreFree()) << i;
    }
}

// ---- Attempts at a reply of varying length
// -----------------------------------------------------------------

class AttemptCount : public DispatcherTest
{
protected:
    /// How many incomplete replies to the read in flight the driver checks before it gives up.
    int checksUntilGivenUp()
    {
        for (int i = 1; i < 30; ++i) {
            if (deliver(kBad) == 1)
                return i;
        }
        return -1;
    }
    void awaitConnectionOf(int station)
    {
        PLC_driver.sendQueue.clear();
        HandshakeFunction(station);
        deliver(wire::identityReply(1));
    }
    void sendRead()
    {
        PLC_driver.sendQueue.clear();
        PLC_driver.readList.clear();
        send(readOf("T"), kCyclicRead);
    }
};

TEST_F(AttemptCount, CausesNoFailureWhenItsLimitIsReached)
{
    sendRead();
    PLC_driver.readCycleCount = 4;
    settings.passComplete = 1;
    EXPECT_EQ(checksUntilGivenUp(), 11);
    EXPECT_FALSE(PLC_driver.errorFlag);
    EXPECT_EQ(settings.failureCount, 0);
    EXPECT_EQ(PLC_driver.readCycleCount, 4);
    EXPECT_EQ(settings.passComplete, 1);
    EXPECT_TRUE(refreshed.empty());
}

TEST_F(AttemptCount, IsSharedWithTheResendsOfAConnectionRequest)
{
    awaitConnectionOf(2);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(timeOut(), 201);
    sendRead();
    EXPECT_EQ(checksUntilGivenUp(), 8);
}

TEST_F(AttemptCount, StartsAtZeroAfterAConnectionRequestIsGivenUp)
{
    awaitConnectionOf(2);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(timeOut(), 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    sendRead();
    EXPECT_EQ(checksUntilGivenUp(), 11);
}

TEST_F(AttemptCount, StartsAtZeroAfterEachGoodReplyOfAConnectionSetUp)
{
    const auto checkFiveTimes = [this] {
        sendRead();
        for (int i = 0; i < 5; ++i)
            EXPECT_EQ(deliver(kBad), 0);
    };
    checkFiveTimes();
    awaitConnectionOf(2);
    sendRead();
    EXPECT_EQ(checksUntilGivenUp(), 11) << "after the identity reply";

    awaitConnectionOf(3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(timeOut(), 201);
    EXPECT_EQ(deliver(wire::forwardOpenReply(5, kId)), 1);
    EXPECT_TRUE(getHandshakeInformation(3));
    sendRead();
    EXPECT_EQ(checksUntilGivenUp(), 11) << "after the connection reply";
}

TEST_F(AttemptCount, IgnoresAnUnansweredIdentityRequest)
{
    sendRead();
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(deliver(kBad), 0);
    PLC_driver.sendQueue.clear();
    HandshakeFunction(2);
    EXPECT_EQ(timeOut(), 201);
    sendRead();
    EXPECT_EQ(checksUntilGivenUp(), 6);
}

} // namespace
