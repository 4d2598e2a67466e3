#include "driver_state.h"

#include "wire.h"

#include <QtCore/QTime>

namespace {

int secondOfDay = 0;

// DataCom's count of attempts survives every other reset; an intact reply sets it to 0.
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
    driverstate::queue(frame, driverstate::kVariableLength, 0, request);
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

typedef QMap<QString, QByteArray> BytesByTag;

bool isConfirmed(const QByteArray& info)
{
    return info.size() >= 4 && static_cast<quint8>(info.at(3)) == 0xFF;
}

// Both maps are walked side by side: a tag that is gone stops the walk through `then`.
void checkValues(const BytesByTag& then, const BytesByTag& now, const QString* read)
{
    if (now.isSharedWith(then))
        return;
    BytesByTag::const_iterator old = then.constBegin();
    for (BytesByTag::const_iterator value = now.constBegin(); value != now.constEnd(); ++value) {
        const bool seen = old != then.constEnd() && old.key() == value.key();
        FUZZ_CHECK((seen && *old == *value) || (read && value.key() == *read));
        if (seen)
            ++old;
    }
    FUZZ_CHECK(old == then.constEnd());
}

// Any call may seed an unconfirmed class. Only a reply to a read confirms it: once, as one of the
// six, and never as the mark of an unknown class.
void checkClasses(const BytesByTag& then, const BytesByTag& now, const QString* read)
{
    if (now.isSharedWith(then))
        return;
    BytesByTag::const_iterator old = then.constBegin();
    for (BytesByTag::const_iterator info = now.constBegin(); info != now.constEnd(); ++info) {
        const bool seen = old != then.constEnd() && old.key() == info.key();
        if (seen && isConfirmed(*old))
            FUZZ_CHECK(*info == *old);
        else if (isConfirmed(*info))
            FUZZ_CHECK(read && info.key() == *read && static_cast<quint8>(info->at(0)) <= 5);
        if (seen)
            ++old;
    }
    FUZZ_CHECK(old == then.constEnd());
}

void checkConnection(const PLCTAGCOMMUNICATION* then, const PLCTAGCOMMUNICATION& now, bool answered)
{
    if (!then) {
        FUZZ_CHECK(now.transactionCounter <= 1 && !now.handshakeDone && now.connectionId.isEmpty());
    } else if (answered) {
        FUZZ_CHECK(isStep(then->transactionCounter, now.transactionCounter));
    } else {
        FUZZ_CHECK(now.transactionCounter == then->transactionCounter);
        FUZZ_CHECK(now.handshakeDone == then->handshakeDone);
        FUZZ_CHECK(now.connectionId == then->connectionId);
    }
}

void checkQueue()
{
    const QList<Protocol>& queue = PLC_driver.sendQueue;
    FUZZ_CHECK(queue.size() <= 2);
    // A frame is in flight for many steps; it is parsed once.
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

// A frame in flight for a connected station serves the head of the current list, and that head
// stays as it is until the frame is done. Not checked for a cyclic read, because its list may be
// rebuilt meanwhile, nor for the read that learns the class for a queued write, which counts as
// cyclic.
void checkHeadInFlight()
{
    if (PLC_driver.sendQueue.isEmpty() || (PLC_driver.currentList != driverstate::kWrite &&
                                           PLC_driver.currentList != driverstate::kOneShotRead))
        return;
    const RW_VAR& var = PLC_driver.sendQueue.first().var;
    const fuzz::Stores::const_iterator station = PLCDataStorage.constFind(var.stationNo);
    FUZZ_CHECK(station != PLCDataStorage.constEnd());
    if (!station->handshakeDone)
        return;
    const QList<RW_VAR>& list = PLC_driver.currentList == driverstate::kWrite
                                    ? PLC_driver.writeList
                                    : PLC_driver.onceReadList;
    FUZZ_CHECK(PLC_driver.sendQueue.size() == 1 && !list.isEmpty());
    const RW_VAR& head = list.first();
    FUZZ_CHECK(var.tagName == head.tagName && var.stationNo == head.stationNo);
    FUZZ_CHECK(var.areaType == head.areaType && var.startAddress == head.startAddress);
    FUZZ_CHECK(var.count == head.count && var.data == head.data);
    FUZZ_CHECK(var.varType == head.varType && var.varIndex == head.varIndex);
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
    PLC_driver.currentList = driverstate::kNoListYet;
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
    checkHeadInFlight();
}

void checkStoresAgainst(const Stores& before, const Change& allowed)
{
    if (PLCDataStorage.isSharedWith(before))
        return;
    static const PLCTAGCOMMUNICATION none = PLCTAGCOMMUNICATION();
    Stores::const_iterator then = before.constBegin();
    for (Stores::const_iterator now = PLCDataStorage.constBegin(); now != PLCDataStorage.constEnd();
         ++now)
    {
        const bool seen = then != before.constEnd() && then.key() == now.key();
        const bool answered = allowed.reply && now.key() == allowed.station;
        const QString* read = answered && allowed.read ? &allowed.tag : nullptr;
        checkConnection(seen ? &*then : nullptr, *now, answered);
        checkValues(seen ? then->tagData : none.tagData, now->tagData, read);
        checkClasses(seen ? then->tagInfo : none.tagInfo, now->tagInfo, read);
        if (seen)
            ++then;
    }
    // At a station that is gone the walk through the old stations stops.
    FUZZ_CHECK(then == before.constEnd());
}

} // namespace fuzz
