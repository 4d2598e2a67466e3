#include "driver_state.h"

#include "wire.h"

#include <QtCore/QTime>

namespace {

int secondOfDay = 0;

// DataCom's count of attempts outlives every other state; a reply judged intact sets it back.
void resetAttempts(ComInfo& settings)
{
    static const QByteArray intact = wire::writeReply(1);
    const int station = -777;
    PLC_driver.comInfo = &settings;
    PLC_driver.sendQueue.clear();
    PLCDataStorage[station].handshakeDone = true;
    RW_VAR request = RW_VAR();
    request.stationNo = station;
    QByteArray frame = intact;
    frame::queue(frame, frame::kVariableLength, 0, request);
    QByteArray reply = intact;
    DataCom(&reply, reply.size());
}

bool isFree(QMutex& mutex)
{
    const bool free = mutex.tryLock();
    if (free)
        mutex.unlock();
    return free;
}

bool isStep(unsigned short from, unsigned short to)
{
    return to == from || (to != 0 && to == (from == 0xFFFF ? 1 : from + 1));
}

void checkStoreOf(const PLCTAGCOMMUNICATION& station)
{
    for (const QByteArray& info : station.tagInfo) {
        // A class that a reply confirmed is one of the six; never the mark of an unknown one.
        if (info.size() >= 4 && static_cast<quint8>(info.at(3)) == 0xFF)
            FUZZ_CHECK(static_cast<quint8>(info.at(0)) <= 5);
    }
}

void checkQueue()
{
    const QList<Protocol>& queue = PLC_driver.sendQueue;
    FUZZ_CHECK(queue.size() <= 2);
    // A frame in flight stands there for many steps; it is taken apart once.
    static QByteArray intact;
    for (const Protocol& transaction : queue) {
        if (transaction.frame != intact)
            FUZZ_CHECK(!wire::unframed(transaction.frame).isEmpty());
        intact = transaction.frame;
        FUZZ_CHECK(transaction.auxFlag == 0);
        FUZZ_CHECK(transaction.auxLength == 0 || transaction.auxLength == 22);
    }
    if (queue.size() == 2)
        FUZZ_CHECK(queue.at(0).var.stationNo == queue.at(1).var.stationNo);
}

} // namespace

QTime QTime::currentTime()
{
    return QTime(0, 0, 0).addSecs(secondOfDay);
}

namespace fuzz {

void setTimeOfDay(int seconds)
{
    secondOfDay = seconds;
}

void resetDriver(ComInfo& settings)
{
    resetAttempts(settings);
    PLC_driver.readList.clear();
    PLC_driver.writeList.clear();
    PLC_driver.onceReadList.clear();
    PLC_driver.sendQueue.clear();
    PLC_driver.disabledStations.clear();
    PLC_driver.result = RW_VAR();
    PLC_driver.currentList = kNoListYet;
    PLC_driver.writeBurst = 0;
    PLC_driver.onceBurst = 0;
    PLC_driver.readCycleCount = 0;
    PLC_driver.errorFlag = false;
    plcAddList.clear();
    PLCDataStorage.clear();
    settings = ComInfo();
    SetComInfo(&settings);
    RegistCallBackFuncIntf(nullptr, nullptr);
    setTimeOfDay(0);
}

void checkLocksFree()
{
    FUZZ_CHECK(isFree(PLC_driver.listMutex));
    FUZZ_CHECK(isFree(PLC_driver.dataMutex));
    FUZZ_CHECK(isFree(PLC_driver.stationMutex));
    FUZZ_CHECK(isFree(driverstate::leaf));
    FUZZ_CHECK(isFree(tagstore::leaf));
}

void checkConsistent()
{
    const int list = PLC_driver.currentList;
    FUZZ_CHECK((list >= 0 && list <= 2) || list == 100);
    FUZZ_CHECK(PLC_driver.writeBurst >= 0 && PLC_driver.writeBurst <= 5);
    FUZZ_CHECK(PLC_driver.onceBurst >= 0 && PLC_driver.onceBurst <= 5);
    FUZZ_CHECK(PLC_driver.spareList.isEmpty() && PLC_driver.extendList.isEmpty());
    checkQueue();
    for (const PLCTAGCOMMUNICATION& station : PLCDataStorage)
        checkStoreOf(station);
}

void checkStoresAgainst(const Stores& before, int station, const QString& tag)
{
    for (Stores::const_iterator now = PLCDataStorage.constBegin(); now != PLCDataStorage.constEnd();
         ++now)
    {
        const Stores::const_iterator then = before.constFind(now.key());
        const bool seen = then != before.constEnd();
        FUZZ_CHECK(seen ? isStep(then->transactionCounter, now->transactionCounter)
                        : now->transactionCounter <= 1);
        if (seen && then->tagData == now->tagData)
            continue;
        for (QMap<QString, QByteArray>::const_iterator value = now->tagData.constBegin();
             value != now->tagData.constEnd(); ++value)
        {
            const bool written = now.key() == station && value.key() == tag;
            FUZZ_CHECK(written || (seen && then->tagData.value(value.key()) == *value));
        }
    }
}

} // namespace fuzz
