// Compares the poll cycle with a model, over long random mixes of requests, answers and failures.

#include "driver_fixture.h"

#include <rapidcheck/gtest.h>

#include <deque>
#include <set>
#include <string>
#include <tuple>
#include <vector>

using wire::hex;

namespace {

// ---- Model -------------------------------------------------------------------------------------

/// The fields of a request that the poll cycle uses; `id` identifies the request.
struct Request
{
    int id, station, varType, varIndex;
    bool local;
    std::string tag;
    bool sameVariable(const Request& o) const
    {
        return varType == o.varType && varIndex == o.varIndex;
    }
};

enum Flight { kNothing, kIdentity, kConnection, kRead, kWriting };

struct Model
{
    std::deque<Request> writes, once, cyclic;
    std::set<int> disabled, connected;
    std::set<std::pair<int, std::string>> knownTags;
    bool multiStation = true;
    int retryLimit = 0;

    Flight flight = kNothing;
    Request inFlight = {0, 0, 0, 0, true, ""};
    bool givenUp = false;
    int unanswered = 0, failures = 0;
    int list = 100, writeBurst = 0, onceBurst = 0, cycle = 0, passComplete = 0;
    Request result = {0, 0, 0, 0, false, ""};
    int code = 0;
    std::vector<std::tuple<int, int, int>> reported; // varType, varIndex, status
    std::vector<int> refreshed;                      // varType

    void poll();
    void answer();
    void failToAnswer();
    void fail(int base);

private:
    static void dropDisabled(std::deque<Request>& requests, const std::set<int>& stations);
    bool rotateToEnabled();
    void send(const Request& request, bool write);
    void complete(bool failed);
    void retire(std::deque<Request>& requests, bool failed, bool silent);
    void clearAfterFailure();
};

void Model::dropDisabled(std::deque<Request>& requests, const std::set<int>& stations)
{
    while (!requests.empty() && stations.count(requests.front().station))
        requests.pop_front();
}

// False, with the list in its old order, when every station is disabled.
bool Model::rotateToEnabled()
{
    for (std::size_t i = 0; i < cyclic.size(); ++i) {
        if (!disabled.count(cyclic.front().station))
            return true;
        cyclic.push_back(cyclic.front());
        cyclic.pop_front();
    }
    return false;
}

void Model::send(const Request& request, bool write)
{
    inFlight = request;
    givenUp = false;
    if (!connected.count(request.station)) {
        flight = kIdentity;
    } else if (write && knownTags.count({request.station, request.tag})) {
        flight = kWriting;
        refreshed.push_back(request.varType);
    } else {
        flight = kRead;
        list = write ? 0 : list;
    }
}

void Model::poll()
{
    if (flight != kNothing)
        return;
    if (!writes.empty() && writeBurst < 5) {
        list = 1;
        dropDisabled(writes, disabled);
        if (!writes.empty()) {
            send(writes.front(), true);
            ++writeBurst;
        }
    } else if (!once.empty() && onceBurst < 5) {
        list = 2;
        dropDisabled(once, disabled);
        if (!once.empty()) {
            send(once.front(), false);
            ++onceBurst;
        }
    } else if (cyclic.empty()) {
        writeBurst = onceBurst = 0;
        passComplete = 1;
    } else {
        list = 0;
        if (rotateToEnabled()) {
            send(cyclic.front(), false);
            writeBurst = onceBurst = 0;
        }
    }
}

void Model::retire(std::deque<Request>& requests, bool failed, bool silent)
{
    if (requests.empty())
        return;
    const Request head = requests.front();
    requests.pop_front();
    bool continues = false;
    for (const Request& later : requests)
        continues = continues || later.sameVariable(head);
    if (!silent && (failed || !continues))
        reported.emplace_back(head.varType, head.varIndex, failed ? 2 : 1);
    result = head;
}

void Model::complete(bool failed)
{
    if (list == 1)
        retire(writes, failed, false);
    else if (list == 2)
        retire(once, failed, !inFlight.local);
    else if (list == 0 && !cyclic.empty()) {
        result = cyclic.front();
        cyclic.push_back(result);
        cyclic.pop_front();
    }
}

void Model::answer()
{
    code = 1;
    if (flight == kIdentity || flight == kConnection) {
        unanswered = 0;
        if (flight == kConnection)
            connected.insert(inFlight.station);
        flight = flight == kIdentity ? kConnection : kNothing;
        return;
    }
    if (givenUp)
        return fail(inFlight.local ? 70 : 170);
    unanswered = 0;
    if (inFlight.local && flight == kRead)
        knownTags.insert({inFlight.station, inFlight.tag});
    flight = kNothing;
    if (passComplete == 0 && inFlight.local && ++cycle > static_cast<int>(cyclic.size())) {
        cycle = 0;
        passComplete = 1;
    }
    complete(false);
    code = inFlight.local ? 1 : 100;
}

// The reply has no bytes, or too few.
void Model::failToAnswer()
{
    if (flight == kIdentity) {
        flight = kNothing;
        code = 201;
    } else if (flight == kConnection) {
        code = 201;
        if (++unanswered == 4) {
            unanswered = 0;
            flight = kNothing;
        }
    } else if (givenUp) {
        fail(inFlight.local ? 40 : 140);
    } else {
        givenUp = ++unanswered == 11;
        code = givenUp ? 1 : 0;
        unanswered %= 11;
    }
}

void Model::fail(int base)
{
    cycle = passComplete = 0;
    code = 0;
    if (++failures <= retryLimit)
        return;
    failures = 0;
    connected.erase(inFlight.station);
    flight = kNothing;
    complete(true);
    clearAfterFailure();
    code = base + 1 + inFlight.varType;
}

void Model::clearAfterFailure()
{
    refreshed.push_back(result.varType);
    std::deque<Request> keptOnce, keptWrites;
    for (const Request& request : once) {
        const bool station = !multiStation || request.station == result.station;
        if (!station || !request.sameVariable(result))
            keptOnce.push_back(request);
    }
    for (const Request& request : writes) {
        if (multiStation && request.station != result.station)
            keptWrites.push_back(request);
    }
    once = keptOnce;
    writes = keptWrites;
}

// ---- The driver and the model ---------------------------------------------------------------

class PollCycle : public DriverTest
{
protected:
    RW_VAR recordOf(const Request& request)
    {
        RW_VAR record = readOf(request.tag.c_str());
        record.hostField3 = request.id;
        record.stationNo = request.station;
        record.varType = request.varType;
        record.varIndex = request.varIndex;
        record.linkId = request.local ? settings.localLink : 99;
        return record;
    }
    Request anyRequest()
    {
        return {++ids,
                *rc::gen::element(1, 2, 3),
                *rc::gen::element(1, 2),
                *rc::gen::element(0, 1, 2),
                *rc::gen::weightedElement<bool>({{6, true}, {1, false}}),
                *rc::gen::element<std::string>("a", "b", "c")};
    }
    void add()
    {
        const Request request = anyRequest();
        RW_VAR record = recordOf(request);
        switch (*rc::gen::weightedElement<int>({{4, 0}, {4, 1}, {1, 2}})) {
        case 0:
            record.accessMode = 1;
            record.data = "x";
            AddListWriteVar(&record, 1);
            model.writes.push_back(request);
            break;
        case 1:
            AddListOnceReadVar(&record, 1);
            model.once.push_back(request);
            break;
        default:
            AddListReadVar(&record);
            model.cyclic.push_back(request);
            break;
        }
    }
    void enableOrDisable()
    {
        const int station = *rc::gen::element(1, 2, 3);
        const bool enable = *rc::gen::element(true, true, false);
        EnCommStation(station, enable);
        if (enable)
            model.disabled.erase(station);
        else
            model.disabled.insert(station);
    }
    void deliver(QByteArray reply) { DataCom(&reply, reply.size()); }
    void answerCorrectly()
    {
        const bool alreadyGivenUp = model.givenUp;
        switch (model.flight) {
        case kIdentity:
            deliver(wire::identityReply(1));
            break;
        case kConnection:
            deliver(wire::forwardOpenReply(1, hex("5A 3C")));
            break;
        default:
            const QByteArray reply = model.flight == kWriting
                                         ? wire::writeReply(1)
                                         : wire::readReply(1, 0xC3, hex("01 02"));
            if (!alreadyGivenUp)
                deliver(reply);
            deliver(reply);
            break;
        }
        model.answer();
    }
    void failToAnswer(int times)
    {
        for (int i = 0; i < times && model.flight != kNothing; ++i) {
            deliver(QByteArray());
            model.failToAnswer();
        }
    }
    void pollAndAnswer()
    {
        model.poll();
        const Protocol* next = ComCommunication();
        RC_ASSERT((next != nullptr) == (model.flight != kNothing));
        if (!next)
            return;
        RC_ASSERT(next->var.stationNo == model.inFlight.station);
        const bool settingUp = model.flight == kIdentity || model.flight == kConnection;
        RC_ASSERT(settingUp || next->var.hostField3 == model.inFlight.id);
        RC_ASSERT(next->var.accessMode == (model.flight == kWriting ? 1 : 0));
        const int incompleteReplies =
            *rc::gen::weightedElement<int>({{30, 0}, {1, 1}, {2, 4}, {2, 12}});
        if (incompleteReplies == 0)
            answerCorrectly();
        else
            failToAnswer(incompleteReplies);
        RC_ASSERT(PLC_driver.result.retValue == model.code);
    }

    static std::string idsOf(const QList<RW_VAR>& list)
    {
        std::string text;
        for (const RW_VAR& record : list)
            text += std::to_string(record.hostField3) + " ";
        return text;
    }
    static std::string idsOf(const std::deque<Request>& requests)
    {
        std::string text;
        for (const Request& request : requests)
            text += std::to_string(request.id) + " ";
        return text;
    }
    void compareLists()
    {
        RC_ASSERT(idsOf(PLC_driver.writeList) == idsOf(model.writes));
        RC_ASSERT(idsOf(PLC_driver.onceReadList) == idsOf(model.once));
        RC_ASSERT(idsOf(PLC_driver.readList) == idsOf(model.cyclic));
    }
    void compareState()
    {
        RC_ASSERT(PLC_driver.currentList == model.list);
        RC_ASSERT(PLC_driver.writeBurst == model.writeBurst);
        RC_ASSERT(PLC_driver.onceBurst == model.onceBurst);
        RC_ASSERT(PLC_driver.readCycleCount == model.cycle);
        RC_ASSERT(settings.passComplete == model.passComplete);
        RC_ASSERT(settings.failureCount == model.failures);
        RC_ASSERT(PLC_driver.result.hostField3 == model.result.id);
        RC_ASSERT(PLC_driver.sendQueue.isEmpty() == (model.flight == kNothing));
        for (int station : {1, 2, 3})
            RC_ASSERT(getHandshakeInformation(station) == (model.connected.count(station) > 0));
        RC_ASSERT(locksAreFree());
    }
    void compareNotices()
    {
        RC_ASSERT(finished.size() == model.reported.size());
        for (std::size_t i = 0; i < finished.size(); ++i)
            RC_ASSERT(std::make_tuple(finished[i].varType, finished[i].varIndex,
                                      finished[i].status) == model.reported[i]);
        std::vector<int> types;
        for (const Refreshed& notice : refreshed)
            types.push_back(notice.varType);
        RC_ASSERT(types == model.refreshed);
    }

    Model model;
    int ids = 0;
};

RC_GTEST_FIXTURE_PROP(PollCycle, FollowsTheModelOverALongMixOfRequestsAndFailures, ())
{
    settings.multiStation = model.multiStation = *rc::gen::arbitrary<bool>();
    settings.retryLimit = model.retryLimit = *rc::gen::element(0, 1, 2);
    const int steps = 150;
    for (int i = 0; i < steps; ++i) {
        switch (*rc::gen::weightedElement<int>({{10, 0}, {1, 1}, {1, 2}, {20, 3}})) {
        case 0:
            add();
            break;
        case 1:
            enableOrDisable();
            break;
        case 2:
            settings.passComplete = model.passComplete = 0;
            break;
        default:
            pollAndAnswer();
            break;
        }
        compareLists();
        compareState();
    }
    compareNotices();
}

} // namespace
