#include "dispatcher_fixture.h"

using wire::hex;

namespace {

class Dispatcher : public DispatcherTest
{
};

// ---- Nothing in flight, and the two calls for a reply of varying length -------------------------

TEST_F(Dispatcher, ReturnsOneWhenNothingIsInFlight)
{
    PLC_driver.result.tagName = "before";
    PLC_driver.result.retValue = 55;
    QByteArray reply = kGood;
    RW_VAR* result = DataCom(&reply, reply.size());
    EXPECT_EQ(result, &PLC_driver.result);
    EXPECT_EQ(result->retValue, 1);
    EXPECT_EQ(result->tagName, QString("before"));
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 0x21);
    EXPECT_EQ(DataCom(nullptr, 5)->retValue, 1);
}

TEST_F(Dispatcher, ChecksAReplyOfVaryingLengthAndStoresItInTheNextCall)
{
    Protocol* head = send(readOf("T"), kCyclicRead);
    EXPECT_EQ(deliver(kGood), 1);
    EXPECT_EQ(head->replyLength, kGood.size()) << "also in the record that the host holds";
    EXPECT_FALSE(PLCDataStorage[1].tagData.contains("T"));
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
    EXPECT_EQ(deliver(kGood), 1);
    EXPECT_TRUE(PLCDataStorage[1].tagData.contains("T"));
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
}

TEST_F(Dispatcher, UsesTheLengthThatTheHostPassesNotThatOfTheBuffer)
{
    Protocol* head = send(readOf("T"), kCyclicRead);
    QByteArray reply = kGood;
    DataCom(&reply, 17);
    EXPECT_EQ(head->replyLength, 17);
}

TEST_F(Dispatcher, GivesUpAVaryingReplyAfterElevenIncompleteChecks)
{
    Protocol* head = send(readOf("T"), kCyclicRead);
    for (int i = 1; i <= 10; ++i) {
        EXPECT_EQ(deliver(kBad), 0) << i;
        EXPECT_EQ(head->replyLength, -1);
    }
    EXPECT_EQ(deliver(kBad), 1);
    EXPECT_EQ(head->replyLength, 999);
}

TEST_F(Dispatcher, KeepsTheImpossibleLengthForEveryResendOfTheFrame)
{
    Protocol* head = send(readOf("T"), kCyclicRead);
    for (int i = 0; i < 11; ++i)
        deliver(kBad);
    EXPECT_EQ(deliver(kGood), 0) << "a good reply now has the wrong length";
    EXPECT_EQ(ComCommunication(), head);
    EXPECT_EQ(head->replyLength, 999);
    EXPECT_EQ(deliver(kGood), 0);
    EXPECT_EQ(deliver(kGood), 74) << "wrong length, kind 3";
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
}

TEST_F(Dispatcher, RestartsItsAttemptCountAfterACompleteReply)
{
    Protocol* head = send(readOf("T"), kCyclicRead);
    for (int i = 0; i < 10; ++i)
        deliver(kBad);
    deliver(kGood);
    head->replyLength = -1;
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(deliver(kBad), 0);
    EXPECT_EQ(deliver(kBad), 1);
}

TEST_F(Dispatcher, RestartsItsAttemptCountAfterGivingUp)
{
    Protocol* head = send(readOf("T"), kCyclicRead);
    for (int i = 0; i < 11; ++i)
        deliver(kBad);
    head->replyLength = -1;
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(deliver(kBad), 0);
    EXPECT_EQ(deliver(kBad), 1);
}

TEST_F(Dispatcher, CountsANullReplyAsIncomplete)
{
    send(readOf("T"), kCyclicRead);
    EXPECT_EQ(DataCom(nullptr, 40)->retValue, 0);
}

TEST_F(Dispatcher, CountsANullReplyToAWriteAsNoReplyWhateverItsLength)
{
    settings.retryLimit = 1000;
    Protocol* head = send(writeOf("T", hex("01 02")), kWrite);
    const QByteArray good = wire::writeReply(0x21);
    int failures = 0;
    for (const int expected : {good.size(), 999, 1, 0}) {
        for (const int length : {good.size(), 999, 1, 0, -1}) {
            head->replyLength = expected;
            EXPECT_EQ(DataCom(nullptr, length)->retValue, 0) << expected << ' ' << length;
            EXPECT_EQ(settings.failureCount, ++failures);
        }
    }
    EXPECT_TRUE(finished.empty());
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(ComCommunication(), head) << "the write goes out again";
}

TEST_F(Dispatcher, ReportsAWriteFailedThatGetsNullRepliesBeyondTheRetryLimit)
{
    const QByteArray good = wire::writeReply(0x21);
    send(ofVariable(writeOf("T", hex("01 02")), 5, 6), kWrite);
    EXPECT_EQ(deliver(good), 1) << "the bytes are complete";
    for (int i = 0; i < settings.retryLimit; ++i)
        EXPECT_EQ(DataCom(nullptr, good.size())->retValue, 0);
    EXPECT_EQ(DataCom(nullptr, good.size())->retValue, 46) << "no reply, kind 5";
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0], (Finished{9, 5, 6, 2}));
}

// ---- Success ------------------------------------------------------------------------------------

TEST_F(Dispatcher, RotatesAFinishedCyclicReadWithoutACallback)
{
    PLC_driver.readList.append(ofVariable(readOf("A"), 1, 1));
    PLC_driver.readList.append(ofVariable(readOf("B"), 2, 2));
    PLC_driver.readList.first().data = "stale";
    ComCommunication();
    EXPECT_EQ(answer(kGood), 1);
    EXPECT_EQ(tagsOf(PLC_driver.readList), QString("BA"));
    EXPECT_EQ(PLC_driver.result.tagName, QString("A"));
    EXPECT_TRUE(PLC_driver.result.data.isEmpty());
    EXPECT_TRUE(finished.empty());
    EXPECT_TRUE(refreshed.empty());
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 0x22);
    EXPECT_FALSE(PLC_driver.errorFlag);
    EXPECT_EQ(settings.framesAnswered, 1);
}

TEST_F(Dispatcher, ReportsAFinishedWriteWithOneCallback)
{
    RW_VAR request = ofVariable(writeOf("T", hex("01 02")), 5, 6);
    request.retValue = 88;
    send(request, kWrite);
    refreshed.clear();
    EXPECT_EQ(answer(wire::writeReply(0x21)), 1);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0], (Finished{9, 5, 6, 1}));
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(PLC_driver.result.varIndex, 6);
    EXPECT_EQ(PLC_driver.result.retValue, 1) << "the result's code, not the request's own";
    EXPECT_TRUE(refreshed.empty());
    EXPECT_FALSE(PLCDataStorage[1].tagData.contains("T")) << "a write reply is not stored";
}

TEST_F(Dispatcher, ReportsAFinishedOneShotReadWithOneCallback)
{
    send(ofVariable(readOf("T"), 5, 6), kOneShotRead);
    answer(kGood);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0], (Finished{9, 5, 6, 1}));
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
}

TEST_F(Dispatcher, ReportsAVariableOfTwoEntriesOnceAfterTheLast)
{
    for (int list : {int(kWrite), int(kOneShotRead)}) {
        finished.clear();
        const RW_VAR request = list == kWrite ? writeOf("T", hex("01 02")) : readOf("T");
        RW_VAR second = request;
        second.startAddress = 9;
        send(request, list);
        (list == kWrite ? PLC_driver.writeList : PLC_driver.onceReadList).append(second);
        answer(kGood);
        EXPECT_TRUE(finished.empty());
        ComCommunication();
        answer(kGood);
        EXPECT_EQ(finished.size(), 1u);
    }
}

TEST_F(Dispatcher, ReportsAVariableOfManyEntriesOnceAfterTheLast)
{
    const int others = 1000;
    for (int list : {int(kWrite), int(kOneShotRead)}) {
        finished.clear();
        const RW_VAR request = list == kWrite ? writeOf("T", hex("01 02")) : readOf("T");
        send(request, list);
        QList<RW_VAR>& requests = list == kWrite ? PLC_driver.writeList : PLC_driver.onceReadList;
        for (int i = 0; i < others; ++i)
            requests.append(ofVariable(request, 9, i));
        requests.append(request);
        answer(kGood);
        EXPECT_TRUE(finished.empty());
        requests = {requests.last()};
        ComCommunication();
        answer(kGood);
        EXPECT_EQ(finished.size(), 1u);
    }
}

TEST_F(Dispatcher, DropsEveryRequestThatBelongsToAFailure)
{
    const int each = 1000;
    send(ofVariable(readOf("T"), 5, 6), kOneShotRead);
    for (int i = 0; i < each; ++i) {
        PLC_driver.onceReadList.append(ofVariable(readOf("T", i), 5, 6));
        PLC_driver.onceReadList.append(ofVariable(readOf("U", i), 5, 7));
        PLC_driver.writeList.append(writeOf("T", "x", i));
        PLC_driver.writeList.append(ofVariable(writeOf("U", "x", i), 3, 1, 2));
    }
    failBeyondTheLimit();
    EXPECT_EQ(tagsOf(PLC_driver.onceReadList), QString("U").repeated(each));
    EXPECT_EQ(tagsOf(PLC_driver.writeList), QString("U").repeated(each));
}

TEST_F(Dispatcher, ComparesTypeAndIndexOfAVariable)
{
    send(ofVariable(writeOf("T", "x"), 5, 6), kWrite);
    PLC_driver.writeList.append(ofVariable(writeOf("T", "x"), 5, 7));
    PLC_driver.writeList.append(ofVariable(writeOf("T", "x"), 4, 6));
    answer(wire::writeReply(0x21));
    EXPECT_EQ(finished.size(), 1u);
}

TEST_F(Dispatcher, WaitsForAllFramesOfARequest)
{
    send(writeOf("T", "x"), kWrite);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    PLC_driver.result.tagName = "before";
    EXPECT_EQ(answer(wire::writeReply(0x21)), 1);
    EXPECT_TRUE(finished.empty());
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
    EXPECT_EQ(PLC_driver.result.tagName, QString("before"));
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 0x22);
    answer(wire::writeReply(0x22));
    EXPECT_EQ(finished.size(), 1u);
}

TEST_F(Dispatcher, CompletesARequestWhoseListIsEmptyOrUnknown)
{
    for (int list : {int(kCyclicRead), int(kWrite), int(kOneShotRead)}) {
        send(readOf("T"), kCyclicRead);
        PLC_driver.readList.clear();
        PLC_driver.currentList = list;
        EXPECT_EQ(answer(kGood), 1);
    }
    send(readOf("T"), kCyclicRead);
    PLC_driver.currentList = 100;
    answer(kGood);
    EXPECT_EQ(PLC_driver.readList.size(), 1) << "an unknown list is left alone";
    EXPECT_TRUE(finished.empty());
}

TEST_F(Dispatcher, WorksWithoutCallbacks)
{
    RegistCallBackFuncIntf(nullptr, nullptr);
    send(writeOf("T", "x"), kWrite);
    EXPECT_EQ(answer(wire::writeReply(0x21)), 1);
    send(writeOf("T", "x"), kWrite);
    EXPECT_EQ(failBeyondTheLimit(), 44);
}

TEST_F(Dispatcher, RunsItsCallbacksUnderTheListLockAndAllowsThemToReadValues)
{
    confirm("V", 3, 0xC3);
    PLCDataStorage[1].tagData["V"] = hex("01 02");
    static bool held, read;
    held = read = false;
    PLC_driver.finishCallback = [](int, int, int, int) {
        held = !PLC_driver.listMutex.tryLock();
        QByteArray value;
        read = GetRegisterData("V", 0, "0", 1, value, 1) == 1;
    };
    send(writeOf("T", "x"), kWrite);
    answer(wire::writeReply(0x21));
    EXPECT_TRUE(held);
    EXPECT_TRUE(read);
}

TEST_F(Dispatcher, SetsThePassCompleteWordAfterAFullCycle)
{
    PLC_driver.readList.append(readOf("A"));
    PLC_driver.readList.append(readOf("B"));
    for (int i = 1; i <= 2; ++i) {
        ComCommunication();
        answer(kGood);
        EXPECT_EQ(PLC_driver.readCycleCount, i);
        EXPECT_EQ(settings.passComplete, 0);
    }
    ComCommunication();
    answer(kGood);
    EXPECT_EQ(settings.passComplete, 1) << "the count exceeds the list's size";
    EXPECT_EQ(PLC_driver.readCycleCount, 0);
    ComCommunication();
    answer(kGood);
    EXPECT_EQ(PLC_driver.readCycleCount, 0) << "it counts again once the word is cleared";
}

// ---- Failure ------------------------------------------------------------------------------------

TEST_F(Dispatcher, KeepsAFailedFrameWithinTheRetryLimitAndDropsItBeyond)
{
    Protocol* head = send(readOf("T"), kCyclicRead);
    head->replyLength = 50;
    PLC_driver.readCycleCount = 4;
    settings.passComplete = 1;
    EXPECT_EQ(timeOut(), 0);
    EXPECT_TRUE(PLC_driver.errorFlag);
    EXPECT_EQ(PLC_driver.readCycleCount, 0);
    EXPECT_EQ(settings.passComplete, 0);
    EXPECT_EQ(settings.failureCount, 1);
    EXPECT_EQ(timeOut(), 0);
    EXPECT_EQ(ComCommunication(), head);
    EXPECT_TRUE(getHandshakeInformation(1));
    EXPECT_TRUE(refreshed.empty());

    EXPECT_EQ(timeOut(), 44);
    EXPECT_EQ(settings.failureCount, 0);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    EXPECT_FALSE(getHandshakeInformation(1));
    EXPECT_TRUE(PLCDataStorage[1].connectionId.isEmpty());
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 0x21)
        << "a failure does not advance the counter";
    EXPECT_EQ(refreshed.size(), 1u);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 0);
    ComCommunication();
    EXPECT_EQ(PLC_driver.sendQueue.size(), 2) << "the next request connects again";
}

TEST_F(Dispatcher, KeepsCountingFailuresAcrossSuccesses)
{
    for (int i = 1; i <= 2; ++i) {
        send(readOf("T"), kCyclicRead)->replyLength = 50;
        EXPECT_EQ(timeOut(), 0);
        PLC_driver.sendQueue.first().replyLength = kGood.size();
        EXPECT_EQ(deliver(kGood), 1);
        EXPECT_EQ(settings.failureCount, i);
    }
    send(readOf("T"), kCyclicRead)->replyLength = 50;
    EXPECT_EQ(timeOut(), 44);
}

TEST_F(Dispatcher, ReturnsACodeForTheReasonOfAFailure)
{
    settings.retryLimit = 0;
    send(readOf("T"), kCyclicRead)->replyLength = 50;
    EXPECT_EQ(deliver(kGood), 74) << "wrong length";
    connectStation(1, kId, 0x21);
    send(readOf("T"), kCyclicRead)->replyLength = 50;
    EXPECT_EQ(timeOut(), 44) << "no reply";
    connectStation(1, kId, 0x21);
    Protocol* head = send(readOf("T"), kCyclicRead);
    head->replyLength = kGood.size();
    head->var.accessMode = 2;
    EXPECT_EQ(deliver(kGood), 14) << "rejected";
    EXPECT_EQ(PLC_driver.result.retValue, 14);
}

TEST_F(Dispatcher, ReportsAFailureEvenIfTheVariableHasMoreEntries)
{
    send(ofVariable(readOf("T"), 5, 6), kOneShotRead);
    PLC_driver.onceReadList.append(ofVariable(readOf("T"), 5, 6));
    EXPECT_EQ(failBeyondTheLimit(), 46);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0], (Finished{9, 5, 6, 2}));

    finished.clear();
    connectStation(1, kId, 0x21);
    send(ofVariable(writeOf("T", "x"), 5, 6), kWrite);
    PLC_driver.writeList.append(ofVariable(writeOf("T", "x"), 5, 6));
    refreshed.clear();
    EXPECT_EQ(failBeyondTheLimit(), 46);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0], (Finished{9, 5, 6, 2}));
    ASSERT_EQ(refreshed.size(), 1u);
    EXPECT_TRUE(refreshed[0].hasList);
    EXPECT_EQ(refreshed[0].listSize, 0);
    EXPECT_EQ(refreshed[0].varType, 5);
    EXPECT_EQ(refreshed[0].flag, 1);
}

TEST_F(Dispatcher, DropsAllWritesAndTheOneShotsOfTheFailedVariableInSingleStationMode)
{
    settings.multiStation = 0;
    send(ofVariable(readOf("X"), 5, 6), kOneShotRead);
    PLC_driver.onceReadList.append(ofVariable(readOf("a"), 5, 6, 2));
    PLC_driver.onceReadList.append(ofVariable(readOf("b"), 5, 7));
    PLC_driver.onceReadList.append(ofVariable(readOf("c"), 4, 6));
    PLC_driver.onceReadList.append(ofVariable(readOf("d"), 5, 6));
    PLC_driver.writeList.append(ofVariable(writeOf("w", "x"), 1, 1, 2));
    PLC_driver.readList.append(ofVariable(readOf("R"), 5, 6));
    EXPECT_EQ(failBeyondTheLimit(), 46);
    EXPECT_EQ(tagsOf(PLC_driver.onceReadList), QString("bc"));
    EXPECT_TRUE(PLC_driver.writeList.isEmpty());
    EXPECT_EQ(tagsOf(PLC_driver.readList), QString("R")) << "cyclic reads stay";
}

TEST_F(Dispatcher, DropsOnlyRequestsOfTheFailedStationInMultiStationMode)
{
    send(ofVariable(readOf("X"), 5, 6), kOneShotRead);
    PLC_driver.onceReadList.append(ofVariable(readOf("a"), 5, 6, 2));
    PLC_driver.onceReadList.append(ofVariable(readOf("b"), 5, 7));
    PLC_driver.onceReadList.append(ofVariable(readOf("c"), 4, 6));
    PLC_driver.onceReadList.append(ofVariable(readOf("d"), 5, 6));
    PLC_driver.writeList.append(ofVariable(writeOf("u", "x"), 1, 1, 1));
    PLC_driver.writeList.append(ofVariable(writeOf("v", "x"), 5, 6, 2));
    PLC_driver.writeList.append(ofVariable(writeOf("w", "x"), 2, 2, 1));
    EXPECT_EQ(failBeyondTheLimit(), 46);
    EXPECT_EQ(tagsOf(PLC_driver.onceReadList), QString("abc"));
    EXPECT_EQ(tagsOf(PLC_driver.writeList), QString("v"));
    EXPECT_EQ(finished.size(), 1u) << "only the request in flight is reported";
}

TEST_F(Dispatcher, AcceptsSettingsAtTheEndOfTheirRange)
{
    settings.failureCount = settings.retryLimit = std::numeric_limits<int>::max();
    send(readOf("T"), kCyclicRead)->replyLength = 50;
    EXPECT_EQ(timeOut(), 0);
    settings.framesAnswered = std::numeric_limits<int>::max();
    PLC_driver.sendQueue.first().replyLength = kGood.size();
    deliver(kGood);
    SUCCEED() << "the counts wrap without undefined behaviour";
}

TEST_F(Dispatcher, KeepsItsQueueWithoutSettings)
{
    Protocol* head = send(readOf("T"), kCyclicRead);
    SetComInfo(nullptr);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(deliver(kGood), 0);
        EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
        EXPECT_EQ(head->replyLength, -1) << "the reply is not even checked";
    }
}

// ---- Local and remote area ----------------------------------------------------------------------

class ReplyArea : public Dispatcher
{
protected:
    void putReadInFlight(int replyLength, int accessMode = 0, int reqFlag = 1)
    {
        RW_VAR request = readOf("T");
        request.accessMode = accessMode;
        request.reqFlag = reqFlag;
        putInFlight(request, replyLength);
    }
    int local(QByteArray reply, int length) { return DealDataOfLocalArea(&reply, length); }
    int remote(QByteArray reply, int length) { return DealDataOfRemoteArea(&reply, length); }
    bool isStored() { return PLCDataStorage[1].tagData.contains("T"); }
};

TEST_F(ReplyArea, ChecksTheLengthThenTheAccessMode)
{
    const int size = kGood.size();
    putReadInFlight(size);
    EXPECT_EQ(local("", 0), 44);
    EXPECT_EQ(remote("", 0), 144);
    EXPECT_EQ(local(kGood, size - 1), 74);
    EXPECT_EQ(remote(kGood, size + 1), 174);
    EXPECT_FALSE(isStored());
    EXPECT_EQ(local(kGood, size), 1);
    EXPECT_TRUE(isStored());
    putReadInFlight(size, 2);
    EXPECT_EQ(local(kGood, size), 14);
    EXPECT_EQ(remote(kGood, size), 114);
}

TEST_F(ReplyArea, AcceptsAnyLengthExceptZeroForAVaryingReply)
{
    putReadInFlight(-1);
    EXPECT_EQ(local(kGood, 17), 1);
    EXPECT_EQ(local("", 0), 44);
    putReadInFlight(0);
    EXPECT_EQ(local(kGood, 0), 1) << "an expected length of 0 accepts an empty reply";
}

TEST_F(ReplyArea, TakesANullReplyToAWriteForNoReply)
{
    const int expected = kGood.size();
    for (const int length : {expected, expected + 1, 1, 0, -1}) {
        for (const int flag : {1, -1}) {
            putReadInFlight(expected, 1, flag);
            EXPECT_EQ(DealDataOfLocalArea(nullptr, length), 44) << length;
            EXPECT_EQ(DealDataOfRemoteArea(nullptr, length), 144) << length;
        }
    }
    putReadInFlight(-1, 1);
    EXPECT_EQ(DealDataOfLocalArea(nullptr, expected), 44);
}

TEST_F(ReplyArea, JudgesANullReplyToAReadByItsLengthAndStoresNothing)
{
    putReadInFlight(kGood.size());
    EXPECT_EQ(DealDataOfLocalArea(nullptr, kGood.size()), 1);
    EXPECT_EQ(DealDataOfLocalArea(nullptr, kGood.size() + 1), 74);
    EXPECT_EQ(DealDataOfLocalArea(nullptr, 0), 44);
    EXPECT_FALSE(isStored());
}

TEST_F(ReplyArea, AcknowledgesAWriteWithoutStoringAValue)
{
    putReadInFlight(kGood.size(), 1);
    EXPECT_EQ(local(kGood, kGood.size()), 1);
    EXPECT_FALSE(isStored());
    EXPECT_EQ(remote(kGood, kGood.size()), 100);
    EXPECT_FALSE(isStored());
}

TEST_F(ReplyArea, StoresARemoteReplyOnlyWhenTheRequestFlagIsMinusOne)
{
    for (int flag : {0, 1, 2}) {
        putReadInFlight(kGood.size(), 0, flag);
        EXPECT_EQ(remote(kGood, kGood.size()), 100) << flag;
        EXPECT_TRUE(PLCDataStorage[1].tagInfo.isEmpty()) << flag;
    }
    putReadInFlight(kGood.size(), 0, -1);
    settings.framesAnswered = 0;
    EXPECT_EQ(remote(kGood, kGood.size()), 1);
    EXPECT_BYTES(PLCDataStorage[1].tagInfo.value("T"), hex("03 C3 00 FF"));
    settings.framesAnswered = 1;
    EXPECT_EQ(remote(kGood, kGood.size()), 100);
}

TEST_F(ReplyArea, TreatsARemoteReplyAsCompleteWithoutSettings)
{
    putReadInFlight(kGood.size(), 0, -1);
    SetComInfo(nullptr);
    EXPECT_EQ(remote(kGood, kGood.size()), 1);
    EXPECT_BYTES(PLCDataStorage[1].tagInfo.value("T"), hex("03 C3 00 FF"));
}

TEST_F(ReplyArea, StoresTheRemoteReplyToAWriteWhenTheRequestFlagIsMinusOne)
{
    putReadInFlight(kGood.size(), 1, -1);
    EXPECT_EQ(remote(kGood, kGood.size()), 1);
    EXPECT_BYTES(PLCDataStorage[1].tagInfo.value("T"), hex("03 C3 00 FF"));
}

TEST_F(ReplyArea, ReportsARemoteReplyAsPartialOnlyAtTheFirstStep)
{
    putReadInFlight(kGood.size(), 0, -1);
    for (const auto& [step, code] : {std::make_pair(0, 1), std::make_pair(1, 100),
                                     std::make_pair(2, 1), std::make_pair(-1, 1)})
    {
        settings.framesAnswered = step;
        EXPECT_EQ(remote(kGood, kGood.size()), code) << step;
    }
    PLCDataStorage[1].tagInfo.clear();
    putReadInFlight(kGood.size(), 0, -2);
    EXPECT_EQ(remote(kGood, kGood.size()), 100);
    EXPECT_TRUE(PLCDataStorage[1].tagInfo.isEmpty());
}

TEST_F(ReplyArea, ReleasesTheValueLockOnEveryPath)
{
    putReadInFlight(kGood.size());
    for (int length : {0, 5, kGood.size()}) {
        local(kGood, length);
        EXPECT_TRUE(isFree(PLC_driver.dataMutex));
        remote(kGood, length);
        EXPECT_TRUE(isFree(PLC_driver.dataMutex));
    }
}

TEST_F(ReplyArea, RejectsAReplyWithoutAFrameInFlight)
{
    EXPECT_EQ(local(kGood, kGood.size()), 41);
    EXPECT_EQ(remote(kGood, kGood.size()), 141);
    QByteArray reply = kGood;
    EXPECT_EQ(CheckGetData(&reply, reply.size()), 0);
}

TEST_F(Dispatcher, CompletesARemoteReadWithTheRemoteCodeAndDoesNotCountIt)
{
    RW_VAR request = readOf("T");
    request.linkId = 0;
    send(request, kCyclicRead);
    EXPECT_EQ(answer(kGood), 100);
    EXPECT_EQ(PLC_driver.readCycleCount, 0);
    EXPECT_FALSE(PLCDataStorage[1].tagData.contains("T"));
}

TEST_F(Dispatcher, CompletesARemoteOneShotSilentlyAndARemoteWriteWithACallback)
{
    RW_VAR read = readOf("T");
    read.linkId = 0;
    send(read, kOneShotRead);
    EXPECT_EQ(answer(kGood), 100);
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_TRUE(finished.empty());
    RW_VAR write = writeOf("T", "x");
    write.linkId = 0;
    send(write, kWrite);
    EXPECT_EQ(answer(kGood), 100);
    EXPECT_EQ(finished.size(), 1u);
}

TEST_F(Dispatcher, ReturnsTheRemoteCodeWhenARemoteRequestFails)
{
    settings.retryLimit = 0;
    RW_VAR request = readOf("T");
    request.linkId = 0;
    send(request, kOneShotRead)->replyLength = 50;
    EXPECT_EQ(timeOut(), 144);
    EXPECT_TRUE(finished.empty()) << "a remote one-shot ends without a callback";
    EXPECT_EQ(refreshed.size(), 1u);
}

// ---- Connection set-up --------------------------------------------------------------------------

class ConnectionSetUp : public Dispatcher
{
protected:
    ConnectionSetUp()
    {
        PLCDataStorage.clear();
        PLC_driver.readList.append(readOf("T"));
        ComCommunication();
    }
    Protocol& head() { return PLC_driver.sendQueue.first(); }
    quint16 tnsOf(const QByteArray& frame)
    {
        const QByteArray data = wire::unframed(frame);
        return static_cast<quint16>(static_cast<quint8>(data.at(4)) |
                                    static_cast<quint8>(data.at(5)) << 8);
    }
};

TEST_F(ConnectionSetUp, ConnectsInTwoSteps)
{
    EXPECT_EQ(settings.frameCount, 2);
    EXPECT_EQ(settings.framesAnswered, 0);
    EXPECT_EQ(deliver(wire::identityReply(1)), 1);
    EXPECT_EQ(settings.framesAnswered, 1);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
    EXPECT_FALSE(getHandshakeInformation(1));
    EXPECT_EQ(deliver(wire::forwardOpenReply(2, kId)), 1);
    EXPECT_EQ(settings.framesAnswered, 2);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    EXPECT_TRUE(getHandshakeInformation(1));
    EXPECT_BYTES(PLCDataStorage[1].connectionId, kId);
    EXPECT_BYTES(ComCommunication()->frame, wire::readRequest(3, kId, wire::tagPath("T"), 1));
}

TEST_F(ConnectionSetUp, ConnectsAtTheSecondStepForAnyAnnouncedFrameCount)
{
    for (int announced : {1, 5}) {
        PLCDataStorage.clear();
        PLC_driver.sendQueue.clear();
        ComCommunication();
        settings.frameCount = announced;
        deliver(wire::identityReply(1));
        EXPECT_FALSE(getHandshakeInformation(1)) << announced;
        deliver(wire::forwardOpenReply(2, kId));
        EXPECT_TRUE(getHandshakeInformation(1)) << announced;
        EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    }
}

TEST_F(ConnectionSetUp, DoesNotConnectAfterTheSecondStep)
{
    settings.framesAnswered = 2;
    EXPECT_EQ(deliver(wire::identityReply(1)), 1);
    EXPECT_EQ(settings.framesAnswered, 3);
    EXPECT_FALSE(getHandshakeInformation(1));
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1) << "only the answered frame is removed";
}

TEST_F(ConnectionSetUp, GivesUpAtAnyStepExceptTheSecond)
{
    for (int step : {0, 2, -1}) {
        ComCommunication();
        settings.framesAnswered = step;
        EXPECT_EQ(deliver("garbage"), 201) << step;
        EXPECT_TRUE(PLC_driver.sendQueue.isEmpty()) << step;
    }
}

TEST_F(ConnectionSetUp, EmptiesTheQueueWhenTheStationIsConnected)
{
    deliver(wire::identityReply(1));
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    deliver(wire::forwardOpenReply(2, kId));
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    EXPECT_TRUE(getHandshakeInformation(1));
}

TEST_F(ConnectionSetUp, ChangesNeitherErrorFlagNorFailureCount)
{
    settings.retryLimit = 0;
    settings.failureCount = 1;
    for (const bool failed : {false, true}) {
        PLCDataStorage.clear();
        PLC_driver.errorFlag = failed;
        PLC_driver.sendQueue.clear();
        ComCommunication();
        const QByteArray replies[] = {"garbage", wire::identityReply(1), "garbage",
                                      wire::forwardOpenReply(2, kId)};
        for (const QByteArray& reply : replies) {
            ComCommunication();
            deliver(reply);
            EXPECT_EQ(PLC_driver.errorFlag, failed);
            EXPECT_EQ(settings.failureCount, 1);
        }
        EXPECT_TRUE(getHandshakeInformation(1));
    }
    EXPECT_TRUE(finished.empty());
    EXPECT_TRUE(refreshed.empty());
}

TEST_F(ConnectionSetUp, IgnoresTheLengthThatTheHostPasses)
{
    QByteArray reply = wire::identityReply(1);
    EXPECT_EQ(DataCom(&reply, 0)->retValue, 1);
    EXPECT_EQ(settings.framesAnswered, 1);
}

TEST_F(ConnectionSetUp, GivesUpAtAnInvalidIdentityReply)
{
    EXPECT_EQ(deliver("garbage"), 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    EXPECT_EQ(settings.framesAnswered, 0);
    EXPECT_EQ(PLCDataStorage[1].transactionCounter, 2) << "the reply was parsed";
    EXPECT_EQ(tnsOf(ComCommunication()->frame), 2);
}

TEST_F(ConnectionSetUp, TreatsATimeOutAndANullReplyAsNoAnswer)
{
    EXPECT_EQ(timeOut(), 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    ComCommunication();
    EXPECT_EQ(DataCom(nullptr, 40)->retValue, 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
}

// The queued record is in the host's hands.
TEST_F(ConnectionSetUp, ResendsAsItIsARequestThatIsNoConnectionRequestAnyMore)
{
    for (const char* frame : {"", "10", "10 06 10 02 00 01 0B 00 03 00 00 00 54 10 03 00 00"}) {
        deliver(wire::identityReply(1));
        ASSERT_EQ(PLC_driver.sendQueue.size(), 1);
        PLC_driver.sendQueue[0].frame = hex(frame);
        for (int attempt = 1; attempt < 4; ++attempt) {
            EXPECT_EQ(timeOut(), 201);
            ASSERT_EQ(PLC_driver.sendQueue.size(), 1);
            EXPECT_BYTES(ComCommunication()->frame, hex(frame));
        }
        EXPECT_EQ(timeOut(), 201);
        EXPECT_TRUE(PLC_driver.sendQueue.isEmpty()) << "after the fourth attempt";
        ComCommunication();
    }
}

TEST_F(ConnectionSetUp, ResendsTheConnectionRequestThreeTimesWithTheCurrentTransactionNumber)
{
    deliver(wire::identityReply(1));
    const int sendLength = head().sendLength;
    for (quint16 tns = 3; tns <= 5; ++tns) {
        EXPECT_EQ(timeOut(), 201);
        ASSERT_EQ(PLC_driver.sendQueue.size(), 1);
        EXPECT_EQ(tnsOf(head().frame), tns) << "and its CRC is correct";
        EXPECT_EQ(head().sendLength, sendLength);
        EXPECT_EQ(settings.framesAnswered, 1);
    }
    EXPECT_EQ(timeOut(), 201);
    EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
    EXPECT_FALSE(getHandshakeInformation(1));
}

TEST_F(ConnectionSetUp, ResendsOnlyTheRequestInFlight)
{
    deliver(wire::identityReply(1));
    PLC_driver.sendQueue.append(head());
    const QByteArray second = PLC_driver.sendQueue.last().frame;
    EXPECT_EQ(timeOut(), 201);
    ASSERT_EQ(PLC_driver.sendQueue.size(), 2);
    EXPECT_EQ(tnsOf(head().frame), 3);
    EXPECT_BYTES(PLC_driver.sendQueue.last().frame, second);
}

TEST_F(ConnectionSetUp, RestartsTheAttemptCountForTheNextConnectionRequest)
{
    for (int round = 0; round < 2; ++round) {
        deliver(wire::identityReply(1));
        for (int i = 0; i < 3; ++i) {
            timeOut();
            EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
        }
        timeOut();
        EXPECT_TRUE(PLC_driver.sendQueue.isEmpty());
        ComCommunication();
    }
}

TEST_F(ConnectionSetUp, AcceptsTheConnectionAfterAResend)
{
    deliver(wire::identityReply(1));
    timeOut();
    timeOut();
    EXPECT_EQ(deliver(wire::forwardOpenReply(4, hex("10 10"))), 1);
    EXPECT_TRUE(getHandshakeInformation(1));
    EXPECT_BYTES(PLCDataStorage[1].connectionId, hex("10 10"));
}

TEST_F(ConnectionSetUp, AcceptsARefusedConnectionWhichIsAKnownBehaviour)
{
    deliver(wire::identityReply(1));
    EXPECT_EQ(deliver(wire::framed(hex("01 00 4B 00 02 00 00 00 D4 00 01 01 00 01 00 00"))), 1);
    EXPECT_TRUE(getHandshakeInformation(1));
    EXPECT_BYTES(PLCDataStorage[1].connectionId, hex("00 01"));
}

} // namespace
