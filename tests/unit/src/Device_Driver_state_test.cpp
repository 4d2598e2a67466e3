// What each step of the poll cycle changes, and that it changes nothing else: the whole state that
// a host can see is compared before and after each step.

#include "dispatcher_fixture.h"
#include "fixed_time_of_day.h"
#include "serial_numbers.h"

#include <functional>
#include <map>

using wire::hex;

namespace {

/// Everything that the driver keeps, with the host's settings record. The list of disabled
/// stations, the callbacks and the spare members are in it, too.
struct VisibleState
{
    ComInfo settings;
    QList<RW_VAR> readList, writeList, onceReadList, spareList;
    QList<Protocol> sendQueue;
    RW_VAR result;
    int currentList, writeBurst, onceBurst, readCycleCount;
    bool errorFlag, spareFlag;
    QMap<int, PLCTAGCOMMUNICATION> store;
    std::string rest;
    QList<int> finished;  ///< channel, varType, varIndex and status of each call
    QList<int> refreshed; ///< varType of each call
};

std::string textOf(const QList<RW_VAR>& list)
{
    std::string text;
    for (const RW_VAR& request : list)
        text += "\n    " + fieldsOf(request);
    return text;
}

std::string textOf(const QList<Protocol>& queue)
{
    std::string text;
    for (const Protocol& sent : queue) {
        text += "\n    " + wire::text(sent.frame);
        for (int number : {sent.sendLength, sent.replyLength, sent.auxLength, sent.auxFlag,
                           sent.reserve1, sent.reserve2, sent.reserve3})
            text += ' ' + std::to_string(number);
        text += ' ' + fieldsOf(sent.var);
    }
    return text;
}

std::string textOf(const QMap<QString, QByteArray>& values)
{
    std::string text;
    for (auto value = values.begin(); value != values.end(); ++value)
        text += ' ' + value.key().toStdString() + "=" + wire::text(*value);
    return text;
}

std::string textOf(const QMap<int, PLCTAGCOMMUNICATION>& store)
{
    std::string text;
    for (auto station = store.begin(); station != store.end(); ++station) {
        text += "\n    " + std::to_string(station.key()) + (station->handshakeDone ? " up " : " ") +
                std::to_string(station->transactionCounter) + " id " +
                wire::text(station->connectionId) + " data" + textOf(station->tagData) + " info" +
                textOf(station->tagInfo);
    }
    return text;
}

std::string textOf(const QList<int>& numbers)
{
    std::string text;
    for (int number : numbers)
        text += ' ' + std::to_string(number);
    return text;
}

typedef std::map<std::string, std::string> NamedValues;

void addWords(NamedValues& values, const ComInfo& settings)
{
    static_assert(sizeof settings == 19 * sizeof(int), "every word is compared");
    const int* words = &settings.hostWord0;
    for (int i = 0; i < 19; ++i)
        values["settings word " + std::to_string(i)] = std::to_string(words[i]);
}

NamedValues valuesOf(const VisibleState& state)
{
    NamedValues values = {{"readList", textOf(state.readList)},
                          {"writeList", textOf(state.writeList)},
                          {"onceReadList", textOf(state.onceReadList)},
                          {"spareList", textOf(state.spareList)},
                          {"sendQueue", textOf(state.sendQueue)},
                          {"result", fieldsOf(state.result)},
                          {"currentList", std::to_string(state.currentList)},
                          {"writeBurst", std::to_string(state.writeBurst)},
                          {"onceBurst", std::to_string(state.onceBurst)},
                          {"readCycleCount", std::to_string(state.readCycleCount)},
                          {"errorFlag", std::to_string(state.errorFlag)},
                          {"spareFlag", std::to_string(state.spareFlag)},
                          {"store", textOf(state.store)},
                          {"rest", state.rest},
                          {"finished", textOf(state.finished)},
                          {"refreshed", textOf(state.refreshed)}};
    addWords(values, state.settings);
    return values;
}

/// The values that differ, for people; empty if none does.
std::string differences(const VisibleState& expected, const VisibleState& actual)
{
    std::string text;
    const NamedValues wanted = valuesOf(expected);
    for (const auto& [name, value] : valuesOf(actual)) {
        if (value != wanted.at(name))
            text += name + ": " + value + "\n  expected: " + wanted.at(name) + '\n';
    }
    return text;
}

class StateTest : public DispatcherTest
{
protected:
    /// Every word and every member has a value of its own. Station 1 is connected.
    void arrange()
    {
        restart();
        PLCDataStorage.clear();
        connectStation(1, kId, 0x21);
        connectStation(2, hex("77 88"), 0x4455);
        confirm("Elsewhere", 3, 0xC3, 2);
        PLCDataStorage[1].tagData["Other"] = hex("09 08 07");
        PLCDataStorage[2].tagData["Elsewhere"] = hex("01 02");
        declareIndexed("Array");
        EnCommStation(8, 0);
        int* words = &settings.hostWord0;
        for (int i : {0, 1, 2, 3, 4, 5, 10, 13})
            words[i] = 300 + i;
        settings.defaultStation = 306;
        settings.frameCount = 311;
        settings.framesAnswered = 312;
        PLC_driver.result = distinctRequest("before");
        PLC_driver.result.retValue = 1;
        PLC_driver.spareList.append(distinctRequest("spare"));
        PLC_driver.extendList.append(EXTENDVAR{1, 2, 3, "4"});
        PLC_driver.spareFlag = m_spareFlag = !m_spareFlag; // both values, one after the other
        PLC_driver.currentList = kNoListYet;
        PLC_driver.writeBurst = 2;
        PLC_driver.onceBurst = 3;
        LB = &settings;
        LW = words;
        RWI = &PLC_driver;
    }
    ~StateTest() override { PLC_driver.extendList.clear(); }

    VisibleState taken() const
    {
        VisibleState state = {settings,
                              PLC_driver.readList,
                              PLC_driver.writeList,
                              PLC_driver.onceReadList,
                              PLC_driver.spareList,
                              PLC_driver.sendQueue,
                              PLC_driver.result,
                              PLC_driver.currentList,
                              PLC_driver.writeBurst,
                              PLC_driver.onceBurst,
                              PLC_driver.readCycleCount,
                              PLC_driver.errorFlag,
                              PLC_driver.spareFlag,
                              PLCDataStorage,
                              restOfDriver(),
                              {},
                              {}};
        for (const Finished& call : finished)
            state.finished << call.channel << call.varType << call.varIndex << call.status;
        for (const Refreshed& call : refreshed)
            state.refreshed << call.varType;
        return state;
    }
    static std::string restOfDriver()
    {
        std::string text;
        for (const void* address : {LB, LW, RWI, static_cast<void*>(PLC_driver.comInfo),
                                    reinterpret_cast<void*>(PLC_driver.finishCallback),
                                    reinterpret_cast<void*>(PLC_driver.refreshCallback)})
            text += std::to_string(reinterpret_cast<std::uintptr_t>(address)) + ' ';
        for (const EXTENDVAR& record : PLC_driver.extendList)
            text += std::to_string(record.field1 + 10 * record.field2 + 100 * record.field3) +
                    wire::text(record.data);
        return text + textOf(PLC_driver.disabledStations.keys()) +
               textOf(PLC_driver.disabledStations.values()) +
               QStringList(plcAddList.keys()).join(' ').toStdString();
    }
    /// Makes a step and expects that it changes exactly what `changes` says.
    void expectOnly(const std::function<void()>& step,
                    const std::function<void(VisibleState&)>& changes)
    {
        finished.clear();
        refreshed.clear();
        VisibleState expected = taken();
        step();
        changes(expected);
        EXPECT_EQ(differences(expected, taken()), "");
    }
    /// Any request of the list for variable 5/6 of station 1, with values in every field that the
    /// driver copies.
    RW_VAR requestFor(int list, bool local = true)
    {
        RW_VAR request = list == kWrite ? writeOf("T", hex("01 02")) : readOf("T");
        request.varType = 5;
        request.varIndex = 6;
        request.linkId = local ? settings.localLink : settings.localLink + 1;
        request.areaType = 18;
        request.addressText = "17"; // not its start, as for a tag that is not in the catalogue
        request.onceFlag = list == kWrite ? 2 : list == kOneShotRead ? 1 : 0;
        if (list != kWrite)
            request.data = "kept in its list";
        return request;
    }
    /// Puts requests of the same and of other variables and stations into all lists.
    void appendOthers()
    {
        int number = 0;
        for (QList<RW_VAR>* list :
             {&PLC_driver.readList, &PLC_driver.onceReadList, &PLC_driver.writeList}) {
            for (int station : {1, 2}) {
                for (int varIndex : {6, 7}) {
                    RW_VAR other = distinctRequest(("other" + std::to_string(++number)).c_str());
                    other.varType = 5;
                    other.varIndex = varIndex;
                    other.stationNo = station;
                    list->append(other);
                }
            }
        }
    }
    static QList<RW_VAR>& served(VisibleState& state, int list)
    {
        return list == kWrite         ? state.writeList
               : list == kOneShotRead ? state.onceReadList
                                      : state.readList;
    }
    /// The head of the served list leaves it, or moves to its end, and becomes the result.
    static void retireHead(VisibleState& state, int list, int code)
    {
        const RW_VAR head = served(state, list).takeFirst();
        if (list == kCyclicRead)
            state.readList.append(head);
        state.result = head;
        state.result.data.clear();
        state.result.retValue = code;
    }
    /// Removes what a request of the result's variable and station takes with it when it fails.
    static void dropOthers(VisibleState& state)
    {
        const bool all = state.settings.multiStation == 0;
        const RW_VAR result = state.result;
        QList<RW_VAR> once, writes;
        for (const RW_VAR& read : state.onceReadList) {
            const bool itsVariable =
                read.varType == result.varType && read.varIndex == result.varIndex;
            if (!itsVariable || (!all && read.stationNo != result.stationNo))
                once.append(read);
        }
        for (const RW_VAR& write : state.writeList) {
            if (!all && write.stationNo != result.stationNo)
                writes.append(write);
        }
        state.onceReadList = once;
        state.writeList = writes;
    }

private:
    bool m_spareFlag = false;
};

const int kLists[] = {kCyclicRead, kWrite, kOneShotRead};

// ---- A request that is given up ----------------------------------------------------------------

class GivingUp : public StateTest
{
protected:
    /// The words that a failure changes, within the retry limit and beyond.
    static void noteFailure(VisibleState& state)
    {
        state.settings.passComplete = 0;
        state.readCycleCount = 0;
        state.errorFlag = true;
    }
    void makeFailuresVisible()
    {
        settings.passComplete = 17;
        PLC_driver.readCycleCount = 23;
        PLC_driver.errorFlag = false;
        PLC_driver.result.retValue = 55;
    }
    /// Fails the transaction in flight up to the limit and checks each step.
    void failWithinTheLimit()
    {
        for (int i = 1; i <= settings.retryLimit; ++i) {
            makeFailuresVisible();
            expectOnly([&] { timeOut(); },
                       [&](VisibleState& state) {
                           noteFailure(state);
                           state.settings.failureCount = i;
                           state.result.retValue = 0;
                       });
        }
    }
    /// Then `list` is served as the dispatcher sees it; `reported` is the finish callback's call.
    void failBeyondIt(int list, int code, const QList<int>& reported)
    {
        makeFailuresVisible();
        expectOnly([&] { timeOut(); },
                   [&](VisibleState& state) {
                       noteFailure(state);
                       state.settings.failureCount = 0;
                       state.sendQueue.clear();
                       state.store[1].handshakeDone = false;
                       state.store[1].connectionId.clear();
                       retireHead(state, list, code);
                       state.finished = reported;
                       state.refreshed = {state.result.varType};
                       dropOthers(state);
                   });
    }
};

TEST_F(GivingUp, ChangesTheAccountsOfTheRequestAndNothingElse)
{
    for (int list : kLists) {
        for (int multiStation : {0, 1, -1}) {
            for (int limit : {0, 2}) {
                for (const bool local : {true, false}) {
                    SCOPED_TRACE(testing::Message()
                                 << list << ' ' << multiStation << ' ' << limit << ' ' << local);
                    arrange();
                    settings.multiStation = multiStation;
                    settings.retryLimit = limit;
                    sendUnanswerable(requestFor(list, local), list);
                    appendOthers();
                    failWithinTheLimit();
                    const bool reports = list == kWrite || (list == kOneShotRead && local);
                    failBeyondIt(list, local ? 46 : 146,
                                 reports ? QList<int>{9, 5, 6, 2} : QList<int>());
                }
            }
        }
    }
}

TEST_F(GivingUp, ChangesTheSameWhenAllFramesOfTheRequestAreNotAnsweredYet)
{
    for (int list : kLists) {
        arrange();
        sendUnanswerable(requestFor(list), list);
        PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
        settings.frameCount = 3;
        settings.framesAnswered = 1;
        appendOthers();
        failWithinTheLimit();
        failBeyondIt(list, 46, list == kCyclicRead ? QList<int>() : QList<int>{9, 5, 6, 2});
    }
}

TEST_F(GivingUp, TheReadOfAClassRetiresTheHeadOfTheCyclicList)
{
    for (int multiStation : {0, 1}) {
        arrange();
        settings.multiStation = multiStation;
        PLC_driver.writeList.append(requestFor(kWrite));
        ComCommunication();
        PLC_driver.sendQueue.first().replyLength = 50;
        appendOthers();
        failWithinTheLimit();
        failBeyondIt(kCyclicRead, 46, {});
    }
}

TEST_F(GivingUp, ChangesOnlyTheResultWhenItsListIsEmpty)
{
    for (int list : kLists) {
        arrange();
        settings.retryLimit = 0;
        sendUnanswerable(requestFor(list), list);
        PLC_driver.readList.clear();
        PLC_driver.writeList.clear();
        PLC_driver.onceReadList.clear();
        makeFailuresVisible();
        expectOnly([&] { timeOut(); },
                   [](VisibleState& state) {
                       noteFailure(state);
                       state.sendQueue.clear();
                       state.store[1].handshakeDone = false;
                       state.store[1].connectionId.clear();
                       state.refreshed = {state.result.varType};
                       state.result.retValue = 46;
                   });
    }
}

// ---- What a callback of the host sees ----------------------------------------------------------

class InACallback : public GivingUp
{
protected:
    InACallback() { s_test = this; }
    ~InACallback() override { s_test = nullptr; }

    /// Sends the request and arranges for the callbacks to keep the state at their time.
    void prepare(int list, bool local)
    {
        arrange();
        send(requestFor(list, local), list);
        keepStates();
    }
    void keepStates()
    {
        PLC_driver.finishCallback = [](int, int, int, int) { s_test->keep("finish"); };
        PLC_driver.refreshCallback = [](QList<RW_VAR>*, int, int) { s_test->keep("refresh"); };
        PLC_driver.result.retValue = 55;
        m_seen.clear();
        finished.clear();
        refreshed.clear();
    }
    /// The next state that was kept is that of this callback, and it is as expected.
    void expectSeen(const char* callback, const VisibleState& expected)
    {
        ASSERT_FALSE(m_seen.empty()) << callback;
        EXPECT_EQ(m_seen.front().first, callback);
        EXPECT_EQ(differences(expected, m_seen.front().second), "") << callback;
        m_seen.erase(m_seen.begin());
    }
    void expectNoMore() { EXPECT_TRUE(m_seen.empty()); }

private:
    void keep(const char* callback) { m_seen.emplace_back(callback, taken()); }

    static InACallback* s_test;
    std::vector<std::pair<std::string, VisibleState>> m_seen;
};

InACallback* InACallback::s_test = nullptr;

TEST_F(InACallback, TheRequestThatIsGivenUpIsStillListedAndEverythingElseIsAsAfterwards)
{
    for (int list : kLists) {
        for (const bool local : {true, false}) {
            for (int multiStation : {0, 1}) {
                SCOPED_TRACE(testing::Message() << list << ' ' << local << ' ' << multiStation);
                prepare(list, local);
                settings.multiStation = multiStation;
                settings.retryLimit = 1;
                settings.failureCount = 1;
                PLC_driver.sendQueue.first().replyLength = 50;
                appendOthers();
                makeFailuresVisible();
                VisibleState state = taken();
                timeOut();

                noteFailure(state);
                state.settings.failureCount = 0;
                state.sendQueue.clear();
                state.store[1].handshakeDone = false;
                state.store[1].connectionId.clear();
                state.result.retValue = 1;
                if (list == kWrite || (list == kOneShotRead && local))
                    expectSeen("finish", state);
                retireHead(state, list, requestFor(list).retValue); // the code follows later
                expectSeen("refresh", state);
                expectNoMore();
            }
        }
    }
}

TEST_F(InACallback, TheRequestThatIsAnsweredIsStillListedAndEverythingElseIsAsAfterwards)
{
    for (int list : {int(kWrite), int(kOneShotRead)}) {
        for (const bool local : {true, false}) {
            prepare(list, local);
            PLC_driver.sendQueue.first().replyLength = kGood.size();
            settings.failureCount = 1;
            PLC_driver.errorFlag = true;
            PLC_driver.readList.append(distinctRequest("cyclic"));
            VisibleState state = taken();
            deliver(kGood);

            state.sendQueue.clear();
            state.settings.framesAnswered = 1;
            state.errorFlag = false;
            state.store[1].transactionCounter = 0x22;
            state.readCycleCount = local ? 1 : 0;
            if (local && list == kOneShotRead) {
                state.store[1].tagData["T"] = hex("01 02");
                state.store[1].tagInfo["T"] = hex("03 C3 00 FF");
            }
            state.result.retValue = 1;
            if (list == kWrite || local)
                expectSeen("finish", state);
            expectNoMore();
        }
    }
}

TEST_F(InACallback, TheWriteThatIsSentIsQueuedAndNotYetCounted)
{
    arrange();
    keepStates();
    confirm("T", 3, 0xC3);
    const RW_VAR request = requestFor(kWrite);
    PLC_driver.writeList.append(request);
    VisibleState state = taken();
    ComCommunication();

    state.currentList = kWrite;
    state.settings.frameCount = 1;
    state.settings.framesAnswered = 0;
    Protocol sent;
    sent.frame = wire::writeRequest(0x21, kId, wire::tagPath("T"), 0xC3, 1, hex("01 02"));
    sent.sendLength = sent.frame.size();
    sent.replyLength = -1;
    sent.var = request;
    state.sendQueue = {sent};
    expectSeen("refresh", state);
    expectNoMore();
}

// ---- A request that is answered ----------------------------------------------------------------

class Answering : public StateTest
{
};

TEST_F(Answering, ChangesTheAccountsOfTheRequestAndNothingElse)
{
    for (int list : kLists) {
        for (const bool local : {true, false}) {
            for (int passComplete : {0, 17}) {
                SCOPED_TRACE(testing::Message() << list << ' ' << local << ' ' << passComplete);
                arrange();
                settings.failureCount = 1;
                send(requestFor(list, local), list)->replyLength = kGood.size();
                appendOthers();
                // Other requests of the variable would postpone the report.
                PLC_driver.onceReadList = PLC_driver.onceReadList.mid(0, 1);
                PLC_driver.writeList = PLC_driver.writeList.mid(0, 1);
                PLC_driver.errorFlag = true;
                PLC_driver.readCycleCount = 2;
                settings.passComplete = passComplete;
                expectOnly([&] { deliver(kGood); },
                           [&](VisibleState& state) {
                               state.sendQueue.clear();
                               state.settings.framesAnswered = 1;
                               state.errorFlag = false;
                               state.store[1].transactionCounter = 0x22;
                               if (local && passComplete == 0)
                                   state.readCycleCount = 3;
                               if (local && list != kWrite) {
                                   state.store[1].tagData["T"] = hex("01 02");
                                   state.store[1].tagInfo["T"] = hex("03 C3 00 FF");
                               }
                               retireHead(state, list, local ? 1 : 100);
                               if (list == kWrite || (list == kOneShotRead && local))
                                   state.finished = {9, 5, 6, 1};
                           });
            }
        }
    }
}

TEST_F(Answering, ANullReplyToAReadOfTheExpectedLengthEndsItAndStoresNothing)
{
    for (int list : {int(kCyclicRead), int(kOneShotRead)}) {
        for (const bool local : {true, false}) {
            for (int length : {kGood.size(), 999}) {
                arrange();
                send(requestFor(list, local), list)->replyLength = length;
                expectOnly([&] { DataCom(nullptr, length); },
                           [&](VisibleState& state) {
                               state.sendQueue.clear();
                               state.settings.framesAnswered = 1;
                               state.store[1].transactionCounter = 0x22;
                               if (local && list == kCyclicRead)
                                   state.readCycleCount = 1;
                               else if (local)
                                   state.settings.passComplete = 1; // no cyclic read is listed
                               retireHead(state, list, local ? 1 : 100);
                               if (local && list == kOneShotRead)
                                   state.finished = {9, 5, 6, 1};
                           });
            }
        }
    }
}

TEST_F(Answering, OneOfTwoFramesLeavesListsAndResultAlone)
{
    for (int list : kLists) {
        arrange();
        send(requestFor(list), list)->replyLength = kGood.size();
        PLC_driver.sendQueue.append(PLC_driver.sendQueue.first());
        PLC_driver.sendQueue.last().auxLength = 7;
        settings.frameCount = 2;
        PLC_driver.result.retValue = 55;
        appendOthers();
        expectOnly([&] { deliver(kGood); },
                   [&](VisibleState& state) {
                       state.sendQueue.removeFirst();
                       state.settings.framesAnswered = 1;
                       state.store[1].transactionCounter = 0x22;
                       if (list != kWrite) {
                           state.store[1].tagData["T"] = hex("01 02");
                           state.store[1].tagInfo["T"] = hex("03 C3 00 FF");
                       }
                       state.result.retValue = 1;
                   });
    }
}

TEST_F(Answering, ACheckOfTheReplyChangesItsExpectedLengthAndTheCodeOnly)
{
    arrange();
    send(requestFor(kCyclicRead), kCyclicRead);
    appendOthers();
    for (int check = 1; check <= 11; ++check) {
        PLC_driver.result.retValue = 55;
        expectOnly([&] { deliver(kBad); },
                   [&](VisibleState& state) {
                       state.result.retValue = check == 11 ? 1 : 0;
                       state.sendQueue[0].replyLength = check == 11 ? 999 : -1;
                   });
    }
    PLC_driver.sendQueue[0].replyLength = -1;
    PLC_driver.result.retValue = 55;
    expectOnly([&] { deliver(kGood); },
               [&](VisibleState& state) {
                   state.result.retValue = 1;
                   state.sendQueue[0].replyLength = kGood.size();
               });
}

TEST_F(Answering, NothingInFlightOrNoSettingsChangesTheCodeOnly)
{
    arrange();
    appendOthers();
    PLC_driver.result.retValue = 55;
    expectOnly([&] { deliver(kGood); }, [](VisibleState& state) { state.result.retValue = 1; });
    PLC_driver.sendQueue.append(Protocol());
    SetComInfo(nullptr);
    expectOnly([&] { deliver(kGood); }, [](VisibleState& state) { state.result.retValue = 0; });
    PLC_driver.sendQueue.clear();
    expectOnly([&] { deliver(kGood); }, [](VisibleState& state) { state.result.retValue = 1; });
}

// ---- A request that is sent --------------------------------------------------------------------

class Sending : public StateTest
{
protected:
    static Protocol transaction(const QByteArray& frame, int replyLength, int auxLength,
                                const RW_VAR& request)
    {
        Protocol sent;
        sent.frame = frame;
        sent.sendLength = frame.size();
        sent.replyLength = replyLength;
        sent.auxLength = auxLength;
        sent.var = request;
        return sent;
    }
    static void beginExchange(VisibleState& state, int list, int frames)
    {
        state.settings.frameCount = frames;
        state.settings.framesAnswered = 0;
        state.currentList = list;
    }
    static void countBurst(VisibleState& state, int list)
    {
        state.writeBurst = list == kWrite ? 3 : list == kCyclicRead ? 0 : 2;
        state.onceBurst = list == kOneShotRead ? 4 : list == kCyclicRead ? 0 : 3;
    }
};

TEST_F(Sending, AReadOrAWriteQueuesItsFrameAndCountsItsBurst)
{
    for (int list : kLists) {
        SCOPED_TRACE(list);
        arrange();
        PLC_driver.errorFlag = true;
        settings.passComplete = 17;
        const RW_VAR request = requestFor(list);
        (list == kWrite         ? PLC_driver.writeList
         : list == kOneShotRead ? PLC_driver.onceReadList
                                : PLC_driver.readList)
            .append(request);
        if (list == kWrite)
            confirm("T", 3, 0xC3);
        const QByteArray path = wire::tagPath("T");
        expectOnly([] { ComCommunication(); },
                   [&](VisibleState& state) {
                       beginExchange(state, list, 1);
                       countBurst(state, list);
                       if (list == kWrite) {
                           state.sendQueue = {transaction(
                               wire::writeRequest(0x21, kId, path, 0xC3, 1, hex("01 02")), -1, 0,
                               request)};
                           state.refreshed = {5};
                       } else {
                           state.sendQueue = {
                               transaction(wire::readRequest(0x21, kId, path, 1), -1, 22, request)};
                           state.store[1].tagInfo["T"] = hex("FF");
                       }
                   });
    }
}

TEST_F(Sending, TheReadThatLearnsAClassIsTheWriteWithAnotherAccessAndStart)
{
    for (int reqFlag : {0, 1}) {
        arrange();
        RW_VAR write = requestFor(kWrite);
        write.linkId = settings.localLink + reqFlag; // local, and not local
        write.addressText = "17";
        write.startAddress = 23;
        write.count = 24;
        write.reqFlag = reqFlag;
        // A class that no reply confirmed is not believed.
        PLCDataStorage[1].tagInfo["T"] = hex("FF 00 00 00");
        PLC_driver.writeList.append(write);
        PLC_driver.readList.append(distinctRequest("cyclic"));
        PLC_driver.onceReadList.append(distinctRequest("once"));
        RW_VAR read = write;
        read.accessMode = 0;
        read.startAddress = 0;
        const int count = reqFlag == 1 ? 1 : 24;
        expectOnly(
            [] { ComCommunication(); },
            [&](VisibleState& state) {
                beginExchange(state, kCyclicRead, 1);
                countBurst(state, kWrite);
                state.sendQueue = {transaction(
                    wire::readRequest(0x21, kId, wire::tagPath("T"), static_cast<quint32>(count)),
                    -1, 22, read)};
            });
        expectOnly([&] { answer(kGood); },
                   [&](VisibleState& state) {
                       state.sendQueue.clear();
                       state.settings.framesAnswered = 1;
                       state.store[1].transactionCounter = 0x22;
                       const bool local = reqFlag == 0;
                       if (local) {
                           state.readCycleCount = 1;
                           state.store[1].tagData["T"] = hex("01 02");
                           state.store[1].tagInfo["T"] = hex("03 C3 00 FF");
                       }
                       retireHead(state, kCyclicRead, local ? 1 : 100);
                   });
    }
}

TEST_F(Sending, NothingToSendOrAFrameInFlightChangesAlmostNothing)
{
    arrange();
    settings.passComplete = 0;
    expectOnly([] { ComCommunication(); },
               [](VisibleState& state) {
                   state.settings.passComplete = 1;
                   state.writeBurst = state.onceBurst = 0;
               });
    PLC_driver.sendQueue.append(Protocol());
    appendOthers();
    settings.passComplete = 0;
    expectOnly([] { ComCommunication(); }, [](VisibleState&) {});
    SetComInfo(nullptr);
    PLC_driver.sendQueue.clear();
    expectOnly([] { ComCommunication(); }, [](VisibleState&) {});
}

// ---- A connection that is set up ---------------------------------------------------------------

class Connecting : public Sending
{
protected:
    Connecting() : m_clock(QTime(0, 0)) { setSecond(1000); }
    /// The clock runs on before each step; a frame has the serial number of a second.
    void setSecond(int second) { m_clock.setSeconds(m_second = second); }
    static QByteArray openFrame(quint16 tns, int second)
    {
        return wire::framed(wire::forwardOpenRequest(tns, serial_numbers::at(second)));
    }
    /// A read of station 1, which is not connected, asks for the connection.
    void begin()
    {
        arrange();
        PLCDataStorage[1].handshakeDone = false;
        PLCDataStorage[1].connectionId.clear();
        settings.failureCount = 1;
        PLC_driver.readCycleCount = 23;
        settings.passComplete = 17;
        PLC_driver.readList.append(requestFor(kCyclicRead));
        PLC_driver.errorFlag = true;
        PLC_driver.result.retValue = 55;
    }
    /// A reply to the frame in flight, and the changes that every one makes.
    void expectOf(const QByteArray& reply, int code, quint16 counter,
                  const std::function<void(VisibleState&)>& changes)
    {
        setSecond(m_second + 1);
        PLC_driver.result.retValue = 55;
        expectOnly([&] { deliver(reply); },
                   [&](VisibleState& state) {
                       state.result.retValue = code;
                       state.store[1].transactionCounter = counter;
                       changes(state);
                   });
    }

    int m_second;

private:
    FixedTimeOfDay m_clock;
};

TEST_F(Connecting, ChangesTheStepOfTheSetUpAndTheStationOnly)
{
    begin();
    RW_VAR ofStation = RW_VAR();
    ofStation.stationNo = 1;
    expectOnly([] { ComCommunication(); },
               [&](VisibleState& state) {
                   beginExchange(state, kCyclicRead, 2);
                   countBurst(state, kCyclicRead);
                   state.sendQueue = {
                       transaction(wire::framed(wire::identityRequest(0x21)), 61, 0, ofStation),
                       transaction(openFrame(0x22, 1000), 46, 0, ofStation)};
               });
    expectOf(wire::identityReply(0x21), 1, 0x22, [](VisibleState& state) {
        state.sendQueue.removeFirst(); // the other frame has its number and its serial already
        state.settings.framesAnswered = 1;
    });
    for (quint16 tns = 0x23; tns <= 0x25; ++tns) {
        expectOf(kBad, 201, tns,
                 [&](VisibleState& state) { state.sendQueue[0].frame = openFrame(tns, m_second); });
    }
    expectOf(wire::forwardOpenReply(0x25, hex("10 5B")), 1, 0x26, [](VisibleState& state) {
        state.sendQueue.clear();
        state.settings.framesAnswered = 2;
        state.store[1].handshakeDone = true;
        state.store[1].connectionId = hex("10 5B");
    });
}

TEST_F(Connecting, GivenUpItChangesTheQueueAndTheCounterOnly)
{
    begin();
    ComCommunication();
    expectOf(kBad, 201, 0x22, [](VisibleState& state) { state.sendQueue.clear(); });
    ComCommunication();
    expectOf(wire::identityReply(0x22), 1, 0x23, [](VisibleState& state) {
        state.sendQueue.removeFirst();
        state.settings.framesAnswered = 1;
    });
    for (quint16 tns = 0x24; tns <= 0x26; ++tns) {
        expectOf(QByteArray(), 201, tns,
                 [&](VisibleState& state) { state.sendQueue[0].frame = openFrame(tns, m_second); });
    }
    expectOf(QByteArray(), 201, 0x27, [](VisibleState& state) { state.sendQueue.clear(); });
}

// ---- The other entry points --------------------------------------------------------------------

class CallingTheDriver : public StateTest
{
protected:
    CallingTheDriver()
    {
        arrange();
        appendOthers();
        PLC_driver.readCycleCount = 23;
        settings.passComplete = 17;
        settings.failureCount = 1;
        PLC_driver.errorFlag = true;
        PLC_driver.sendQueue.append(Protocol());
    }
};

TEST_F(CallingTheDriver, ToConfigureItChangesOnlyWhatTheHostGives)
{
    const std::string all = restOfDriver();
    EnCommStation(8, 1);
    const std::string withoutStation = restOfDriver();
    expectOnly([] { EnCommStation(8, 0); }, [&](VisibleState& state) { state.rest = all; });
    expectOnly([] { EnCommStation(-1, 0); },
               [&](VisibleState& state) { state.rest = withoutStation; });
    LB = LW = RWI = nullptr;
    const std::string withoutAreas = restOfDriver();
    FlashLocalRegister(&settings, &settings, &settings);
    expectOnly([] { FlashLocalRegister(nullptr, nullptr, nullptr); },
               [&](VisibleState& state) { state.rest = withoutAreas; });
    PLC_driver.finishCallback = nullptr;
    PLC_driver.refreshCallback = nullptr;
    const std::string withoutCallbacks = restOfDriver();
    PLC_driver.finishCallback = [](int, int, int, int) {};
    PLC_driver.refreshCallback = [](QList<RW_VAR>*, int, int) {};
    expectOnly([] { RegistCallBackFuncIntf(nullptr, nullptr); },
               [&](VisibleState& state) { state.rest = withoutCallbacks; });
}

TEST_F(CallingTheDriver, ToKeepTheStoreOfAStationChangesThatStationOnly)
{
    RW_VAR request = distinctRequest("Other");
    expectOnly([&] { getTagData(&request), getAddressType(&request); }, [](VisibleState&) {});
    expectOnly([] { addPlcNumber(2); },
               [](VisibleState& state) { state.store[2].transactionCounter = 0x4456; });
    expectOnly([] { setHandshakeInformation(2, false); },
               [](VisibleState& state) {
                   state.store[2].handshakeDone = false;
                   state.store[2].connectionId.clear();
               });
    expectOnly([] { setHandshakeInformation(2, true); },
               [](VisibleState& state) { state.store[2].handshakeDone = true; });
    expectOnly([] { AddTheTagInformationContainer(2); },
               [](VisibleState& state) {
                   state.store[2] = PLCTAGCOMMUNICATION();
                   state.store[2].handshakeDone = false;
                   state.store[2].transactionCounter = 1;
               });
    expectOnly([] { getHandshakeInformation(3); },
               [](VisibleState& state) {
                   state.store[3] = PLCTAGCOMMUNICATION();
                   state.store[3].handshakeDone = false;
                   state.store[3].transactionCounter = 1;
               });
}

TEST_F(CallingTheDriver, ForWhatItLeavesToTheHostChangesNothing)
{
    RW_VAR request = distinctRequest("T");
    expectOnly(
        [&] {
            Remote_ReadVar(&request);
            Remote_WriteVar(&request);
            WriteDataToLocal(&request);
            QueryFinishFlag();
            PLCAddressChangeIntef(1, 2);
            StringAddressToInt(1, QString("2"));
        },
        [](VisibleState&) {});
    EXPECT_EQ(fieldsOf(request), fieldsOf(distinctRequest("T")));
}

TEST_F(CallingTheDriver, WithTheSameSettingsClearsTwoWordsOnly)
{
    expectOnly([&] { SetComInfo(&settings); },
               [](VisibleState& state) {
                   state.settings.clearedWord10 = state.settings.clearedWord13 = 0;
               });
    expectOnly([&] { SetComInfo(&settings); }, [](VisibleState&) {});
}

TEST_F(CallingTheDriver, ToQueueARequestChangesItsListOnly)
{
    RW_VAR request = distinctRequest("new");
    expectOnly([&] { AddListReadVar(&request); },
               [&](VisibleState& state) { state.readList.append(request); });
    expectOnly([&] { AddListOnceReadVar(&request, 1); },
               [&](VisibleState& state) { state.onceReadList.append(request); });
    expectOnly([&] { AddListWriteVar(&request, 1); },
               [&](VisibleState& state) { state.writeList.append(request); });
    expectOnly(
        [&] {
            AddListReadVar(nullptr);
            AddListOnceReadVar(nullptr, 0);
            AddListWriteVar(nullptr, 0);
            ReCreatReadVarList(nullptr);
        },
        [](VisibleState&) {});
}

TEST_F(CallingTheDriver, ToQueueACompletedReadSeedsItsTag)
{
    RW_VAR request = distinctRequest("Array");
    expectOnly([&] { AddListOnceReadVar(&request, 0); },
               [&](VisibleState& state) {
                   RW_VAR completed = distinctRequest("Array");
                   completed.startAddress = 17;
                   completed.reqFlag = 1;
                   completed.onceFlag = 1;
                   state.onceReadList.append(completed);
                   state.store[1].tagInfo["Array"] = hex("FF 00 00 00");
               });
    expectOnly([&] { AddListOnceReadVar(&request, 0); }, [](VisibleState&) {});
}

TEST_F(CallingTheDriver, ToWriteAValueChangesTheWriteListAndSeedsItsTag)
{
    settings.remoteMode = 314;
    expectOnly([] { SetRegisterData("Array", 18, "17", 2, hex("01 02"), 3, 11, 12); },
               [&](VisibleState& state) {
                   RW_VAR write = writeOf("Array", hex("01 02"), 17, 3);
                   write.varType = 11;
                   write.varIndex = 12;
                   write.hostField3 = 314;
                   write.retValue = 0;
                   write.areaType = 18;
                   write.stationNo = 2;
                   state.writeList.append(write);
                   state.store[2].tagInfo["Array"] = hex("FF 00 00 00");
               });
}

TEST_F(CallingTheDriver, ToReadAValueSeedsAnUnknownTagOnly)
{
    QByteArray out;
    expectOnly([&] { GetRegisterData("Elsewhere", 0, "0", 2, out, 1); }, [](VisibleState&) {});
    expectOnly([&] { GetRegisterData("Unknown", 0, "0", 2, out, 1); },
               [](VisibleState& state) { state.store[2].tagInfo["Unknown"] = hex("FF 00 00 00"); });
}

TEST_F(CallingTheDriver, ToRebuildTheCyclicListRestartsTheCycle)
{
    settings.defaultStation = 2;
    settings.remoteMode = 314;
    QList<HOSTVAR> variables = {hostVar("Array", "17", 3, 18)};
    expectOnly([&] { ReCreatReadVarList(&variables); },
               [&](VisibleState& state) {
                   RW_VAR read = readOf("Array", 17, 3);
                   read.varType = 0;
                   read.varIndex = -1;
                   read.hostField3 = 314;
                   read.retValue = 0;
                   read.areaType = 18;
                   read.stationNo = 2;
                   state.readList = {read};
                   state.readCycleCount = 0;
                   state.settings.passComplete = 0;
                   state.store[2].tagInfo["Array"] = hex("FF 00 00 00");
               });
    variables.clear();
    PLC_driver.readCycleCount = 23;
    settings.passComplete = 17;
    expectOnly([&] { ReCreatReadVarList(&variables); },
               [](VisibleState& state) { state.readList.clear(); });
}

} // namespace
