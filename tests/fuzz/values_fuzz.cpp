// The value and list entry points with arbitrary names, address texts, counts, stations and stored
// bytes, and the encoders with arbitrary requests, compared with the host's layout.

#include "driver_state.h"
#include "fuzz_input.h"
#include "wire.h"

namespace {

const int kLargest = 1 << 24;
const int kLongestSession = 64;

int elementSize(int typeClass)
{
    static const int sizes[] = {1, 1, 1, 2, 4, 8};
    return sizes[typeClass];
}

// The bytes that GetRegisterData must return, one after the other.
QByteArray hostBytes(int typeClass, const QByteArray& image, qint64 element, qint64 words,
                     qint64 asked)
{
    QByteArray out;
    if (typeClass > 5 || words <= 0 || words > kLargest)
        return out;
    qint64 elements = words;
    if (typeClass == 4)
        elements = (words + 1) / 2;
    if (typeClass == 5)
        elements = (words + 3) / 4;
    if (typeClass == 1)
        elements = asked < 0 || asked > kLargest ? 0 : 2 * asked;
    const bool outside = element < 0 || element > kLargest;
    const qint64 first = typeClass >= 3 ? element * elementSize(typeClass) : element;
    for (qint64 i = 0; i < elements * elementSize(typeClass); ++i) {
        const bool present = !outside && first + i < image.size();
        out.append(present ? image.at(static_cast<int>(first + i)) : '\0');
        if (typeClass == 2)
            out.append('\0');
    }
    return out;
}

class Values
{
public:
    explicit Values(FuzzInput& input) : m_input(input), m_settings()
    {
        fuzz::resetDriver(m_settings);
        m_settings.defaultStation = m_input.edge();
        m_settings.multiStation = m_input.flag();
        m_settings.writeMode = m_input.flag() ? 2 : m_input.edge();
        m_settings.remoteMode = m_input.edge();
    }

    void run()
    {
        for (int i = 0; i < kLongestSession && !m_input.atEnd(); ++i) {
            step();
            fuzz::checkLocksFree();
        }
    }

private:
    void step()
    {
        switch (m_input.below(10)) {
        case 0:
            return storeTag();
        case 1:
            return declare();
        case 2:
            return get();
        case 3:
            return get();
        case 4:
            return set();
        case 5:
            return addToLists();
        case 6:
            return encodeRead();
        case 7:
            return encodeWrite();
        case 8:
            return cutRun();
        default:
            return classify();
        }
    }

    QString name()
    {
        static const char* names[] = {"a", "Speed", "", "x[3]"};
        const int choice = m_input.below(8);
        return choice < 4   ? QString::fromLatin1(names[choice])
               : choice < 6 ? QLatin1String("Speed")
                            : m_input.text();
    }

    QString address()
    {
        const int choice = m_input.below(8);
        return choice < 4    ? QString::number(m_input.byte())
               : choice == 4 ? QString::number(m_input.word())
               : choice == 5 ? QString::number(m_input.edge())
               : choice == 6 ? QString::fromLatin1(m_input.bytes(6))
                             : m_input.text();
    }

    int station() { return m_input.below(8) == 0 ? m_input.edge() : m_input.below(3); }

    RW_VAR request()
    {
        RW_VAR request = RW_VAR();
        request.varType = m_input.edge();
        request.varIndex = m_input.edge();
        request.accessMode = m_input.edge();
        request.tagName = name();
        request.addressText = address();
        request.areaType = m_input.edge();
        request.startAddress = m_input.flag() ? m_input.byte() : m_input.edge();
        request.stationNo = station();
        request.count = m_input.count();
        request.reqFlag = m_input.below(3) - 1;
        request.onceFlag = m_input.below(3);
        request.data = m_input.block();
        return request;
    }

    // ---- The store, in states that replies produce and in others

    void storeTag()
    {
        PLCTAGCOMMUNICATION& record = PLCDataStorage[station()];
        record.handshakeDone = m_input.below(8) != 0;
        record.transactionCounter = m_input.word();
        record.connectionId = m_input.bytes(m_input.below(5) % 5u);
        const QString tag = name();
        QByteArray info;
        if (m_input.flag()) {
            info = wire::little(m_input.below(7), 1);
            info += m_input.bytes(2);
        } else {
            info = m_input.bytes(static_cast<std::size_t>(m_input.below(6)));
        }
        if (m_input.below(4) != 0)
            info = info.leftJustified(3, '\0') + wire::hex("FF");
        if (m_input.below(8) != 0)
            record.tagInfo[tag] = info;
        if (m_input.below(8) != 0)
            record.tagData[tag] = m_input.block();
    }

    void declare()
    {
        QList<varName> list;
        for (int i = m_input.below(4); i > 0; --i) {
            varName entry = varName();
            entry.name = name();
            entry.kind = m_input.below(4) == 0 ? m_input.edge() : 2;
            list.append(entry);
        }
        PassVarName(m_input.below(16) == 0 ? nullptr : &list);
        for (const varName& entry : list) {
            if (entry.kind == 2 && !plcAddList.isEmpty())
                FUZZ_CHECK(plcAddList.contains(entry.name) == getPassVarName(entry.name));
        }
    }

    // ---- Values

    void get()
    {
        const QString tag = name();
        const QString text = address();
        const int where = station();
        const int count = m_input.count();
        const PLCTAGCOMMUNICATION before = PLCDataStorage.value(where);
        const bool known =
            PLCDataStorage.contains(where) && before.handshakeDone && before.tagData.contains(tag);
        const QByteArray info = before.tagInfo.value(tag);
        const bool confirmed = info.size() >= 4 && static_cast<quint8>(info.at(3)) == 0xFF;
        const bool indexed = plcAddList.contains(tag);

        QByteArray out("left over from the call before");
        FUZZ_CHECK(GetRegisterData(tag, m_input.edge(), text, where, out, count) == int(known));
        if (!known) {
            FUZZ_CHECK(out == QByteArray(count < 0 || count > kLargest ? 0 : 2 * count, '\0'));
            return;
        }
        // The call forgets a class that is not confirmed.
        const int typeClass = confirmed ? static_cast<quint8>(info.at(0)) : 0xFF;
        FUZZ_CHECK(out == hostBytes(typeClass, before.tagData.value(tag),
                                    indexed ? text.toInt() : 0, indexed ? count : 1, count));
        FUZZ_CHECK(PLCDataStorage.value(where).tagData == before.tagData);
    }

    void set()
    {
        const QString tag = name();
        const QByteArray value = m_input.block();
        const int where = station();
        const int area = m_input.edge();
        const QString text = address();
        const int count = m_input.count();
        const int kind = m_input.edge();
        const int index = m_input.edge();
        const int before = PLC_driver.writeList.size();
        const int queued = SetRegisterData(tag, area, text, where, value, count, kind, index);
        const int after = PLC_driver.writeList.size();
        FUZZ_CHECK(queued == (m_settings.writeMode == 2 ? after : 1));
        if (after == before + 1) {
            const RW_VAR& last = PLC_driver.writeList.last();
            FUZZ_CHECK(last.tagName == tag && last.data == value && last.accessMode == 1);
            FUZZ_CHECK(last.stationNo ==
                       (m_settings.multiStation ? where : m_settings.defaultStation));
        }
        FUZZ_CHECK(after == before || m_settings.writeMode == 2);
    }

    void addToLists()
    {
        RW_VAR record = request();
        RW_VAR* given = m_input.below(16) == 0 ? nullptr : &record;
        const int reads = AddListReadVar(given);
        FUZZ_CHECK(reads == PLC_driver.readList.size());
        const int writes = AddListWriteVar(given, m_input.below(3));
        FUZZ_CHECK(writes == PLC_driver.writeList.size());
        const int once = AddListOnceReadVar(given, m_input.below(3));
        FUZZ_CHECK(once == PLC_driver.onceReadList.size());
        getTagData(given);
        getAddressType(given);
        FUZZ_CHECK(updateRwVar(given) == 1);
        if (given)
            FUZZ_CHECK(given->reqFlag == (plcAddList.contains(given->tagName) ? 1 : 0));
    }

    // ---- Encoders

    // Every frame ends as the wire demands and has the station's number and connection.
    void checkQueued(const RW_VAR& asked, char service)
    {
        FUZZ_CHECK(PLC_driver.sendQueue.size() == 1);
        const Protocol transaction = PLC_driver.sendQueue.takeFirst();
        FUZZ_CHECK(transaction.sendLength == transaction.frame.size());
        FUZZ_CHECK(transaction.replyLength == -1);
        const QByteArray data = wire::unframed(transaction.frame);
        FUZZ_CHECK(data.size() >= 22 && data.at(12) == service);
        const PLCTAGCOMMUNICATION& record = PLCDataStorage[asked.stationNo];
        FUZZ_CHECK(data.mid(4, 2) == wire::little(record.transactionCounter, 2));
        FUZZ_CHECK(data.mid(8, 2) == record.connectionId.left(2).leftJustified(2, '\0'));
        FUZZ_CHECK(data.mid(14, 2) ==
                   wire::hex("91") + wire::little(quint64(asked.tagName.size()), 1));
        FUZZ_CHECK(m_settings.frameCount == 1 && m_settings.framesAnswered == 0);
    }

    void encodeRead()
    {
        RW_VAR record = request();
        PLC_driver.sendQueue.clear();
        ReadRegister(&record);
        checkQueued(record, 0x52);
    }

    void encodeWrite()
    {
        RW_VAR record = request();
        PLC_driver.sendQueue.clear();
        WriteRegister(&record);
        const QByteArray frame = wire::unframed(PLC_driver.sendQueue.first().frame);
        FUZZ_CHECK(frame.endsWith(record.data));
        checkQueued(record, 0x53);
    }

    // ---- Runs and classes

    // The blocks and the rest of a run cover it without a gap.
    void cutRun()
    {
        PLC_driver.readList.clear();
        RW_VAR run = request();
        run.count = qMin(run.count, 4000);
        const RW_VAR before = run;
        const int longest = m_input.below(8) == 0 ? m_input.edge() : m_input.below(20);
        addressAdd(run, longest, m_input.flag());
        qint64 covered = 0;
        for (const RW_VAR& block : PLC_driver.readList) {
            FUZZ_CHECK(block.startAddress ==
                       static_cast<int>(static_cast<quint32>(before.startAddress + covered)));
            covered += block.count;
        }
        FUZZ_CHECK(covered <= qMax(before.count, 0));
        PLC_driver.readList.clear();

        QList<RW_VAR> group;
        for (int i = m_input.below(6); i > 0; --i) {
            group.append(request());
            group.last().count = qMin(group.last().count, 4000);
        }
        Bubble_Sort(group);
        for (int i = 1; i < group.size(); ++i)
            FUZZ_CHECK(group.at(i - 1).startAddress <= group.at(i).startAddress);
        BitVarReCreat(group, 15);
        for (const RW_VAR& cut : PLC_driver.readList)
            FUZZ_CHECK(cut.count > 0 && cut.count <= 15);
        PLC_driver.readList.clear();
    }

    void classify()
    {
        const int typeClass = getRegType(m_input.bytes(m_input.below(4) % 4u));
        FUZZ_CHECK(typeClass >= 0 && typeClass <= 5);
        unsigned position = static_cast<unsigned>(m_input.edge());
        unsigned count = static_cast<unsigned>(m_input.edge());
        FUZZ_CHECK(getPlcAdd(m_input.edge(), position, count));
        const int area = m_input.edge();
        StringAddressToInt(area, m_input.text());
        GetDriverReturnValue(m_input.edge());
        SwitchErrorReturn(m_input.edge());
        DigitalToASCII(m_input.edge());
        ASCIIToDigital(m_input.edge());
        CalLRC(nullptr, m_input.word());
        CalXOR(nullptr, m_input.word());
    }

    FuzzInput& m_input;
    ComInfo m_settings;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    FuzzInput input(bytes, size);
    Values(input).run();
    return 0;
}
