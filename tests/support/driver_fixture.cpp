#include "driver_fixture.h"

#include <QtCore/QStringList>

std::vector<DriverTest::Finished> DriverTest::finished;
std::vector<DriverTest::Refreshed> DriverTest::refreshed;

namespace {

// Resets the dispatcher's count of attempts, which is not part of the driver's global records. Only
// a good handshake reply does that.
void resetAttempts(ComInfo& settings)
{
    const int station = -777;
    PLC_driver.comInfo = &settings;
    PLC_driver.sendQueue.clear();
    HandshakeFunction(station);
    QByteArray reply = wire::identityReply(0);
    DataCom(&reply, reply.size());
}

QStringList messages;

void keepMessage(QtMsgType, const QMessageLogContext&, const QString& message)
{
    messages.append(message);
}

void resetDriver()
{
    PLC_driver.comInfo = nullptr;
    PLC_driver.readList.clear();
    PLC_driver.writeList.clear();
    PLC_driver.onceReadList.clear();
    PLC_driver.spareList.clear();
    PLC_driver.sendQueue.clear();
    PLC_driver.extendList.clear();
    PLC_driver.disabledStations.clear();
    PLC_driver.finishCallback = nullptr;
    PLC_driver.refreshCallback = nullptr;
    PLC_driver.result = RW_VAR();
    PLC_driver.currentList = 100;
    PLC_driver.writeBurst = 0;
    PLC_driver.onceBurst = 0;
    PLC_driver.readCycleCount = 0;
    PLC_driver.errorFlag = false;
    PLC_driver.spareFlag = false;
    plcAddList.clear();
    PLCDataStorage.clear();
    LB = LW = RWI = nullptr;
}

} // namespace

std::string fieldsOf(const RW_VAR& request)
{
    QString text;
    for (int field : {request.varType, request.varIndex, request.accessMode, request.hostField3,
                      request.linkId, request.retValue, request.areaType, request.startAddress,
                      request.stationNo, request.count, request.reqFlag, request.onceFlag})
        text += QString::number(field) + ' ';
    text += '"' + request.tagName + "\" \"" + request.addressText + "\" ";
    return text.toStdString() + wire::text(request.data);
}

DriverTest::DriverTest() : settings(), m_handlerBefore(qInstallMessageHandler(keepMessage))
{
    messages.clear();
    restart();
}

void DriverTest::restart()
{
    settings = ComInfo();
    resetAttempts(settings);
    resetDriver();
    settings = ComInfo();
    settings.defaultStation = 1;
    settings.retryLimit = 2;
    settings.multiStation = 1;
    settings.localLink = 7;
    settings.writeMode = 2;
    settings.callbackChannel = 9;
    finished.clear();
    refreshed.clear();
    SetComInfo(&settings);
    RegistCallBackFuncIntf(
        [](int channel, int varType, int varIndex, int status) {
            finished.push_back({channel, varType, varIndex, status});
        },
        [](QList<RW_VAR>* list, int varType, int flag) {
            refreshed.push_back({list != nullptr, list ? list->size() : -1, varType, flag});
        });
}

DriverTest::~DriverTest()
{
    EXPECT_TRUE(locksAreFree()) << "a lock of the driver is still held";
    qInstallMessageHandler(m_handlerBefore);
    EXPECT_EQ(messages.join("; ").toStdString(), "") << "Qt printed a warning about the driver";
    ComInfo spare = ComInfo();
    resetAttempts(spare);
    resetDriver();
}

HOSTVAR DriverTest::hostVar(const char* tag, const char* address, int count, unsigned char area)
{
    HOSTVAR variable = HOSTVAR();
    variable.hostField0 = 99;
    variable.areaType = area;
    variable.hostField1 = 98;
    variable.addressText = QString::fromLatin1(address);
    variable.tagName = QString::fromLatin1(tag);
    variable.count = count;
    return variable;
}

RW_VAR DriverTest::readOf(const char* tag, int element, int count)
{
    RW_VAR request = RW_VAR();
    request.varType = 3;
    request.varIndex = 1;
    request.hostField3 = 14;
    request.linkId = settings.localLink;
    request.retValue = 88;
    request.tagName = QString::fromLatin1(tag);
    request.addressText = QString::number(element);
    request.areaType = 5;
    request.startAddress = element;
    request.stationNo = 1;
    request.count = count;
    request.reqFlag = 1;
    return request;
}

RW_VAR DriverTest::writeOf(const char* tag, const QByteArray& value, int element, int count)
{
    RW_VAR request = readOf(tag, element, count);
    request.accessMode = 1;
    request.onceFlag = 2;
    request.data = value;
    return request;
}

RW_VAR DriverTest::distinctRequest(const char* tag)
{
    RW_VAR request = readOf(tag, 23, 24);
    request.varType = 11;
    request.varIndex = 12;
    request.accessMode = 13;
    request.hostField3 = 14;
    request.retValue = 16;
    request.addressText = "17";
    request.areaType = 18;
    request.reqFlag = 19;
    request.onceFlag = 20;
    request.data = "21";
    return request;
}

void DriverTest::declareIndexed(const char* tag)
{
    varName name = varName();
    name.name = QString::fromLatin1(tag);
    name.kind = 2;
    QList<varName> names;
    names.append(name);
    PassVarName(&names);
}

void DriverTest::connectStation(int station, const QByteArray& connectionId, quint16 counter)
{
    PLCTAGCOMMUNICATION& record = PLCDataStorage[station];
    record.handshakeDone = true;
    record.connectionId = connectionId;
    record.transactionCounter = counter;
}

void DriverTest::confirm(const char* tag, quint8 typeClass, quint16 type, int station)
{
    PLCDataStorage[station].tagInfo[QString::fromLatin1(tag)] =
        wire::little(typeClass, 1) + wire::little(type, 2) + wire::hex("FF");
}

Protocol& DriverTest::putInFlight(const RW_VAR& request, int replyLength)
{
    Protocol transaction;
    transaction.replyLength = replyLength;
    transaction.auxLength = 22;
    transaction.var = request;
    PLC_driver.sendQueue.clear();
    PLC_driver.sendQueue.append(transaction);
    return PLC_driver.sendQueue.first();
}

QByteArray DriverTest::infoOf(const char* tag, int station)
{
    return PLCDataStorage[station].tagInfo.value(QString::fromLatin1(tag));
}

QString DriverTest::tagsOf(const QList<RW_VAR>& list)
{
    QString tags;
    for (const RW_VAR& request : list)
        tags += request.tagName;
    return tags;
}

int DriverTest::answer(const QByteArray& reply)
{
    QByteArray bytes = reply;
    DataCom(&bytes, bytes.size());
    return DataCom(&bytes, bytes.size())->retValue;
}

int DriverTest::timeOut()
{
    QByteArray nothing;
    return DataCom(&nothing, 0)->retValue;
}

bool DriverTest::isFree(QMutex& mutex)
{
    const bool free = mutex.tryLock();
    if (free)
        mutex.unlock();
    return free;
}

bool DriverTest::locksAreFree()
{
    return isFree(PLC_driver.listMutex) && isFree(PLC_driver.dataMutex) &&
           isFree(PLC_driver.stationMutex);
}
