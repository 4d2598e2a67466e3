#include "driver_copy.h"

#include "Func_Initi.h"
#include "wire.h"

#include <array>
#include <cstring>

namespace driver_copy {

namespace {

/// The settings record with words behind it that are not the driver's.
struct HostRecord
{
    ComInfo settings;
    int behind[4];
};

HostRecord record = {ComInfo(), {1, 2, 3, 4}};

QMap<int, PLCTAGCOMMUNICATION> connectedStation(int station)
{
    QMap<int, PLCTAGCOMMUNICATION> stations;
    stations[station].handshakeDone = true;
    return stations;
}

// A read in flight, whose reply is looked at.
const DriverCopy& lookingDriver()
{
    static DriverCopy copy;
    if (copy.sendQueue.isEmpty()) {
        copy.stations = connectedStation(1);
        Protocol transaction;
        transaction.replyLength = -1;
        transaction.var.stationNo = 1;
        copy.sendQueue.append(transaction);
    }
    return copy;
}

void look()
{
    QByteArray nothing;
    DataCom(&nothing, 0);
}

// DataCom's count, by the number of looks that are left until it gives up and begins with 0 again.
int takeAttempts()
{
    PLC_driver.sendQueue = lookingDriver().sendQueue;
    PLCDataStorage = lookingDriver().stations;
    int left = 0;
    while (PLC_driver.sendQueue.first().replyLength == -1 && left < 100) {
        look();
        ++left;
    }
    return 11 - left;
}

void setAttempts(int attempts)
{
    PLC_driver.sendQueue = lookingDriver().sendQueue;
    PLCDataStorage = lookingDriver().stations;
    for (int i = 0; i < attempts; ++i)
        look();
}

bool isFree(QMutex& mutex)
{
    const bool free = mutex.tryLock();
    if (free)
        mutex.unlock();
    return free;
}

} // namespace

ComInfo& settings()
{
    return record.settings;
}

DriverCopy taken()
{
    DriverCopy copy;
    copy.readList = PLC_driver.readList;
    copy.writeList = PLC_driver.writeList;
    copy.onceReadList = PLC_driver.onceReadList;
    copy.sendQueue = PLC_driver.sendQueue;
    copy.disabledStations = PLC_driver.disabledStations;
    copy.stations = PLCDataStorage;
    copy.result = PLC_driver.result;
    copy.currentList = PLC_driver.currentList;
    copy.writeBurst = PLC_driver.writeBurst;
    copy.onceBurst = PLC_driver.onceBurst;
    copy.readCycleCount = PLC_driver.readCycleCount;
    copy.errorFlag = PLC_driver.errorFlag;
    copy.settings = record.settings;
    copy.attempts = takeAttempts();
    return copy;
}

void restore(const DriverCopy& copy)
{
    if (copy.attempts != 0)
        setAttempts(copy.attempts);
    PLC_driver.readList = copy.readList;
    PLC_driver.writeList = copy.writeList;
    PLC_driver.onceReadList = copy.onceReadList;
    PLC_driver.sendQueue = copy.sendQueue;
    PLC_driver.disabledStations = copy.disabledStations;
    PLCDataStorage = copy.stations;
    PLC_driver.result = copy.result;
    PLC_driver.currentList = copy.currentList;
    PLC_driver.writeBurst = copy.writeBurst;
    PLC_driver.onceBurst = copy.onceBurst;
    PLC_driver.readCycleCount = copy.readCycleCount;
    PLC_driver.errorFlag = copy.errorFlag;
    record.settings = copy.settings;
}

RW_VAR recordOf(const model::Request& request)
{
    return {request.kind,    request.number, request.access,  request.remote,  request.link,
            request.code,    request.tag,    request.element, request.area,    request.start,
            request.station, request.count,  request.indexed, request.purpose, request.value};
}

Protocol transactionOf(const model::Transaction& sent)
{
    Protocol transaction;
    transaction.frame = sent.frame;
    transaction.sendLength = sent.sentSize;
    transaction.replyLength = sent.expected;
    transaction.auxLength = sent.valueAt;
    transaction.var = recordOf(sent.request);
    return transaction;
}

namespace {

QList<RW_VAR> recordsOf(const QList<model::Request>& requests)
{
    QList<RW_VAR> records;
    for (const model::Request& request : requests)
        records.append(recordOf(request));
    return records;
}

} // namespace

DriverCopy expected(const model::Driver& driver)
{
    DriverCopy copy;
    copy.readList = recordsOf(driver.cyclic);
    copy.writeList = recordsOf(driver.writes);
    copy.onceReadList = recordsOf(driver.once);
    for (const model::Transaction& sent : driver.queue)
        copy.sendQueue.append(transactionOf(sent));
    copy.disabledStations = driver.disabled;
    for (auto station = driver.stations.begin(); station != driver.stations.end(); ++station)
        copy.stations[station.key()] = {station->connected, station->number, station->connection,
                                        station->values, station->types};
    copy.result = recordOf(driver.result);
    copy.currentList = driver.list;
    copy.writeBurst = driver.writesInARow;
    copy.onceBurst = driver.onceInARow;
    copy.readCycleCount = driver.answeredInPass;
    copy.errorFlag = driver.failed;
    copy.attempts = driver.looks;
    std::memcpy(&copy.settings, driver.words.data(), sizeof copy.settings);
    return copy;
}

bool restIsUntouched()
{
    return PLC_driver.comInfo == &record.settings && PLC_driver.spareList.isEmpty() &&
           PLC_driver.extendList.isEmpty() && !PLC_driver.spareFlag && !LB && !LW && !RWI &&
           record.behind[0] == 1 && record.behind[1] == 2 && record.behind[2] == 3 &&
           record.behind[3] == 4 && isFree(PLC_driver.listMutex) && isFree(PLC_driver.dataMutex) &&
           isFree(PLC_driver.stationMutex);
}

} // namespace driver_copy

void Description::add(const char* name, qint64 number)
{
    if (m_readable)
        m_text.append(name).append(" ").append(std::to_string(number)).append("\n");
    else
        m_text.append(reinterpret_cast<const char*>(&number), sizeof number);
}

void Description::add(std::initializer_list<Number> numbers)
{
    std::array<int, 16> values;
    std::size_t count = 0;
    for (const Number& number : numbers) {
        if (m_readable)
            add(number.name, number.value);
        values.at(count++) = number.value;
    }
    if (!m_readable)
        m_text.append(reinterpret_cast<const char*>(values.data()), count * sizeof values[0]);
}

void Description::add(const char* name, const QByteArray& bytes)
{
    if (m_readable) {
        m_text.append(name).append(" ").append(wire::text(bytes)).append("\n");
        return;
    }
    add(name, bytes.size());
    m_text.append(bytes.constData(), static_cast<std::size_t>(bytes.size()));
}

void Description::add(const char* name, const QString& text)
{
    if (m_readable)
        m_text.append(name).append(" ").append(text.toStdString()).append("\n");
    else
        add(name, QByteArray::fromRawData(reinterpret_cast<const char*>(text.constData()),
                                          text.size() * static_cast<int>(sizeof(QChar))));
}

void Description::add(const char* name, const RW_VAR& request)
{
    add(name, request.tagName);
    add("  addressText", request.addressText);
    add({{"  varType", request.varType},
         {"  varIndex", request.varIndex},
         {"  accessMode", request.accessMode},
         {"  hostField3", request.hostField3},
         {"  linkId", request.linkId},
         {"  retValue", request.retValue},
         {"  areaType", request.areaType},
         {"  startAddress", request.startAddress},
         {"  stationNo", request.stationNo},
         {"  count", request.count},
         {"  reqFlag", request.reqFlag},
         {"  onceFlag", request.onceFlag}});
    add("  data", request.data);
}

void Description::add(const char* name, const Protocol& transaction)
{
    add(name, transaction.frame);
    add({{"  sendLength", transaction.sendLength},
         {"  replyLength", transaction.replyLength},
         {"  auxLength", transaction.auxLength},
         {"  auxFlag", transaction.auxFlag},
         {"  reserve1", transaction.reserve1},
         {"  reserve2", transaction.reserve2},
         {"  reserve3", transaction.reserve3}});
    add("  var", transaction.var);
}

void Description::add(const char* name, const QMap<QString, QByteArray>& bytesByTag)
{
    addMap(name, bytesByTag);
}

void Description::add(const char* name, const PLCTAGCOMMUNICATION& station)
{
    add(name, station.handshakeDone);
    add("  transactionCounter", station.transactionCounter);
    add("  connectionId", station.connectionId);
    add("  tagData", station.tagData);
    add("  tagInfo", station.tagInfo);
}

void Description::add(const DriverCopy& copy)
{
    addList("readList", copy.readList);
    addList("writeList", copy.writeList);
    addList("onceReadList", copy.onceReadList);
    addList("sendQueue", copy.sendQueue);
    addMap("disabledStations", copy.disabledStations);
    addMap("PLCDataStorage", copy.stations);
    add("result", copy.result);
    add({{"currentList", copy.currentList},
         {"writeBurst", copy.writeBurst},
         {"onceBurst", copy.onceBurst},
         {"readCycleCount", copy.readCycleCount},
         {"errorFlag", copy.errorFlag},
         {"attempts of DataCom", copy.attempts}});
    const char* words = reinterpret_cast<const char*>(&copy.settings);
    add("settings", QByteArray::fromRawData(words, static_cast<int>(sizeof copy.settings)));
}
