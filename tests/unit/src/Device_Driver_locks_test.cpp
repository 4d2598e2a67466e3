// Which of the driver's three locks each entry point takes, and what it does without them.

#include "dispatcher_fixture.h"
#include "lock_witness.h"

#include <algorithm>
#include <functional>
#include <thread>

using wire::hex;

namespace {

class Locks : public DispatcherTest
{
protected:
    static int timesList(const LockWitness& witness)
    {
        return witness.timesLocked(PLC_driver.listMutex);
    }
    static int timesData(const LockWitness& witness)
    {
        return witness.timesLocked(PLC_driver.dataMutex);
    }
    static int timesStation(const LockWitness& witness)
    {
        return witness.timesLocked(PLC_driver.stationMutex);
    }
    static bool noneNamed(const LockWitness& witness)
    {
        return timesList(witness) + timesData(witness) + timesStation(witness) == 0 &&
               witness.balanced();
    }
    /// All that was locked, but the list lock, was locked while that was held.
    static bool allWithinTheListLock(const LockWitness& witness)
    {
        for (const QMutex* mutex : witness.locked()) {
            if (mutex != &PLC_driver.listMutex && !witness.nested(PLC_driver.listMutex, *mutex))
                return false;
        }
        return timesList(witness) == 1 && witness.balanced() &&
               witness.locked().front() == &PLC_driver.listMutex;
    }
    /// The list was changed, and never without this lock.
    template<typename List>
    static bool changedUnder(const QMutex& mutex, const LockWitness& witness, const List& list)
    {
        int changes = 0;
        for (const LockWitness::ListChange& change : witness.listChanges()) {
            if (change.list != &list)
                continue;
            ++changes;
            if (std::count(change.held.begin(), change.held.end(), &mutex) == 0)
                return false;
        }
        return changes > 0;
    }
    void holdAll()
    {
        for (QMutex* mutex :
             {&PLC_driver.listMutex, &PLC_driver.dataMutex, &PLC_driver.stationMutex})
            mutex->lock();
    }
    void releaseAll()
    {
        for (QMutex* mutex :
             {&PLC_driver.listMutex, &PLC_driver.dataMutex, &PLC_driver.stationMutex})
            mutex->unlock();
    }
};

// ---- Configuration -----------------------------------------------------------------------------

TEST_F(Locks, OfTheStationsAloneAreTakenToDisableAndToAsk)
{
    LockWitness witness;
    EnCommStation(3, 0);
    EXPECT_EQ(timesStation(witness), 1);
    EXPECT_TRUE(Ethernetcontains(3));
    EXPECT_EQ(timesStation(witness), 2);
    EnCommStation(-1, 0);
    EXPECT_EQ(timesStation(witness), 3);
    EXPECT_EQ(witness.locked().size(), 3u);
    EXPECT_TRUE(witness.balanced());
}

TEST_F(Locks, AreNotTakenToConfigure)
{
    int area = 0;
    LockWitness witness;
    SetComInfo(&settings);
    RegistCallBackFuncIntf(nullptr, nullptr);
    FlashLocalRegister(&area, &area, &area);
    EXPECT_TRUE(witness.locked().empty());
}

TEST_F(Locks, AreNotTakenByTheEntryPointsWithAConstantAnswer)
{
    fly(readOf("T"), kCyclicRead);
    PLC_driver.errorFlag = true;
    RW_VAR request = distinctRequest("T");
    const std::string before = fieldsOf(request);
    LockWitness witness;
    EXPECT_EQ(QueryFinishFlag(), 1);
    EXPECT_EQ(PLCAddressChangeIntef(1, 2), -1);
    EXPECT_EQ(StringAddressToInt(1, QString("2")), -1);
    WriteDataToLocal(&request);
    EXPECT_TRUE(witness.locked().empty());
    EXPECT_EQ(fieldsOf(request), before);
    EXPECT_EQ(PLC_driver.sendQueue.size(), 1);
}

TEST_F(Locks, AreNotNeededByTheCatalogue)
{
    RW_VAR request = readOf("T");
    holdAll();
    LockWitness witness;
    declareIndexed("T");
    EXPECT_TRUE(getPassVarName("T"));
    EXPECT_EQ(updateRwVar(&request), 1);
    EXPECT_TRUE(noneNamed(witness));
    releaseAll();
}

// ---- Lists and values --------------------------------------------------------------------------

TEST_F(Locks, OfTheListsAreHeldToQueueAWrite)
{
    RW_VAR request = writeOf("T", "x");
    for (int mode : {0, 0, 0, 1}) {
        // A record that is overwritten is seen as well: its list becomes a copy of its own.
        const QList<RW_VAR> shared = PLC_driver.writeList;
        LockWitness witness;
        AddListWriteVar(&request, mode);
        EXPECT_TRUE(allWithinTheListLock(witness));
        EXPECT_TRUE(changedUnder(PLC_driver.listMutex, witness, PLC_driver.writeList));
    }
}

TEST_F(Locks, OfTheListsAreHeldToQueueAnUnchangedOneShotOnly)
{
    RW_VAR request = readOf("T");
    {
        LockWitness witness;
        AddListOnceReadVar(&request, 1);
        EXPECT_TRUE(allWithinTheListLock(witness));
        EXPECT_TRUE(changedUnder(PLC_driver.listMutex, witness, PLC_driver.onceReadList));
    }
    LockWitness witness;
    AddListOnceReadVar(&request, 0);
    AddListReadVar(&request);
    EXPECT_TRUE(noneNamed(witness));
}

TEST_F(Locks, OfTheListsAreHeldWhileTheCyclicListIsRebuilt)
{
    QList<HOSTVAR> variables;
    for (const bool empty : {true, false}) {
        if (!empty) {
            variables.append(HOSTVAR());
            variables.append(HOSTVAR());
        }
        PLC_driver.readList.append(readOf("old"));
        LockWitness witness;
        witness.watch([] { return PLC_driver.readList.size(); }, PLC_driver.listMutex);
        EXPECT_EQ(ReCreatReadVarList(&variables), empty ? 0 : 1);
        EXPECT_TRUE(allWithinTheListLock(witness)) << empty;
        EXPECT_EQ(witness.unguardedValueChanges(), 0) << empty;
    }
}

TEST_F(Locks, OfTheValuesAreHeldForAWholeRead)
{
    confirm("T", 3, 0xC3);
    PLCDataStorage[1].tagData["T"] = hex("01 02");
    for (const char* tag : {"T", "unknown"}) {
        QByteArray out;
        LockWitness witness;
        EXPECT_EQ(GetRegisterData(tag, 0, "0", 1, out, 1), tag == QString("T") ? 1 : 0);
        EXPECT_EQ(witness.locked().front(), &PLC_driver.dataMutex);
        EXPECT_EQ(timesData(witness), 1);
        EXPECT_EQ(timesList(witness), 0);
        for (std::size_t i = 1; i < witness.locked().size(); ++i)
            EXPECT_TRUE(witness.nested(PLC_driver.dataMutex, *witness.locked()[i]));
        EXPECT_TRUE(witness.balanced());
    }
}

TEST_F(Locks, OfTheListsAloneAreTakenToSetAValueAndOnlyToQueueIt)
{
    const QByteArray value = "x";
    for (int mode : {2, 0}) {
        settings.writeMode = mode;
        LockWitness witness;
        SetRegisterData("T", 5, "0", 1, value, 1, 3, 1);
        EXPECT_EQ(timesList(witness), mode == 2 ? 1 : 0);
        EXPECT_EQ(timesData(witness), 0);
        EXPECT_EQ(timesStation(witness), 0);
        EXPECT_NE(witness.locked().front(), &PLC_driver.listMutex)
            << "the request is completed first";
        EXPECT_FALSE(witness.nested(PLC_driver.listMutex, *witness.locked().front()));
        EXPECT_TRUE(witness.balanced());
    }
}

TEST_F(Locks, AreNotTakenByTheEncoders)
{
    RW_VAR read = readOf("T"), write = writeOf("T", "x");
    LockWitness witness;
    ReadRegister(&read);
    WriteRegister(&write);
    HandshakeFunction(1);
    EXPECT_TRUE(noneNamed(witness));
    EXPECT_EQ(PLC_driver.sendQueue.size(), 4);
}

// ---- Poll cycle --------------------------------------------------------------------------------

TEST_F(Locks, OfTheListsAreHeldToChooseTheNextRequestOfAnyList)
{
    for (int list : {int(kCyclicRead), int(kWrite), int(kOneShotRead)}) {
        PLC_driver.sendQueue.clear();
        PLC_driver.readList.clear();
        PLC_driver.writeList.clear();
        PLC_driver.onceReadList.clear();
        LockWitness witness;
        EXPECT_NE(fly(list == kWrite ? writeOf("T", "x") : readOf("T"), list), nullptr);
        EXPECT_TRUE(allWithinTheListLock(witness)) << list;
        EXPECT_TRUE(witness.nested(PLC_driver.listMutex, PLC_driver.stationMutex));
        EXPECT_FALSE(witness.nested(PLC_driver.stationMutex, PLC_driver.listMutex));
    }
}

TEST_F(Locks, OfTheListsAreHeldWhereEveryStationIsDisabled)
{
    EnCommStation(1, 0);
    PLC_driver.readList.append(readOf("T"));
    LockWitness witness;
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_TRUE(allWithinTheListLock(witness));
}

TEST_F(Locks, AreNotTakenForAPendingFrame)
{
    fly(readOf("T"), kCyclicRead);
    LockWitness witness;
    ComCommunication();
    EXPECT_TRUE(noneNamed(witness));
}

TEST_F(Locks, OfTheListsAreHeldWhenAQueuedWriteIsTold)
{
    static bool held;
    held = false;
    PLC_driver.refreshCallback = [](QList<RW_VAR>*, int, int) {
        held = !PLC_driver.listMutex.tryLock();
    };
    fly(writeOf("T", "x"), kWrite);
    EXPECT_TRUE(held);
}

TEST_F(Locks, OfTheListsAreTakenForACompletionAndNotBefore)
{
    {
        LockWitness witness;
        give(kGood);
        EXPECT_EQ(timesList(witness), 0) << "nothing in flight";
    }
    fly(readOf("T"), kCyclicRead);
    for (const QByteArray& reply : {kBad, kGood}) {
        LockWitness witness;
        QByteArray bytes = reply;
        DataCom(&bytes, bytes.size());
        EXPECT_TRUE(noneNamed(witness)) << "judged only";
    }
    LockWitness witness;
    QByteArray bytes = kGood;
    DataCom(&bytes, bytes.size());
    EXPECT_EQ(timesList(witness), 1);
    EXPECT_FALSE(witness.nested(PLC_driver.listMutex, PLC_driver.dataMutex));
    EXPECT_TRUE(witness.balanced());
}

TEST_F(Locks, OfTheListsAreTakenOnceForAFrameThatOthersFollow)
{
    fly(writeOf("T", "x"), kWrite);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    give(kGood);
    LockWitness witness;
    QByteArray bytes = kGood;
    DataCom(&bytes, bytes.size());
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(timesList(witness), 1);
    EXPECT_TRUE(witness.balanced());
}

TEST_F(Locks, OfTheListsAreTakenOnceForAFailureWithinTheLimitAndBeyond)
{
    flyUnanswerable(readOf("T"), kCyclicRead);
    for (int i = 0; i <= settings.retryLimit; ++i) {
        LockWitness witness;
        timeOut();
        EXPECT_EQ(timesList(witness), 1) << i;
        EXPECT_TRUE(witness.balanced());
    }
}

TEST_F(Locks, AreNotTakenByAConnectionSetUp)
{
    HandshakeFunction(2);
    for (const QByteArray& reply :
         {wire::identityReply(1), QByteArray(), wire::forwardOpenReply(2, kId)})
    {
        LockWitness witness;
        QByteArray bytes = reply;
        DataCom(&bytes, bytes.size());
        EXPECT_TRUE(noneNamed(witness));
    }
    EXPECT_TRUE(getHandshakeInformation(2));
}

// ---- The locks inside the library -------------------------------------------------------------

// What the threads share without a named lock stands under a lock of the library's own, one for the
// lists, one for the store.
class OwnLocks : public Locks
{
protected:
    OwnLocks()
    {
        LockWitness witness;
        AddListReadVar(nullptr);
        ofTheLists = witness.locked().at(0);
        addPlcNumber(1);
        ofTheStore = witness.locked().at(1);
    }
    /// The list was changed, and never without the library's lock of the lists.
    template<typename List> bool guarded(const LockWitness& witness, const List& list) const
    {
        return changedUnder(*ofTheLists, witness, list);
    }
    int times(const LockWitness& witness) const { return witness.timesLocked(*ofTheLists); }
    bool lastFailed()
    {
        QMutexLocker lock(const_cast<QMutex*>(ofTheLists));
        return PLC_driver.errorFlag;
    }

    const QMutex* ofTheLists;
    const QMutex* ofTheStore;
};

TEST_F(OwnLocks, AreTwo)
{
    EXPECT_NE(ofTheLists, ofTheStore);
    for (const QMutex* own : {ofTheLists, ofTheStore}) {
        EXPECT_NE(own, &PLC_driver.listMutex);
        EXPECT_NE(own, &PLC_driver.dataMutex);
        EXPECT_NE(own, &PLC_driver.stationMutex);
    }
}

TEST_F(OwnLocks, GuardEveryRecordThatIsQueued)
{
    RW_VAR request = readOf("T");
    QList<HOSTVAR> variables = {HOSTVAR()};
    LockWitness witness;
    AddListReadVar(&request);
    EXPECT_TRUE(guarded(witness, PLC_driver.readList));
    AddListOnceReadVar(&request, 0);
    AddListOnceReadVar(&request, 1);
    ReCreatReadVarList(&variables);
    EXPECT_TRUE(guarded(witness, PLC_driver.onceReadList));
    EXPECT_TRUE(guarded(witness, PLC_driver.readList));
}

TEST_F(OwnLocks, GuardEveryLookAtAHead)
{
    for (int list : {int(kCyclicRead), int(kOneShotRead)}) {
        PLC_driver.sendQueue.clear();
        QList<RW_VAR>& requests =
            list == kCyclicRead ? PLC_driver.readList : PLC_driver.onceReadList;
        PLC_driver.readList.clear();
        requests.append(readOf("T"));
        const QList<RW_VAR> shared = requests; // a head that could be changed is a copy of its own
        LockWitness witness;
        ComCommunication();
        EXPECT_TRUE(guarded(witness, requests));
    }
}

TEST_F(OwnLocks, GuardEveryRequestThatIsTurnedOrDropped)
{
    EnCommStation(2, 0);
    PLC_driver.readList.append(numbered(readOf("a"), 1, 1, 2));
    PLC_driver.readList.append(readOf("b"));
    {
        LockWitness witness;
        ComCommunication();
        EXPECT_TRUE(guarded(witness, PLC_driver.readList)) << "turned for its station";
    }
    {
        LockWitness witness;
        answer(kGood);
        EXPECT_TRUE(guarded(witness, PLC_driver.readList)) << "turned when it was answered";
    }
    PLC_driver.onceReadList.append(numbered(readOf("c"), 1, 1, 2));
    PLC_driver.onceReadList.append(numbered(readOf("d"), 1, 1));
    PLC_driver.onceReadList.append(numbered(readOf("e"), 1, 1));
    LockWitness witness;
    ComCommunication();
    failForGood();
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_TRUE(guarded(witness, PLC_driver.onceReadList));
}

TEST_F(OwnLocks, GuardEveryValueThatTheThreadsShare)
{
    const auto watchAll = [this](LockWitness& witness) {
        witness.watch([this] { return settings.passComplete; }, *ofTheLists);
        witness.watch([] { return PLC_driver.readCycleCount; }, *ofTheLists);
        witness.watch([] { return int(PLC_driver.errorFlag); }, *ofTheLists);
    };
    LockWitness witness;
    watchAll(witness);
    ComCommunication();
    EXPECT_EQ(settings.passComplete, 1);
    flyUnanswerable(readOf("T"), kCyclicRead);
    timeOut();
    EXPECT_TRUE(PLC_driver.errorFlag);
    EXPECT_EQ(settings.passComplete, 0);
    for (int i = 0; i < 2; ++i) {
        PLC_driver.sendQueue.first().replyLength = kGood.size();
        give(kGood);
        EXPECT_EQ(PLC_driver.readCycleCount, 1 - i);
        ComCommunication();
    }
    EXPECT_FALSE(PLC_driver.errorFlag);
    EXPECT_EQ(settings.passComplete, 1);
    QList<HOSTVAR> variables = {HOSTVAR()};
    ReCreatReadVarList(&variables);
    EXPECT_EQ(settings.passComplete, 0);
    EXPECT_EQ(witness.unguardedValueChanges(), 0);
}

TEST_F(OwnLocks, GuardTheCyclicListWhileItIsEmptied)
{
    PLC_driver.readList.append(readOf("T"));
    QList<HOSTVAR> none;
    LockWitness witness;
    witness.watch([] { return PLC_driver.readList.size(); }, *ofTheLists);
    ReCreatReadVarList(&none);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
    EXPECT_EQ(witness.unguardedValueChanges(), 0);
}

TEST_F(OwnLocks, GuardTheCyclicListWhileRunsAreAppended)
{
    RW_VAR run = readOf("T", 0, 20);
    QList<RW_VAR> group = {run};
    LockWitness witness;
    witness.watch([] { return PLC_driver.readList.size(); }, *ofTheLists);
    addressAdd(run, 15, true);
    EXPECT_EQ(PLC_driver.readList.size(), 2);
    BitVarReCreat(group, 15);
    EXPECT_EQ(PLC_driver.readList.size(), 4);
    EXPECT_EQ(witness.unguardedValueChanges(), 0);
    EXPECT_EQ(times(witness), 2);
}

TEST_F(OwnLocks, GuardTheCycleWhileItIsBegunAnew)
{
    PLC_driver.readCycleCount = 5;
    settings.passComplete = 1;
    QList<HOSTVAR> variables = {HOSTVAR()};
    LockWitness witness;
    witness.watch([] { return PLC_driver.readCycleCount; }, *ofTheLists);
    witness.watch([this] { return settings.passComplete; }, *ofTheLists);
    ReCreatReadVarList(&variables);
    EXPECT_EQ(PLC_driver.readCycleCount, 0);
    EXPECT_EQ(settings.passComplete, 0);
    EXPECT_EQ(witness.unguardedValueChanges(), 0);
}

// Steps of which nothing but the lock can be seen are counted; more of them do no harm.

TEST_F(OwnLocks, GuardEachStepOfAnIdleCall)
{
    LockWitness witness;
    ComCommunication();
    EXPECT_GE(times(witness), 3) << "one-shots, cyclic reads, pass complete";
}

TEST_F(OwnLocks, GuardEachStepOfACompletion)
{
    fly(readOf("T"), kCyclicRead);
    give(kGood);
    {
        LockWitness witness;
        give(kGood);
        EXPECT_GE(times(witness), 2) << "no failure, turned";
    }
    PLC_driver.readList.clear();
    for (int list : {int(kWrite), int(kOneShotRead)}) {
        fly(list == kWrite ? writeOf("T", "x") : readOf("T"), list);
        give(kGood);
        LockWitness witness;
        give(kGood);
        EXPECT_GE(times(witness), 5) << "no failure, head, last one, told, removed";
    }
}

TEST_F(OwnLocks, OfTheStoreAreTakenBeforeThatOfTheListsForAnswerAndFailure)
{
    settings.retryLimit = 0;
    for (const bool answered : {true, false}) {
        connectStation(1, kId, 0x21);
        Protocol* head = flyUnanswerable(writeOf("T", "x"), kWrite);
        head->replyLength = kGood.size();
        QByteArray bytes = answered ? kGood : QByteArray();
        LockWitness witness;
        DataCom(&bytes, bytes.size());
        EXPECT_TRUE(PLC_driver.writeList.isEmpty());
        EXPECT_GE(witness.timesLocked(*ofTheStore), 2) << "asked, and counted on or marked lost";
        EXPECT_FALSE(witness.nested(PLC_driver.listMutex, *ofTheStore));
    }
}

TEST_F(OwnLocks, LetALateRequestOfTheVariableKeepItFromBeingTold)
{
    int locksOfAll = 0;
    // Behind the look at the list its failure flag is looked at and the request removed.
    for (int locksBehind : {-1, 1, 2}) {
        PLC_driver.onceReadList.clear();
        finished.clear();
        fly(readOf("T"), kOneShotRead);
        give(kGood);
        RW_VAR late = readOf("U");
        late.areaType = 6;
        QByteArray reply = kGood;
        LockWitness witness;
        if (locksBehind >= 0)
            witness.beforeNextLock([&] { AddListOnceReadVar(&late, 0); },
                                   locksOfAll - 1 - locksBehind);
        DataCom(&reply, reply.size());
        EXPECT_EQ(finished.size(), locksBehind == 2 ? 0u : 1u) << locksBehind;
        EXPECT_EQ(order(PLC_driver.onceReadList), QString(locksBehind >= 0 ? "U" : ""));
        locksOfAll = static_cast<int>(witness.locked().size());
    }
}

TEST_F(OwnLocks, GuardEachStepOfAFailure)
{
    settings.retryLimit = 1;
    flyUnanswerable(readOf("T"), kCyclicRead);
    for (int least : {1, 3}) {
        LockWitness witness;
        timeOut();
        EXPECT_GE(times(witness), least) << "failed; turned, one-shots dropped";
    }
}

TEST_F(OwnLocks, GuardTheLookAtTheLastFailure)
{
    const QByteArray value = "x";
    LockWitness witness;
    SetRegisterData("T", 5, "0", 1, value, 1, 3, 1);
    EXPECT_EQ(times(witness), 1);
    RW_VAR request = writeOf("T", "x");
    WriteRegister(&request);
    EXPECT_EQ(times(witness), 2);
}

TEST_F(OwnLocks, GuardTheLengthOfTheCyclicList)
{
    QList<HOSTVAR> variables = {HOSTVAR()};
    LockWitness witness;
    ReCreatReadVarList(&variables);
    EXPECT_EQ(times(witness), 1) << "replaced, cycle restarted and counted in one step";
    ReCreatReadVarList(nullptr);
    EXPECT_EQ(times(witness), 2);
}

TEST_F(OwnLocks, LetNobodyAppendToACyclicListThatIsHalfMade)
{
    const int rebuilt = 3;
    QList<HOSTVAR> variables = {hostVar("a", "0", 1), hostVar("b", "0", 1), hostVar("c", "0", 1)};
    RW_VAR late = readOf("L");
    std::size_t locks = 1;
    for (std::size_t before = 0; before < locks; ++before) {
        PLC_driver.readList = {readOf("o")};
        int told = 0;
        LockWitness witness;
        witness.beforeNextLock([&] { told = AddListReadVar(&late); }, static_cast<int>(before));
        EXPECT_EQ(ReCreatReadVarList(&variables), rebuilt) << before;
        EXPECT_EQ(told, 2) << "behind the old list, before lock " << before;
        EXPECT_EQ(order(PLC_driver.readList), QString("abc")) << before;
        locks = witness.locked().size();
    }
    EXPECT_GT(locks, 2u);
    EXPECT_EQ(AddListReadVar(&late), rebuilt + 1);
}

TEST_F(OwnLocks, LetNoReplyCompleteACycleOfAListThatIsHalfMade)
{
    QList<HOSTVAR> variables = {HOSTVAR(), HOSTVAR()};
    std::size_t locks = 1;
    for (std::size_t before = 0; before < locks; ++before) {
        PLC_driver.readList.clear();
        fly(readOf("old"), kCyclicRead);
        give(kGood); // judged complete, not yet finished
        settings.passComplete = 0;
        PLC_driver.errorFlag = true;
        std::thread poll;
        LockWitness witness;
        witness.beforeNextLock(
            [&] {
                poll = std::thread([this] {
                    QByteArray reply = kGood;
                    DataCom(&reply, reply.size());
                });
                while (lastFailed()) // the reply is counted when its success is noted
                    std::this_thread::yield();
            },
            static_cast<int>(before));
        ReCreatReadVarList(&variables);
        poll.join();
        EXPECT_EQ(settings.passComplete, 0) << "nothing was read of it, before lock " << before;
        locks = witness.locked().size();
    }
    EXPECT_GT(locks, 2u);
}

TEST_F(OwnLocks, AreFreeBetweenTwoNamesOfACatalogue)
{
    QList<varName> names;
    for (const char* name : {"a", "b", "c"}) {
        names.append(varName());
        names.last().name = name;
        names.last().kind = 2;
    }
    names[1].kind = 1;
    LockWitness witness;
    PassVarName(&names);
    EXPECT_EQ(witness.timesLocked(*ofTheStore), 2) << "a value waits for one name, not for all";
    EXPECT_TRUE(getPassVarName("a") && getPassVarName("c"));
}

TEST_F(OwnLocks, MakeOneStepOfEveryUseOfTheStore)
{
    declareIndexed("T");
    confirm("T", 3, 0xC3);
    PLCDataStorage[1].tagData["T"] = hex("01 02");
    RW_VAR request = readOf("T");
    QByteArray reply = kGood, out;
    Protocol head;
    head.auxLength = 22;
    head.var = request;
    PLC_driver.sendQueue.append(head);
    const std::vector<std::function<void()>> uses = {
        [&] { declareIndexed("T"); },
        [&] { getPassVarName("T"); },
        [&] { updateRwVar(&request); },
        [&] { SaveToLocalDataErea(&reply); },
        [&] { ReadRegister(&request); },
        [&] { WriteRegister(&request); },
        [&] { GetRegisterData("T", 0, "0", 1, out, 1); },
    };
    for (std::size_t i = 0; i < uses.size(); ++i) {
        const QMap<int, PLCTAGCOMMUNICATION> shared = PLCDataStorage;
        LockWitness witness;
        uses[i]();
        EXPECT_EQ(witness.timesLocked(*ofTheStore), 1) << i;
        EXPECT_EQ(witness.unguardedMapChanges(), 0) << i;
        EXPECT_GT(witness.guardedNameLookups(), 0) << i;
        EXPECT_EQ(witness.unguardedNameLookups(), 0) << i;
        EXPECT_TRUE(witness.balanced());
    }
}

// ---- Judging and storing -----------------------------------------------------------------------

class StoreLocks : public Locks
{
protected:
    /// How often the lock of the values was taken to judge a reply; what else was locked while it
    /// was held.
    int timesDataFor(bool local, int length, int accessMode, int reqFlag)
    {
        Protocol head;
        head.replyLength = kGood.size();
        head.auxLength = 22;
        head.var = readOf("T");
        head.var.accessMode = accessMode;
        head.var.reqFlag = reqFlag;
        PLC_driver.sendQueue.clear();
        PLC_driver.sendQueue.append(head);
        QByteArray reply = kGood;
        LockWitness witness;
        local ? DealDataOfLocalArea(&reply, length) : DealDataOfRemoteArea(&reply, length);
        EXPECT_EQ(timesList(witness), 0);
        EXPECT_TRUE(witness.balanced());
        return timesData(witness);
    }
};

TEST_F(StoreLocks, OfTheValuesAreHeldWhileALocalReplyIsStored)
{
    EXPECT_EQ(timesDataFor(true, kGood.size(), 0, 1), 1);
    EXPECT_TRUE(PLCDataStorage[1].tagData.contains("T"));
}

TEST_F(StoreLocks, OfTheValuesAreNotTakenWhereNothingIsStored)
{
    EXPECT_EQ(timesDataFor(true, kGood.size(), 1, 1), 0) << "write";
    EXPECT_EQ(timesDataFor(true, kGood.size(), 2, 1), 0) << "rejected";
    EXPECT_EQ(timesDataFor(true, 0, 0, 1), 0) << "no reply";
    EXPECT_EQ(timesDataFor(true, 5, 0, 1), 0) << "wrong length";
}

TEST_F(StoreLocks, OfTheValuesAreNotTakenForARemoteReplyThatIsStored)
{
    EXPECT_EQ(timesDataFor(false, kGood.size(), 0, -1), 0);
    EXPECT_TRUE(PLCDataStorage[1].tagInfo.contains("T"));
}

} // namespace
