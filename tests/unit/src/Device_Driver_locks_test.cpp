// Which locks each entry point takes: the host's three named ones and the driver's own two.

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
    static int timesListLocked(const LockWitness& witness)
    {
        return witness.timesLocked(PLC_driver.listMutex);
    }
    static int timesDataLocked(const LockWitness& witness)
    {
        return witness.timesLocked(PLC_driver.dataMutex);
    }
    static int timesStationLocked(const LockWitness& witness)
    {
        return witness.timesLocked(PLC_driver.stationMutex);
    }
    static bool tookNoNamedLock(const LockWitness& witness)
    {
        return timesListLocked(witness) + timesDataLocked(witness) + timesStationLocked(witness) ==
                   0 &&
               witness.balanced();
    }
    /// The list lock was taken once, and every other lock was taken while it was held.
    static bool onlyWithinTheListLock(const LockWitness& witness)
    {
        for (const QMutex* mutex : witness.locked()) {
            if (mutex != &PLC_driver.listMutex && !witness.nested(PLC_driver.listMutex, *mutex))
                return false;
        }
        return timesListLocked(witness) == 1 && witness.balanced() &&
               witness.locked().front() == &PLC_driver.listMutex;
    }
    /// The list was changed, and only while this lock was held.
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
    /// The value of `tag` in the store and what is known of its type.
    static std::string stored(const char* tag)
    {
        const PLCTAGCOMMUNICATION station = PLCDataStorage.value(1);
        return wire::text(station.tagData.value(tag)) + "; " +
               wire::text(station.tagInfo.value(tag));
    }
    static std::string allFieldsOf(const QList<RW_VAR>& list)
    {
        std::string text;
        for (const RW_VAR& request : list)
            text += fieldsOf(request) + "\n";
        return text;
    }
    /// What `listMutex` guards while a transaction ends.
    static std::string listsAndResult()
    {
        return allFieldsOf(PLC_driver.readList) + "writes\n" + allFieldsOf(PLC_driver.writeList) +
               "one-shots\n" + allFieldsOf(PLC_driver.onceReadList) + "result\n" +
               fieldsOf(PLC_driver.result);
    }
    static std::string sentFrames()
    {
        std::string text;
        for (const Protocol& sent : PLC_driver.sendQueue)
            text += wire::text(sent.frame) + ' ' + fieldsOf(sent.var) + '\n';
        return text;
    }
    void lockAll()
    {
        for (QMutex* mutex :
             {&PLC_driver.listMutex, &PLC_driver.dataMutex, &PLC_driver.stationMutex})
            mutex->lock();
    }
    void unlockAll()
    {
        for (QMutex* mutex :
             {&PLC_driver.listMutex, &PLC_driver.dataMutex, &PLC_driver.stationMutex})
            mutex->unlock();
    }
};

using DisablingAStation = Locks;
using Configuring = Locks;
using ConstantEntryPoints = Locks;
using CatalogueAccess = Locks;
using QueueingAWrite = Locks;
using QueueingAOneShotRead = Locks;
using RebuildingTheCyclicList = Locks;
using ReadingAValue = Locks;
using SettingAValue = Locks;
using Encoders = Locks;
using ChoosingTheNextRequest = Locks;
using RefreshCallback = Locks;
using HandlingAReply = Locks;
using HandlingAFailure = Locks;
using SettingUpAConnection = Locks;

// ---- Configuration -----------------------------------------------------------------------------

TEST_F(DisablingAStation, TakesOnlyTheStationLock)
{
    LockWitness witness;
    EnCommStation(3, 0);
    EXPECT_EQ(timesStationLocked(witness), 1);
    EXPECT_TRUE(Ethernetcontains(3));
    EXPECT_EQ(timesStationLocked(witness), 2);
    EnCommStation(-1, 0);
    EXPECT_EQ(timesStationLocked(witness), 3);
    EXPECT_EQ(witness.locked().size(), 3u);
    EXPECT_TRUE(witness.balanced());
}

TEST_F(DisablingAStation, ChangesAndReadsTheStationsOnlyWhileTheStationLockIsHeld)
{
    LockWitness witness;
    witness.watch(
        [] {
            std::string text;
            for (int station : PLC_driver.disabledStations.keys())
                text += std::to_string(station) + ' ';
            return text;
        },
        PLC_driver.stationMutex);
    EnCommStation(3, 0);
    EnCommStation(4, 0);
    EnCommStation(3, 1);
    EXPECT_EQ(witness.unguardedValueChanges(), 0);
    witness.afterNextUnlock([] { EnCommStation(4, 1); });
    EXPECT_TRUE(Ethernetcontains(4)) << "it was disabled while the lock was held";
    EXPECT_FALSE(Ethernetcontains(4));
}

TEST_F(Configuring, TakesNoLock)
{
    int area = 0;
    LockWitness witness;
    SetComInfo(&settings);
    RegistCallBackFuncIntf(nullptr, nullptr);
    FlashLocalRegister(&area, &area, &area);
    EXPECT_TRUE(witness.locked().empty());
}

TEST_F(ConstantEntryPoints, TakeNoLock)
{
    send(readOf("T"), kCyclicRead);
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

TEST_F(CatalogueAccess, TakesNoNamedLock)
{
    RW_VAR request = readOf("T");
    lockAll();
    LockWitness witness;
    declareIndexed("T");
    EXPECT_TRUE(getPassVarName("T"));
    EXPECT_EQ(updateRwVar(&request), 1);
    EXPECT_TRUE(tookNoNamedLock(witness));
    unlockAll();
}

// ---- Lists and values --------------------------------------------------------------------------

TEST_F(QueueingAWrite, HoldsTheListLock)
{
    RW_VAR request = writeOf("T", "x");
    for (int mode : {0, 0, 0, 1}) {
        // While a copy of the list exists, overwriting a record detaches the list, so it is seen
        // too.
        const QList<RW_VAR> shared = PLC_driver.writeList;
        LockWitness witness;
        AddListWriteVar(&request, mode);
        EXPECT_TRUE(onlyWithinTheListLock(witness));
        EXPECT_TRUE(changedUnder(PLC_driver.listMutex, witness, PLC_driver.writeList));
    }
}

TEST_F(QueueingAOneShotRead, HoldsTheListLockOnlyInModeOne)
{
    RW_VAR request = readOf("T");
    {
        LockWitness witness;
        AddListOnceReadVar(&request, 1);
        EXPECT_TRUE(onlyWithinTheListLock(witness));
        EXPECT_TRUE(changedUnder(PLC_driver.listMutex, witness, PLC_driver.onceReadList));
    }
    LockWitness witness;
    AddListOnceReadVar(&request, 0);
    AddListReadVar(&request);
    EXPECT_TRUE(tookNoNamedLock(witness));
}

// Another thread runs between two steps of the call, wherever it takes or releases a lock.
class InterruptedCall : public Locks
{
protected:
    /// Calls `arrange`, then `call` with `other` at each of these places in turn, then `check`.
    static void interruptEverywhere(const std::function<void()>& arrange,
                                    const std::function<void()>& call,
                                    const std::function<void()>& other,
                                    const std::function<void()>& check)
    {
        int locks = 1;
        for (int place = 0; place < 2 * locks; ++place) {
            SCOPED_TRACE(place);
            arrange();
            {
                LockWitness witness;
                if (place % 2 == 0)
                    witness.beforeNextLock(other, place / 2);
                else
                    witness.afterNextUnlock(other, place / 2);
                call();
                locks = static_cast<int>(witness.locked().size());
            }
            check();
        }
        EXPECT_GE(locks, 1);
    }
    /// Calls `arrange` and `call` twice, the second time with `other` before the last lock, which
    /// is taken while the list lock is held.
    static void interruptBeforeTheLastLock(const std::function<void()>& arrange,
                                           const std::function<void()>& call,
                                           const std::function<void()>& other)
    {
        arrange();
        std::size_t locks = 0;
        {
            LockWitness witness;
            call();
            locks = witness.locked().size();
        }
        ASSERT_GT(locks, 0u);
        arrange();
        bool interrupted = false;
        LockWitness witness;
        witness.beforeNextLock(
            [&] {
                interrupted = !isFree(PLC_driver.listMutex);
                other();
            },
            static_cast<int>(locks) - 1);
        call();
        EXPECT_TRUE(interrupted);
    }
    static void clearLists()
    {
        PLC_driver.readList.clear();
        PLC_driver.onceReadList.clear();
    }
};

TEST_F(InterruptedCall, QueuesNoOneShotReadTwice)
{
    interruptEverywhere(
        clearLists,
        [&] {
            RW_VAR request = readOf("T");
            EXPECT_EQ(AddListOnceReadVar(&request, 0), 1);
        },
        [&] {
            RW_VAR same = readOf("T");
            AddListOnceReadVar(&same, 0);
        },
        [] { EXPECT_EQ(PLC_driver.onceReadList.size(), 1); });
}

TEST_F(InterruptedCall, QueuesNoOneShotReadBeyondTheLimit)
{
    interruptEverywhere(
        [&] {
            clearLists();
            for (int i = 0; i < 1023; ++i)
                PLC_driver.onceReadList.append(ofVariable(readOf("T"), 1, i));
        },
        [&] {
            RW_VAR request = ofVariable(readOf("T"), 2, 1);
            EXPECT_EQ(AddListOnceReadVar(&request, 0), 1024);
        },
        [&] {
            RW_VAR late = ofVariable(readOf("T"), 3, 1);
            AddListOnceReadVar(&late, 0);
        },
        [] { EXPECT_EQ(PLC_driver.onceReadList.size(), 1024); });
}

TEST_F(InterruptedCall, ReturnsThePlaceOfItsOwnRequest)
{
    const std::function<int(RW_VAR&)> cyclic = [](RW_VAR& request) {
        return AddListReadVar(&request);
    };
    const std::function<int(RW_VAR&)> once = [](RW_VAR& request) {
        return AddListOnceReadVar(&request, 0);
    };
    const std::function<int(RW_VAR&)> onceUnchanged = [](RW_VAR& request) {
        return AddListOnceReadVar(&request, 1);
    };
    // The second call takes no lock that the first one may hold.
    for (const auto& [append, other, list] :
         {std::make_tuple(cyclic, cyclic, &PLC_driver.readList),
          std::make_tuple(once, once, &PLC_driver.onceReadList),
          std::make_tuple(onceUnchanged, once, &PLC_driver.onceReadList)})
    {
        int length = 0;
        interruptEverywhere(
            clearLists,
            [&, append = append] {
                RW_VAR request = ofVariable(readOf("T"), 1, 1);
                length = append(request);
            },
            [&, other = other] {
                RW_VAR late = ofVariable(readOf("L"), 1, 2);
                other(late);
            },
            [&, list = list] {
                EXPECT_EQ(list->size(), 2);
                EXPECT_EQ(tagsOf(*list).indexOf('T') + 1, length);
            });
    }
}

TEST_F(InterruptedCall, ReturnsTheLengthThatItSaw)
{
    RW_VAR late = readOf("L");
    for (const bool rebuild : {false, true}) {
        LockWitness witness;
        PLC_driver.readList = {readOf("A"), readOf("B")};
        witness.afterNextUnlock([&] { AddListReadVar(&late); });
        EXPECT_EQ(rebuild ? ReCreatReadVarList(nullptr) : AddListReadVar(nullptr), 2);
        for (int mode : {0, 1}) {
            PLC_driver.onceReadList = {readOf("A")};
            witness.afterNextUnlock([&] { AddListOnceReadVar(&late, 0); });
            EXPECT_EQ(AddListOnceReadVar(nullptr, mode), 1);
            PLC_driver.writeList = {writeOf("A", "x")};
            witness.afterNextUnlock([&] { AddListWriteVar(&late, 1); });
            EXPECT_EQ(AddListWriteVar(nullptr, mode), 1);
        }
    }
}

TEST_F(InterruptedCall, CountsWhatIsQueuedBeforeItsFirstLock)
{
    RW_VAR late = readOf("L");
    for (const bool rebuild : {false, true}) {
        PLC_driver.readList = {readOf("A"), readOf("B")};
        LockWitness witness;
        witness.beforeNextLock([&] { AddListReadVar(&late); });
        EXPECT_EQ(rebuild ? ReCreatReadVarList(nullptr) : AddListReadVar(nullptr), 3);
    }
    for (int mode : {0, 1}) {
        PLC_driver.onceReadList = {readOf("A")};
        PLC_driver.writeList = {writeOf("A", "x")};
        LockWitness witness;
        witness.beforeNextLock([&] { AddListOnceReadVar(&late, 1); });
        EXPECT_EQ(AddListOnceReadVar(nullptr, mode), 2);
        witness.beforeNextLock([&] { AddListWriteVar(&late, 1); });
        EXPECT_EQ(AddListWriteVar(nullptr, mode), 2);
    }
}

TEST_F(InterruptedCall, FindsAStationThatIsDisabledBeforeItsLock)
{
    LockWitness witness;
    witness.beforeNextLock([] { EnCommStation(4, 0); });
    EXPECT_TRUE(Ethernetcontains(4));
}

TEST_F(InterruptedCall, CountsAReplyForTheListOfThatMoment)
{
    QList<HOSTVAR> variables = {hostVar("a", "0", 1), hostVar("b", "0", 1)};
    bool rebuilt = false, wasUncounted = false;
    int countedForTheNewList = 0;
    interruptEverywhere(
        [&] {
            restart();
            connectStation();
            send(readOf("T"), kCyclicRead)->replyLength = kGood.size();
            settings.passComplete = 1;
            PLC_driver.errorFlag = true;
            rebuilt = false;
        },
        [&] { deliver(kGood); },
        [&] {
            wasUncounted = PLC_driver.errorFlag; // cleared in the step that counts the reply
            rebuilt = isFree(PLC_driver.listMutex);
            if (rebuilt)
                ReCreatReadVarList(&variables);
        },
        [&] {
            EXPECT_EQ(PLC_driver.readCycleCount, rebuilt && wasUncounted ? 1 : 0);
            countedForTheNewList += PLC_driver.readCycleCount;
        });
    EXPECT_GT(countedForTheNewList, 0);
}

TEST_F(InterruptedCall, NotesAFailureInOneStep)
{
    interruptEverywhere(
        [&] {
            restart();
            connectStation();
            sendUnanswerable(readOf("T"), kCyclicRead);
            settings.passComplete = 1;
            PLC_driver.readCycleCount = 1;
        },
        [&] { timeOut(); },
        [&] {
            EXPECT_EQ(settings.passComplete, PLC_driver.errorFlag ? 0 : 1);
            EXPECT_EQ(PLC_driver.readCycleCount, PLC_driver.errorFlag ? 0 : 1);
        },
        [] { EXPECT_TRUE(PLC_driver.errorFlag); });
}

TEST_F(InterruptedCall, RetiresACyclicReadThatIsListedBeforeItsLastLock)
{
    RW_VAR late = readOf("late");
    interruptBeforeTheLastLock(
        [&] {
            send(readOf("T"), kCyclicRead)->replyLength = kGood.size();
            PLC_driver.readList.clear();
            PLC_driver.result.tagName = "before";
        },
        [&] { deliver(kGood); }, [&] { AddListReadVar(&late); });
    EXPECT_EQ(PLC_driver.result.tagName, QString("late"));
}

TEST_F(InterruptedCall, DropsAOneShotReadThatIsQueuedBeforeItsLastLock)
{
    settings.retryLimit = 0;
    RW_VAR late = readOf("T", 7);
    interruptBeforeTheLastLock(
        [&] {
            connectStation();
            PLC_driver.onceReadList.clear();
            sendUnanswerable(readOf("T"), kOneShotRead);
        },
        [&] { timeOut(); }, [&] { AddListOnceReadVar(&late, 0); });
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
}

TEST_F(InterruptedCall, ReplacesAWriteThatIsQueuedBeforeItsLock)
{
    RW_VAR first = writeOf("T", "1", 7), second = writeOf("T", "2", 7);
    PLC_driver.writeList = {writeOf("head", "x")};
    LockWitness witness;
    witness.beforeNextLock([&] { AddListWriteVar(&first, 1); });
    EXPECT_EQ(AddListWriteVar(&second, 0), 2);
    EXPECT_EQ(PLC_driver.writeList.last().data, QByteArray("2"));
}

TEST_F(InterruptedCall, CompletesNoCycleOfAListThatIsRebuiltWhileAReplyIsCounted)
{
    QList<HOSTVAR> variables = {hostVar("a", "0", 1), hostVar("b", "0", 1), hostVar("c", "0", 1)};
    bool rebuilt = false;
    int rebuilds = 0;
    interruptEverywhere(
        [&] {
            restart();
            connectStation();
            send(readOf("T"), kCyclicRead)->replyLength = kGood.size();
            PLC_driver.readCycleCount = 1; // the reply completes the cycle of the old list
            rebuilt = false;
        },
        [&] {
            QByteArray reply = kGood;
            DataCom(&reply, reply.size());
        },
        [&] {
            rebuilt = isFree(PLC_driver.listMutex);
            if (rebuilt)
                rebuilds += ReCreatReadVarList(&variables) == variables.size();
        },
        [&] {
            EXPECT_EQ(settings.passComplete, rebuilt ? 0 : 1);
            EXPECT_EQ(PLC_driver.readList.size(), rebuilt ? 3 : 1);
        });
    EXPECT_GT(rebuilds, 5);
}

TEST_F(RebuildingTheCyclicList, HoldsTheListLock)
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
        EXPECT_TRUE(onlyWithinTheListLock(witness)) << empty;
        EXPECT_EQ(witness.unguardedValueChanges(), 0) << empty;
    }
    LockWitness witness;
    ReCreatReadVarList(nullptr);
    EXPECT_TRUE(onlyWithinTheListLock(witness));
}

TEST_F(ReadingAValue, HoldsTheValueLockThroughout)
{
    confirm("T", 3, 0xC3);
    PLCDataStorage[1].tagData["T"] = hex("01 02");
    for (const char* tag : {"T", "unknown"}) {
        QByteArray out;
        LockWitness witness;
        EXPECT_EQ(GetRegisterData(tag, 0, "0", 1, out, 1), tag == QString("T") ? 1 : 0);
        EXPECT_EQ(witness.locked().front(), &PLC_driver.dataMutex);
        EXPECT_EQ(timesDataLocked(witness), 1);
        EXPECT_EQ(timesListLocked(witness), 0);
        for (std::size_t i = 1; i < witness.locked().size(); ++i)
            EXPECT_TRUE(witness.nested(PLC_driver.dataMutex, *witness.locked()[i]));
        EXPECT_TRUE(witness.balanced());
    }
}

TEST_F(ReadingAValue, ReleasesTheValueLockOnlyWhenTheValueIsInTheHostsBuffer)
{
    for (int typeClass : {0, 1, 2, 3, 4, 5, 0xFF}) {
        confirm("T", static_cast<quint8>(typeClass), 0xC3);
        PLCDataStorage[1].tagData["T"] = hex("01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10");
        for (const char* tag : {"T", "unknown"}) {
            for (int count : {4, 0}) {
                for (const char* before : {"", "the bytes of another value"}) {
                    QByteArray out = before;
                    LockWitness witness;
                    witness.watch([&] { return wire::text(out); }, PLC_driver.dataMutex);
                    GetRegisterData(tag, 0, "0", 1, out, count);
                    EXPECT_EQ(witness.unguardedValueChanges(), 0)
                        << typeClass << ' ' << tag << ' ' << count << ' ' << before;
                }
            }
        }
    }
}

TEST_F(SettingAValue, TakesOnlyTheListLockAndOnlyToQueueTheWrite)
{
    const QByteArray value = "x";
    for (int mode : {2, 0}) {
        settings.writeMode = mode;
        LockWitness witness;
        SetRegisterData("T", 5, "0", 1, value, 1, 3, 1);
        EXPECT_EQ(timesListLocked(witness), mode == 2 ? 1 : 0);
        EXPECT_EQ(timesDataLocked(witness), 0);
        EXPECT_EQ(timesStationLocked(witness), 0);
        EXPECT_NE(witness.locked().front(), &PLC_driver.listMutex)
            << "the request is completed first";
        EXPECT_FALSE(witness.nested(PLC_driver.listMutex, *witness.locked().front()));
        EXPECT_TRUE(witness.balanced());
    }
}

TEST_F(Encoders, TakeNoNamedLock)
{
    RW_VAR read = readOf("T"), write = writeOf("T", "x");
    LockWitness witness;
    ReadRegister(&read);
    WriteRegister(&write);
    HandshakeFunction(1);
    EXPECT_TRUE(tookNoNamedLock(witness));
    EXPECT_EQ(PLC_driver.sendQueue.size(), 4);
}

// ---- Poll cycle --------------------------------------------------------------------------------

TEST_F(ChoosingTheNextRequest, HoldsTheListLockForAnyList)
{
    for (int list : {int(kCyclicRead), int(kWrite), int(kOneShotRead)}) {
        PLC_driver.sendQueue.clear();
        PLC_driver.readList.clear();
        PLC_driver.writeList.clear();
        PLC_driver.onceReadList.clear();
        LockWitness witness;
        EXPECT_NE(send(list == kWrite ? writeOf("T", "x") : readOf("T"), list), nullptr);
        EXPECT_TRUE(onlyWithinTheListLock(witness)) << list;
        EXPECT_TRUE(witness.nested(PLC_driver.listMutex, PLC_driver.stationMutex));
        EXPECT_FALSE(witness.nested(PLC_driver.stationMutex, PLC_driver.listMutex));
    }
}

TEST_F(ChoosingTheNextRequest, ReleasesTheListLockOnlyWhenTheFrameIsQueued)
{
    for (const bool connected : {true, false}) {
        for (int list : {int(kCyclicRead), int(kWrite), int(kOneShotRead)}) {
            restart();
            if (connected)
                connectStation();
            LockWitness witness;
            witness.watch([] { return sentFrames() + std::to_string(PLC_driver.currentList); },
                          PLC_driver.listMutex);
            witness.watch([] { return PLC_driver.writeBurst; }, PLC_driver.listMutex);
            witness.watch([] { return PLC_driver.onceBurst; }, PLC_driver.listMutex);
            send(list == kWrite ? writeOf("T", "x") : readOf("T"), list);
            EXPECT_EQ(PLC_driver.sendQueue.size(), connected ? 1 : 2);
            EXPECT_EQ(witness.unguardedValueChanges(), 0) << list;
        }
    }
}

TEST_F(ChoosingTheNextRequest, ServesWhatIsQueuedBeforeItLooks)
{
    RW_VAR read = readOf("late"), write = writeOf("late", "x");
    struct
    {
        const char* list;
        std::function<void()> queue;
        int lastLock; // the one under which the list is looked at
    } const cases[] = {
        {"writes", [&] { AddListWriteVar(&write, 0); }, 0},
        {"one-shots", [&] { AddListOnceReadVar(&read, 0); }, 1},
        {"cyclic", [&] { AddListReadVar(&read); }, 2},
    };
    for (const auto& [list, queue, lastLock] : cases) {
        for (int lock = 0; lock <= lastLock; ++lock) {
            restart();
            connectStation();
            LockWitness witness;
            witness.beforeNextLock(queue, lock);
            const Protocol* sent = ComCommunication();
            ASSERT_NE(sent, nullptr) << list << ", before lock " << lock;
            EXPECT_EQ(sent->var.tagName, QString("late"));
        }
    }
}

TEST_F(ChoosingTheNextRequest, ServesTheCyclicListThatReplacesTheOldOneBeforeItLooks)
{
    PLC_driver.readList = {readOf("old")};
    QList<HOSTVAR> variables = {hostVar("new", "0", 1)};
    settings.defaultStation = 1;
    LockWitness witness;
    witness.beforeNextLock([&] { ReCreatReadVarList(&variables); });
    EXPECT_EQ(ComCommunication()->var.tagName, QString("new"));
}

TEST_F(ChoosingTheNextRequest, HoldsTheListLockWhenEveryStationIsDisabled)
{
    EnCommStation(1, 0);
    PLC_driver.readList.append(readOf("T"));
    LockWitness witness;
    EXPECT_EQ(ComCommunication(), nullptr);
    EXPECT_TRUE(onlyWithinTheListLock(witness));
}

TEST_F(ChoosingTheNextRequest, TakesNoNamedLockWhileAFrameIsPending)
{
    send(readOf("T"), kCyclicRead);
    LockWitness witness;
    ComCommunication();
    EXPECT_TRUE(tookNoNamedLock(witness));
}

TEST_F(RefreshCallback, RunsUnderTheListLockWhenAWriteIsSent)
{
    static bool held;
    held = false;
    PLC_driver.refreshCallback = [](QList<RW_VAR>*, int, int) {
        held = !PLC_driver.listMutex.tryLock();
    };
    send(writeOf("T", "x"), kWrite);
    EXPECT_TRUE(held);
}

TEST_F(HandlingAReply, TakesTheListLockOnlyToCompleteTheRequest)
{
    {
        LockWitness witness;
        deliver(kGood);
        EXPECT_EQ(timesListLocked(witness), 0) << "nothing in flight";
    }
    send(readOf("T"), kCyclicRead);
    for (const QByteArray& reply : {kBad, kGood}) {
        LockWitness witness;
        QByteArray bytes = reply;
        DataCom(&bytes, bytes.size());
        EXPECT_TRUE(tookNoNamedLock(witness)) << "the reply is only checked";
    }
    LockWitness witness;
    QByteArray bytes = kGood;
    DataCom(&bytes, bytes.size());
    EXPECT_EQ(timesListLocked(witness), 1);
    EXPECT_FALSE(witness.nested(PLC_driver.listMutex, PLC_driver.dataMutex));
    EXPECT_TRUE(witness.balanced());
}

TEST_F(HandlingAReply, TakesTheListLockOnceForAFrameThatOthersFollow)
{
    send(writeOf("T", "x"), kWrite);
    PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
    settings.frameCount = 2;
    deliver(kGood);
    LockWitness witness;
    QByteArray bytes = kGood;
    DataCom(&bytes, bytes.size());
    EXPECT_EQ(PLC_driver.writeList.size(), 1);
    EXPECT_EQ(timesListLocked(witness), 1);
    EXPECT_TRUE(witness.balanced());
}

// DataCom sets the result to 1 before it takes a lock. So the result is 1 before, and the request's
// own code is another one.

TEST_F(HandlingAReply, ReleasesTheListLockOnlyWhenListsAndResultAreWritten)
{
    for (int list : {int(kCyclicRead), int(kWrite), int(kOneShotRead)}) {
        for (const bool local : {true, false}) {
            for (int frames : {1, 2}) {
                restart();
                connectStation();
                RW_VAR request = list == kWrite ? writeOf("T", "x") : readOf("T");
                request.retValue = 88;
                request.linkId = local ? settings.localLink : settings.localLink + 1;
                send(request, list)->replyLength = kGood.size();
                settings.frameCount = frames;
                PLC_driver.result.retValue = 1;
                LockWitness witness;
                witness.watch(listsAndResult, PLC_driver.listMutex);
                EXPECT_EQ(deliver(kGood), local ? 1 : 100);
                EXPECT_EQ(PLC_driver.result.tagName, QString(frames == 1 ? "T" : ""));
                EXPECT_EQ(witness.unguardedValueChanges(), 0)
                    << list << ' ' << local << ' ' << frames;
            }
        }
    }
}

TEST_F(HandlingAFailure, ReleasesTheListLockOnlyWhenListsAndResultAreWritten)
{
    for (int list : {int(kCyclicRead), int(kWrite), int(kOneShotRead)}) {
        for (int multiStation : {0, 1}) {
            restart();
            connectStation();
            settings.retryLimit = 1;
            settings.multiStation = multiStation;
            RW_VAR request = ofVariable(list == kWrite ? writeOf("T", "x") : readOf("T"), 5, 6);
            request.retValue = 88;
            sendUnanswerable(request, list);
            for (int station : {1, 2}) {
                PLC_driver.writeList.append(ofVariable(writeOf("W", "x"), 5, 6, station));
                PLC_driver.onceReadList.append(ofVariable(readOf("O"), 5, 6, station));
            }
            for (const int code : {0, 46}) {
                PLC_driver.result.retValue = 1;
                LockWitness witness;
                witness.watch(listsAndResult, PLC_driver.listMutex);
                EXPECT_EQ(timeOut(), code);
                EXPECT_EQ(witness.unguardedValueChanges(), 0)
                    << list << ' ' << multiStation << ' ' << code;
            }
            EXPECT_EQ(tagsOf(PLC_driver.writeList), QString(multiStation ? "W" : ""));
            EXPECT_EQ(tagsOf(PLC_driver.onceReadList), QString(multiStation ? "O" : ""));
        }
    }
}

TEST_F(HandlingAFailure, TakesTheListLockOnceWithinTheRetryLimitAndBeyond)
{
    sendUnanswerable(readOf("T"), kCyclicRead);
    for (int i = 0; i <= settings.retryLimit; ++i) {
        LockWitness witness;
        timeOut();
        EXPECT_EQ(timesListLocked(witness), 1) << i;
        EXPECT_TRUE(witness.balanced());
    }
}

TEST_F(SettingUpAConnection, TakesNoNamedLock)
{
    HandshakeFunction(2);
    for (const QByteArray& reply :
         {wire::identityReply(1), QByteArray(), wire::forwardOpenReply(2, kId)})
    {
        LockWitness witness;
        QByteArray bytes = reply;
        DataCom(&bytes, bytes.size());
        EXPECT_TRUE(tookNoNamedLock(witness));
    }
    EXPECT_TRUE(getHandshakeInformation(2));
}

// ---- The driver's leaf locks -------------------------------------------------------------------

// Data that threads share without a named lock has a leaf lock inside the driver: one for the
// lists, one for the store.
class LeafLocks : public Locks
{
protected:
    LeafLocks()
    {
        LockWitness witness;
        AddListReadVar(nullptr);
        listLeaf = witness.locked().at(0);
        addPlcNumber(1);
        storeLeaf = witness.locked().at(1);
    }
    /// The list was changed, and only while the leaf lock of the lists was held.
    template<typename List>
    bool changedUnderTheListLeaf(const LockWitness& witness, const List& list) const
    {
        return changedUnder(*listLeaf, witness, list);
    }
    int times(const LockWitness& witness) const { return witness.timesLocked(*listLeaf); }
    bool errorFlagIsSet()
    {
        QMutexLocker lock(const_cast<QMutex*>(listLeaf));
        return PLC_driver.errorFlag;
    }

    const QMutex* listLeaf;
    const QMutex* storeLeaf;
};

using StoreLeafLock = LeafLocks;

TEST_F(LeafLocks, AreTwoAndDifferFromTheNamedLocks)
{
    EXPECT_NE(listLeaf, storeLeaf);
    for (const QMutex* own : {listLeaf, storeLeaf}) {
        EXPECT_NE(own, &PLC_driver.listMutex);
        EXPECT_NE(own, &PLC_driver.dataMutex);
        EXPECT_NE(own, &PLC_driver.stationMutex);
    }
}

TEST_F(LeafLocks, GuardEveryAppendedRequest)
{
    RW_VAR request = readOf("T");
    QList<HOSTVAR> variables = {HOSTVAR()};
    LockWitness witness;
    AddListReadVar(&request);
    EXPECT_TRUE(changedUnderTheListLeaf(witness, PLC_driver.readList));
    AddListOnceReadVar(&request, 0);
    AddListOnceReadVar(&request, 1);
    ReCreatReadVarList(&variables);
    EXPECT_TRUE(changedUnderTheListLeaf(witness, PLC_driver.onceReadList));
    EXPECT_TRUE(changedUnderTheListLeaf(witness, PLC_driver.readList));
}

TEST_F(LeafLocks, GuardEveryReadOfTheHeadOfAList)
{
    for (int list : {int(kCyclicRead), int(kOneShotRead)}) {
        PLC_driver.sendQueue.clear();
        QList<RW_VAR>& requests =
            list == kCyclicRead ? PLC_driver.readList : PLC_driver.onceReadList;
        PLC_driver.readList.clear();
        requests.append(readOf("T"));
        const QList<RW_VAR> shared = requests; // so that a non-const access detaches
        LockWitness witness;
        ComCommunication();
        EXPECT_TRUE(changedUnderTheListLeaf(witness, requests));
    }
}

TEST_F(LeafLocks, GuardEveryRequestThatIsRotatedOrDropped)
{
    EnCommStation(2, 0);
    PLC_driver.readList.append(ofVariable(readOf("a"), 1, 1, 2));
    PLC_driver.readList.append(readOf("b"));
    {
        LockWitness witness;
        ComCommunication();
        EXPECT_TRUE(changedUnderTheListLeaf(witness, PLC_driver.readList))
            << "rotated because of its station";
    }
    {
        LockWitness witness;
        answer(kGood);
        EXPECT_TRUE(changedUnderTheListLeaf(witness, PLC_driver.readList))
            << "rotated when it was answered";
    }
    PLC_driver.onceReadList.append(ofVariable(readOf("c"), 1, 1, 2));
    PLC_driver.onceReadList.append(ofVariable(readOf("d"), 1, 1));
    PLC_driver.onceReadList.append(ofVariable(readOf("e"), 1, 1));
    LockWitness witness;
    ComCommunication();
    failBeyondTheLimit();
    EXPECT_TRUE(PLC_driver.onceReadList.isEmpty());
    EXPECT_TRUE(changedUnderTheListLeaf(witness, PLC_driver.onceReadList));
}

TEST_F(LeafLocks, GuardEveryWordThatTheThreadsShare)
{
    const auto watchAll = [this](LockWitness& witness) {
        witness.watch([this] { return settings.passComplete; }, *listLeaf);
        witness.watch([] { return PLC_driver.readCycleCount; }, *listLeaf);
        witness.watch([] { return int(PLC_driver.errorFlag); }, *listLeaf);
    };
    LockWitness witness;
    watchAll(witness);
    ComCommunication();
    EXPECT_EQ(settings.passComplete, 1);
    sendUnanswerable(readOf("T"), kCyclicRead);
    timeOut();
    EXPECT_TRUE(PLC_driver.errorFlag);
    EXPECT_EQ(settings.passComplete, 0);
    for (int i = 0; i < 2; ++i) {
        PLC_driver.sendQueue.first().replyLength = kGood.size();
        deliver(kGood);
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

TEST_F(LeafLocks, GuardTheCyclicListWhileItIsEmptied)
{
    PLC_driver.readList.append(readOf("T"));
    QList<HOSTVAR> none;
    LockWitness witness;
    witness.watch([] { return PLC_driver.readList.size(); }, *listLeaf);
    ReCreatReadVarList(&none);
    EXPECT_TRUE(PLC_driver.readList.isEmpty());
    EXPECT_EQ(witness.unguardedValueChanges(), 0);
}

TEST_F(LeafLocks, GuardTheCyclicListWhileRunsAreAppended)
{
    RW_VAR run = readOf("T", 0, 20);
    QList<RW_VAR> group = {run};
    LockWitness witness;
    witness.watch([] { return PLC_driver.readList.size(); }, *listLeaf);
    addressAdd(run, 15, true);
    EXPECT_EQ(PLC_driver.readList.size(), 2);
    BitVarReCreat(group, 15);
    EXPECT_EQ(PLC_driver.readList.size(), 4);
    EXPECT_EQ(witness.unguardedValueChanges(), 0);
    EXPECT_EQ(times(witness), 2);
}

TEST_F(LeafLocks, GuardTheCycleWhileItIsRestarted)
{
    PLC_driver.readCycleCount = 5;
    settings.passComplete = 1;
    QList<HOSTVAR> variables = {HOSTVAR()};
    LockWitness witness;
    witness.watch([] { return PLC_driver.readCycleCount; }, *listLeaf);
    witness.watch([this] { return settings.passComplete; }, *listLeaf);
    ReCreatReadVarList(&variables);
    EXPECT_EQ(PLC_driver.readCycleCount, 0);
    EXPECT_EQ(settings.passComplete, 0);
    EXPECT_EQ(witness.unguardedValueChanges(), 0);
}

// Of these steps a test can see only the lock, so it counts how often the lock is taken. More often
// does no harm.

TEST_F(LeafLocks, GuardEachStepOfAnIdleCall)
{
    LockWitness witness;
    ComCommunication();
    EXPECT_GE(times(witness), 3) << "one-shots, cyclic reads, pass complete";
}

TEST_F(LeafLocks, GuardEachStepOfACompletion)
{
    send(readOf("T"), kCyclicRead);
    deliver(kGood);
    {
        LockWitness witness;
        deliver(kGood);
        EXPECT_GE(times(witness), 2) << "error flag, rotation";
    }
    PLC_driver.readList.clear();
    for (int list : {int(kWrite), int(kOneShotRead)}) {
        send(list == kWrite ? writeOf("T", "x") : readOf("T"), list);
        deliver(kGood);
        LockWitness witness;
        deliver(kGood);
        EXPECT_GE(times(witness), 5) << "error flag, head, last entry, report, removal";
    }
}

TEST_F(StoreLeafLock, IsTakenOutsideTheListLockForAnAnswerAndForAFailure)
{
    settings.retryLimit = 0;
    for (const bool answered : {true, false}) {
        connectStation(1, kId, 0x21);
        Protocol* head = sendUnanswerable(writeOf("T", "x"), kWrite);
        head->replyLength = kGood.size();
        QByteArray bytes = answered ? kGood : QByteArray();
        LockWitness witness;
        DataCom(&bytes, bytes.size());
        EXPECT_TRUE(PLC_driver.writeList.isEmpty());
        EXPECT_GE(witness.timesLocked(*storeLeaf), 2) << "read, and then advanced or marked lost";
        EXPECT_FALSE(witness.nested(PLC_driver.listMutex, *storeLeaf));
    }
}

TEST_F(LeafLocks, AllowALateRequestToPostponeTheReportOfItsVariable)
{
    int locksOfAll = 0;
    // After the search for further entries, the driver reads the error flag and removes the
    // request.
    for (int locksAfter : {-1, 1, 2}) {
        PLC_driver.onceReadList.clear();
        finished.clear();
        send(readOf("T"), kOneShotRead);
        deliver(kGood);
        RW_VAR late = readOf("U");
        late.areaType = 6;
        QByteArray reply = kGood;
        LockWitness witness;
        if (locksAfter >= 0)
            witness.beforeNextLock([&] { AddListOnceReadVar(&late, 0); },
                                   locksOfAll - 1 - locksAfter);
        DataCom(&reply, reply.size());
        EXPECT_EQ(finished.size(), locksAfter == 2 ? 0u : 1u) << locksAfter;
        EXPECT_EQ(tagsOf(PLC_driver.onceReadList), QString(locksAfter >= 0 ? "U" : ""));
        locksOfAll = static_cast<int>(witness.locked().size());
    }
}

TEST_F(LeafLocks, GuardEachStepOfAFailure)
{
    settings.retryLimit = 1;
    sendUnanswerable(readOf("T"), kCyclicRead);
    for (int least : {1, 3}) {
        LockWitness witness;
        timeOut();
        EXPECT_GE(times(witness), least) << "error flag; rotation, dropped one-shots";
    }
}

TEST_F(LeafLocks, GuardEveryReadOfTheErrorFlag)
{
    const QByteArray value = "x";
    LockWitness witness;
    SetRegisterData("T", 5, "0", 1, value, 1, 3, 1);
    EXPECT_EQ(times(witness), 1);
    RW_VAR request = writeOf("T", "x");
    WriteRegister(&request);
    EXPECT_EQ(times(witness), 2);
}

TEST_F(LeafLocks, GuardTheLengthOfTheCyclicList)
{
    QList<HOSTVAR> variables = {HOSTVAR()};
    LockWitness witness;
    ReCreatReadVarList(&variables);
    EXPECT_EQ(times(witness), 1) << "one step replaces the list, restarts the cycle and counts";
    ReCreatReadVarList(nullptr);
    EXPECT_EQ(times(witness), 2);
}

TEST_F(LeafLocks, PreventAnAppendToAHalfBuiltCyclicList)
{
    const int rebuilt = 3;
    QList<HOSTVAR> variables = {hostVar("a", "0", 1), hostVar("b", "0", 1), hostVar("c", "0", 1)};
    RW_VAR late = readOf("L");
    std::size_t locks = 1;
    for (std::size_t before = 0; before < locks; ++before) {
        PLC_driver.readList = {readOf("o")};
        int length = 0;
        LockWitness witness;
        witness.beforeNextLock([&] { length = AddListReadVar(&late); }, static_cast<int>(before));
        EXPECT_EQ(ReCreatReadVarList(&variables), rebuilt) << before;
        EXPECT_EQ(length, 2) << "appended to the old list, before lock " << before;
        EXPECT_EQ(tagsOf(PLC_driver.readList), QString("abc")) << before;
        locks = witness.locked().size();
    }
    EXPECT_GT(locks, 2u);
    EXPECT_EQ(AddListReadVar(&late), rebuilt + 1);
}

TEST_F(LeafLocks, PreventAReplyFromCompletingTheCycleOfAHalfBuiltList)
{
    QList<HOSTVAR> variables = {HOSTVAR(), HOSTVAR()};
    std::size_t locks = 1;
    for (std::size_t before = 0; before < locks; ++before) {
        PLC_driver.readList.clear();
        send(readOf("old"), kCyclicRead);
        deliver(kGood); // checked and complete, not yet stored
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
                while (errorFlagIsSet()) // DataCom clears the flag when it counts the reply
                    std::this_thread::yield();
            },
            static_cast<int>(before));
        ReCreatReadVarList(&variables);
        poll.join();
        EXPECT_EQ(settings.passComplete, 0)
            << "no variable of the new list was read, before lock " << before;
        locks = witness.locked().size();
    }
    EXPECT_GT(locks, 2u);
}

TEST_F(LeafLocks, AreReleasedBetweenTwoNamesOfACatalogue)
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
    EXPECT_EQ(witness.timesLocked(*storeLeaf), 2)
        << "a value has to wait for one name, not for all";
    EXPECT_TRUE(getPassVarName("a") && getPassVarName("c"));
}

TEST_F(LeafLocks, MakeEveryUseOfTheStoreOneStep)
{
    declareIndexed("T");
    confirm("T", 3, 0xC3);
    PLCDataStorage[1].tagData["T"] = hex("01 02");
    RW_VAR request = readOf("T");
    QByteArray reply = kGood, out;
    putInFlight(request);
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
        EXPECT_EQ(witness.timesLocked(*storeLeaf), 1) << i;
        EXPECT_EQ(witness.unguardedMapChanges(*storeLeaf), 0) << i;
        EXPECT_GT(witness.guardedNameLookups(*storeLeaf), 0) << i;
        EXPECT_EQ(witness.unguardedNameLookups(*storeLeaf), 0) << i;
        EXPECT_TRUE(witness.balanced());
    }
}

// ---- Storing a reply ---------------------------------------------------------------------------

class StoringAReply : public Locks
{
protected:
    /// How often the value lock was taken to check and store a reply.
    int timesDataLockedFor(bool local, int length, int accessMode, int reqFlag)
    {
        RW_VAR request = readOf("T");
        request.accessMode = accessMode;
        request.reqFlag = reqFlag;
        putInFlight(request, kGood.size());
        QByteArray reply = kGood;
        LockWitness witness;
        local ? DealDataOfLocalArea(&reply, length) : DealDataOfRemoteArea(&reply, length);
        EXPECT_EQ(timesListLocked(witness), 0);
        EXPECT_TRUE(witness.balanced());
        return timesDataLocked(witness);
    }
};

TEST_F(StoringAReply, HoldsTheValueLockForALocalReply)
{
    EXPECT_EQ(timesDataLockedFor(true, kGood.size(), 0, 1), 1);
    EXPECT_TRUE(PLCDataStorage[1].tagData.contains("T"));
}

TEST_F(StoringAReply, ReleasesTheValueLockOnlyWhenValueAndTypeAreStored)
{
    declareIndexed("T");
    send(readOf("T", 2), kCyclicRead);
    std::string before = stored("T");
    // The first reply creates the image, the second one makes it longer, the third one changes it.
    for (const char* value : {"01 02", "03 04 05 06", "07 08"}) {
        ComCommunication();
        QByteArray reply = wire::readReply(0x21, 0xC3, hex(value));
        PLC_driver.sendQueue.first().replyLength = reply.size();
        LockWitness witness;
        witness.watch([] { return stored("T"); }, PLC_driver.dataMutex);
        EXPECT_EQ(DataCom(&reply, reply.size())->retValue, 1);
        EXPECT_NE(stored("T"), before) << value;
        EXPECT_EQ(witness.unguardedValueChanges(), 0) << value;
        before = stored("T");
    }
}

TEST_F(StoringAReply, TakesNoValueLockWhenNothingIsStored)
{
    EXPECT_EQ(timesDataLockedFor(true, kGood.size(), 1, 1), 0) << "write";
    EXPECT_EQ(timesDataLockedFor(true, kGood.size(), 2, 1), 0) << "rejected";
    EXPECT_EQ(timesDataLockedFor(true, 0, 0, 1), 0) << "no reply";
    EXPECT_EQ(timesDataLockedFor(true, 5, 0, 1), 0) << "wrong length";
}

TEST_F(StoringAReply, TakesNoValueLockForARemoteReply)
{
    EXPECT_EQ(timesDataLockedFor(false, kGood.size(), 0, -1), 0);
    EXPECT_TRUE(PLCDataStorage[1].tagInfo.contains("T"));
}

} // namespace
