// Whole poll sessions: the fuzzer chooses the host's calls, the replies, the announced lengths, the
// settings and the stations. Each step checks what must hold in every session.

#include "driver_state.h"
#include "exact_bytes.h"
#include "fuzz_input.h"
#include "session_steps.h"
#include "wire.h"

namespace {

using namespace session;

const int kLongestSession = 400;
const int kLongestCyclicList = 4000;

int finishedTold;
int refreshedTold;

// The driver makes both callbacks while it holds listMutex; they may ask for a value.
void askForValue()
{
    FUZZ_CHECK(!PLC_driver.listMutex.tryLock());
    QByteArray out;
    GetRegisterData(QLatin1String("Speed"), 0, QLatin1String("0"), 1, out, 1);
}

void onFinished(int channel, int, int, int status)
{
    FUZZ_CHECK(channel == 9 && (status == 1 || status == 2));
    ++finishedTold;
    askForValue();
}

void onRefresh(QList<RW_VAR>* list, int, int flag)
{
    FUZZ_CHECK(list && list->isEmpty() && flag == 1);
    ++refreshedTold;
    askForValue();
}

// Outcome codes that DataCom may leave in its result.
bool isReturnValue(int code)
{
    static const int bases[] = {11, 41, 71, 111, 141, 171};
    for (int base : bases) {
        if (code >= base && code <= base + 11)
            return true;
    }
    return code == 0 || code == 1 || code == 100 || code == 201;
}

/// The content of the lists: their lengths and the sum of their entries.
struct Lists
{
    int reads, writes, once;
    unsigned readSum;

    static Lists now()
    {
        Lists lists = {PLC_driver.readList.size(), PLC_driver.writeList.size(),
                       PLC_driver.onceReadList.size(), 0};
        for (int i = 0; i < qMin(lists.reads, 64); ++i) {
            const RW_VAR& request = PLC_driver.readList.at(i);
            lists.readSum += 31u * static_cast<unsigned>(request.startAddress) +
                             7u * static_cast<unsigned>(request.count) +
                             static_cast<unsigned>(request.stationNo) + qHash(request.tagName);
        }
        return lists;
    }
};

class Session
{
public:
    explicit Session(FuzzInput& input) : m_input(input), m_settings()
    {
        fuzz::resetDriver(m_settings);
        m_settings.defaultStation = 1;
        m_settings.retryLimit = m_input.below(4);
        m_settings.multiStation = m_input.flag();
        m_settings.localLink = 7;
        m_settings.writeMode = 2;
        m_settings.callbackChannel = 9;
        RegistCallBackFuncIntf(onFinished, onRefresh);
        finishedTold = refreshedTold = 0;
        fuzz::setTimeOfDay(m_input.word());
    }

    void run()
    {
        for (int i = 0; i < kLongestSession && !m_input.atEnd(); ++i) {
            m_stores = PLCDataStorage;
            step();
            fuzz::checkStoresAgainst(m_stores, fuzz::kNoReply);
            fuzz::checkLocksFree();
            fuzz::checkConsistent();
        }
    }

private:
    void step()
    {
        switch (m_input.below(kSteps)) {
        case kPoll:
            return poll();
        case kGoodReply:
            return answer(composed());
        case kRawReply:
            return receiveRaw();
        case kNoReply:
            return receive(QByteArray(), 0);
        case kNullReply:
            return receiveNull();
        case kBentReply:
            return answer(bent());
        case kSetValue:
            return setValue();
        case kGetValue:
            return getValue();
        case kAddRead:
            return addRead();
        case kAddWrite:
            return addWrite();
        case kAddOnce:
            return addOnce();
        case kRebuildCyclic:
            return rebuildCyclic();
        case kPassNames:
            return passNames();
        case kEnableStation:
            return enableStation();
        case kSettings:
            return changeSettings();
        default:
            return SetComInfo(m_input.flag() ? nullptr : &m_settings);
        }
    }

    // ---- Choices of the fuzzer

    QString name()
    {
        static const char* names[] = {"Speed",     "Level", "T",   "Text",
                                      "LongTotal", "Flag",  "Arr", ""};
        const int choice = m_input.below(16);
        return choice < 8    ? QString::fromLatin1(names[choice])
               : choice == 8 ? m_input.text().left(40)
                             : QLatin1String("Speed");
    }

    QString address()
    {
        const int choice = m_input.byte();
        return choice < 0xF0   ? QString::number(choice)
               : choice < 0xFC ? QString::number(m_input.word())
               : choice < 0xFE ? QString::number(m_input.edge())
                               : m_input.text().left(12);
    }

    int station()
    {
        const int choice = m_input.byte();
        return choice < 0xF0 ? choice % 4 : m_input.edge();
    }

    RW_VAR request()
    {
        RW_VAR request = RW_VAR();
        request.varType = m_input.below(14);
        request.varIndex = m_input.below(4);
        const int rare = m_input.byte();
        request.accessMode = rare & 1 ? 1 : rare == 0xFE ? m_input.edge() : 0;
        request.linkId = rare & 2 && rare & 0x20 ? 0 : 7;
        request.reqFlag = rare & 4 ? 0 : rare == 0xF0 ? -1 : 1;
        request.onceFlag = rare & 8 ? 1 : 0;
        request.tagName = name();
        request.addressText = address();
        request.areaType = m_input.below(3);
        request.startAddress = request.addressText.toInt();
        request.stationNo = station();
        request.count = m_input.count();
        request.data = rare & 16 ? m_input.block() : QByteArray();
        return request;
    }

    QByteArray composed()
    {
        const quint16 number = m_input.word();
        switch (m_input.below(6)) {
        case 0:
            return wire::identityReply(number);
        case 1:
            return wire::forwardOpenReply(number, wire::hex("5A 3C"));
        case 2:
            return wire::writeReply(number);
        case 3:
            return wire::errorReply(number, 0x52, m_input.byte());
        default: {
            const quint16 type =
                m_input.flag() ? quint16(0xC1 + m_input.below(26)) : m_input.word();
            return wire::readReply(number, type, m_input.block());
        }
        }
    }

    QByteArray bent()
    {
        QByteArray reply = composed();
        reply.chop(m_input.below(8) == 0 ? m_input.byte() : 0);
        if (reply.isEmpty())
            return reply;
        const int index = m_input.byte() % reply.size();
        reply[index] = static_cast<char>(m_input.byte());
        return reply;
    }

    // ---- The poll pair

    void poll()
    {
        const Lists before = Lists::now();
        const bool inFlight = !PLC_driver.sendQueue.isEmpty();
        const QByteArray frame = inFlight ? PLC_driver.sendQueue.first().frame : QByteArray();
        const Protocol* next = ComCommunication();
        checkHead(next);
        const Lists after = Lists::now();
        FUZZ_CHECK(after.reads == before.reads && after.writes <= before.writes &&
                   after.once <= before.once);
        FUZZ_CHECK(before.reads > 64 || after.readSum == before.readSum);
        if (inFlight)
            FUZZ_CHECK(next->frame == frame);
        if (next)
            FUZZ_CHECK(ComCommunication() == next && PLC_driver.sendQueue.size() <= 2);
    }

    // The frame in flight has the station's current number.
    void checkHead(const Protocol* head)
    {
        FUZZ_CHECK((head == nullptr) == PLC_driver.sendQueue.isEmpty());
        if (!head)
            return;
        FUZZ_CHECK(head == &PLC_driver.sendQueue.first());
        const quint16 counter = PLCDataStorage.value(head->var.stationNo).transactionCounter;
        FUZZ_CHECK(wire::unframed(head->frame).mid(4, 2) == wire::little(counter, 2));
    }

    // As a host does it: passes a reply of varying length twice.
    void answer(const QByteArray& reply)
    {
        const bool varies =
            !PLC_driver.sendQueue.isEmpty() && PLC_driver.sendQueue.first().replyLength == -1;
        receive(reply, reply.size());
        if (varies)
            receive(reply, reply.size());
    }

    void receiveRaw()
    {
        const QByteArray reply = m_input.block();
        receive(reply, m_input.flag() ? reply.size() : m_input.count());
    }

    // On a remote link the driver stores the reply to a write, too, when the flag is -1.
    static bool storesReply(const RW_VAR& asked)
    {
        const ComInfo* settings = PLC_driver.comInfo;
        const bool remote = settings && asked.linkId != settings->localLink;
        return asked.accessMode == 0 || (asked.accessMode == 1 && remote && asked.reqFlag == -1);
    }

    void receiveNull()
    {
        const int length = m_input.count();
        receive(QByteArray(), length, true);
    }

    void receive(const QByteArray& bytes, int length, bool null = false)
    {
        fuzz::ExactBytes exact(bytes);
        QByteArray& reply = exact.bytes;
        const Lists before = Lists::now();
        const bool inFlight = !PLC_driver.sendQueue.isEmpty();
        const RW_VAR asked = inFlight ? PLC_driver.sendQueue.first().var : RW_VAR();
        // 0 for a write. A host may mark it as a read: then the driver stores its reply from the
        // start.
        const int dataStart = inFlight ? PLC_driver.sendQueue.first().auxLength : 0;
        const bool reads = inFlight && !null && storesReply(asked);

        const RW_VAR* result = DataCom(null ? nullptr : &reply, length);

        FUZZ_CHECK(result == &PLC_driver.result && isReturnValue(result->retValue));
        fuzz::checkStoresAgainst(m_stores, {inFlight, asked.stationNo, reads, asked.tagName});
        if (reads)
            checkStored(asked, dataStart, reply);
        m_stores = PLCDataStorage;
        const Lists after = Lists::now();
        FUZZ_CHECK(after.reads == before.reads && after.writes <= before.writes &&
                   after.once <= before.once);
        FUZZ_CHECK(before.reads > 64 || after.readSum == before.readSum);
        if (!inFlight)
            FUZZ_CHECK(result->retValue == 1 && before.writes == after.writes);
    }

    // The bytes that changed are the bytes of the reply, in one place and in order.
    void checkStored(const RW_VAR& asked, int dataStart, const QByteArray& reply)
    {
        const QByteArray was = m_stores.value(asked.stationNo).tagData.value(asked.tagName);
        const QByteArray is = PLCDataStorage.value(asked.stationNo).tagData.value(asked.tagName);
        if (is == was)
            return;
        FUZZ_CHECK(is.size() >= was.size());
        FUZZ_CHECK(reply.size() > dataStart + 4);
        int first = 0;
        while (first < was.size() && is.at(first) == was.at(first))
            ++first;
        int last = is.size() - 1;
        while (last > first && last < was.size() && is.at(last) == was.at(last))
            --last;
        const QByteArray changed = is.mid(first, last - first + 1);
        // A gap before the reply's place is filled with 00.
        int gap = 0;
        while (first + gap >= was.size() && gap < changed.size() && changed.at(gap) == 0)
            ++gap;
        FUZZ_CHECK(reply.contains(changed) || reply.contains(changed.mid(gap)));
    }

    // ---- The entry points that any thread may call

    void setValue()
    {
        const QString tag = name();
        const int area = m_input.below(3);
        const QString text = address();
        const int where = station();
        const QByteArray value = m_input.block();
        const int count = m_input.count();
        const int kind = m_input.below(14);
        const int before = PLC_driver.writeList.size();
        const int queued = SetRegisterData(tag, area, text, where, value, count, kind, 1);
        const int after = PLC_driver.writeList.size();
        const bool queues = PLC_driver.comInfo && m_settings.writeMode == 2;
        FUZZ_CHECK(queued == (queues ? after : 1));
        FUZZ_CHECK(after == before || (queues && after == before + 1 && after <= 1024));
    }

    void getValue()
    {
        const QString tag = name();
        const QString text = address();
        const int where = station();
        const int count = m_input.count();
        const fuzz::Stores::const_iterator station = m_stores.constFind(where);
        const bool known = station != m_stores.constEnd() && station->handshakeDone &&
                           station->tagData.contains(tag);
        QByteArray out("left over");
        FUZZ_CHECK(GetRegisterData(tag, m_input.byte(), text, where, out, count) == int(known));
        if (!known)
            FUZZ_CHECK(out == QByteArray(count < 0 || count > (1 << 24) ? 0 : 2 * count, '\0'));
        FUZZ_CHECK(out.size() <= 2 * qint64(qMax(count, 0)) + 8);
    }

    void addRead()
    {
        RW_VAR added = request();
        added.accessMode = m_input.below(16) == 0 ? 1 : 0;
        const int before = PLC_driver.readList.size();
        FUZZ_CHECK(AddListReadVar(&added) == before + 1);
        FUZZ_CHECK(PLC_driver.readList.size() == before + 1);
    }

    void addWrite()
    {
        RW_VAR added = request();
        const int mode = m_input.below(3);
        const int before = PLC_driver.writeList.size();
        const int now = AddListWriteVar(&added, mode);
        FUZZ_CHECK(now == PLC_driver.writeList.size());
        FUZZ_CHECK(now == before + 1 || (now == before && mode != 1));
    }

    void addOnce()
    {
        RW_VAR added = request();
        const int mode = m_input.below(3);
        const int before = PLC_driver.onceReadList.size();
        const int now = AddListOnceReadVar(&added, mode);
        FUZZ_CHECK(now == PLC_driver.onceReadList.size());
        FUZZ_CHECK(now == before + 1 || (now == before && mode != 1));
    }

    void rebuildCyclic()
    {
        QList<HOSTVAR> variables;
        for (int i = m_input.below(12); i > 0; --i) {
            HOSTVAR variable = HOSTVAR();
            variable.areaType = m_input.byte();
            variable.tagName = name();
            variable.addressText = address();
            variable.count = m_input.count();
            // Cutting a run of a million elements into requests is fast enough, but not thousands
            // of times a second.
            variable.count = qMin(variable.count, 3000);
            variables.append(variable);
        }
        const bool served = PLC_driver.comInfo != nullptr;
        const int before = PLC_driver.readList.size();
        const int now = ReCreatReadVarList(&variables);
        FUZZ_CHECK(now == PLC_driver.readList.size());
        FUZZ_CHECK(variables.isEmpty() ? now == 0 : served || now == before);
        FUZZ_CHECK(!served || variables.isEmpty() || m_settings.passComplete == 0);
        if (now > kLongestCyclicList)
            PLC_driver.readList = PLC_driver.readList.mid(0, 8);
        for (int i = 0; served && i < PLC_driver.readList.size(); ++i) {
            const RW_VAR& cut = PLC_driver.readList.at(i);
            FUZZ_CHECK(cut.count > 0 && cut.count <= 15);
            FUZZ_CHECK(cut.stationNo == m_settings.defaultStation);
        }
    }

    void passNames()
    {
        static const char* names[] = {"Speed",     "Level", "T",   "Text",
                                      "LongTotal", "Flag",  "Arr", ""};
        const int bits = m_input.byte();
        const int kind = m_input.below(8) == 0 ? m_input.below(4) : 2;
        QList<varName> list;
        for (int i = 0; i < 8; ++i) {
            varName entry = varName();
            entry.name = QString::fromLatin1(names[i]);
            entry.kind = kind;
            if (bits & 1 << i)
                list.append(entry);
        }
        PassVarName(&list);
        for (const varName& entry : list)
            FUZZ_CHECK(kind != 2 || getPassVarName(entry.name));
    }

    void enableStation()
    {
        const int which = station();
        const int enable = m_input.below(3);
        EnCommStation(which, enable);
        if (which >= 0 && enable < 2)
            FUZZ_CHECK(Ethernetcontains(which) == (enable == 0));
    }

    void changeSettings()
    {
        const int choice = m_input.below(6);
        const int value = m_input.byte();
        switch (choice) {
        case kDefaultStation:
            m_settings.defaultStation = value == 0xFF ? m_input.edge() : value % 4;
            break;
        case kRetryLimit:
            m_settings.retryLimit = value == 0xFF ? m_input.edge() : value % 6;
            break;
        case kMultiStation:
            m_settings.multiStation = value % 3;
            break;
        case kRemoteMode:
            m_settings.remoteMode = value == 0xFF;
            break;
        case kLocalLink:
            m_settings.localLink = value < 0xF0 ? 7 : 0;
            break;
        default:
            m_settings.writeMode = value % 8 == 7 ? m_input.edge() : 2;
            break;
        }
    }

    FuzzInput& m_input;
    ComInfo m_settings;
    /// The stores before the step or after its last reply.
    fuzz::Stores m_stores;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    FuzzInput input(bytes, size);
    Session(input).run();
    return 0;
}
