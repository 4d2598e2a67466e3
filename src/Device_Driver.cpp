#include "Device_Driver.h"

#include "Func_Check.h"
#include "Func_DealData.h"
#include "Func_Initi.h"
#include "Func_Read.h"
#include "Func_Remote.h"
#include "Func_Write.h"
#include "internal/ConnectionSetup.h"
#include "internal/DriverState.h"
#include "internal/TagStore.h"
#include "internal/Wrapping.h"
#include "tagcommunication.h"

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QTextStream>

Device_Driver PLC_driver;
QMap<QString, varName> plcAddList;

namespace {

// ---- Send scheduler: caller holds listMutex -----------------------------------------------------

// So many writes, or one-shot reads, are served in a row before the next list has its turn.
const int kLongestBurst = 5;

Protocol* headOfQueue()
{
    return PLC_driver.sendQueue.isEmpty() ? nullptr : &PLC_driver.sendQueue.first();
}

RW_VAR* headOf(QList<RW_VAR>& list)
{
    LeafLocker lock(driverstate::leaf);
    return list.isEmpty() ? nullptr : &list.first();
}

void removeHead(QList<RW_VAR>& list)
{
    LeafLocker lock(driverstate::leaf);
    list.removeFirst();
}

// Moves the first request of a list that is not empty to its end. Caller holds the leaf lock.
void rotate(QList<RW_VAR>& list)
{
    list.append(list.at(0));
    list.removeFirst();
}

int sizeOf(const QList<RW_VAR>& list)
{
    LeafLocker lock(driverstate::leaf);
    return list.size();
}

// Returns the first request of an enabled station and deletes those before it. Null when none is
// left.
RW_VAR* firstEnabled(QList<RW_VAR>& list)
{
    RW_VAR* head = headOf(list);
    while (head && Ethernetcontains(head->stationNo)) {
        removeHead(list);
        head = headOf(list);
    }
    return head;
}

// Returns the first cyclic request of an enabled station and moves those before it to the end. Null
// when every station is disabled.
RW_VAR* nextCyclic(RW_VAR* head)
{
    if (!Ethernetcontains(head->stationNo))
        return head;
    for (int left = sizeOf(PLC_driver.readList); left > 0; --left) {
        {
            LeafLocker lock(driverstate::leaf);
            rotate(PLC_driver.readList);
        }
        head = headOf(PLC_driver.readList);
        if (!Ethernetcontains(head->stationNo))
            return head;
    }
    return nullptr;
}

// A value can be converted only when the tag's class is known. Until then a read of the tag's first
// element is sent, and the write stays queued.
void learnClass(RW_VAR request)
{
    PLC_driver.currentList = driverstate::kCyclicRead;
    request.accessMode = 0;
    request.startAddress = 0;
    ReadRegister(&request);
}

void encodeWrite(RW_VAR* request)
{
    if (PLC_driver.comInfo->remoteMode != 0)
        Remote_WriteVar(request);
    else if (!getHandshakeInformation(request->stationNo))
        HandshakeFunction(request->stationNo);
    else if (!getAddressType(request))
        learnClass(*request);
    else
        WriteRegister(request);
}

void encodeRead(RW_VAR* request)
{
    if (PLC_driver.comInfo->remoteMode != 0)
        Remote_ReadVar(request);
    else if (!getHandshakeInformation(request->stationNo))
        HandshakeFunction(request->stationNo);
    else
        ReadRegister(request);
}

void serveWrite()
{
    PLC_driver.currentList = driverstate::kWrite;
    RW_VAR* head = firstEnabled(PLC_driver.writeList);
    if (!head)
        return;
    encodeWrite(head);
    ++PLC_driver.writeBurst;
}

void serveOneShot()
{
    PLC_driver.currentList = driverstate::kOneShotRead;
    RW_VAR* head = firstEnabled(PLC_driver.onceReadList);
    if (!head)
        return;
    encodeRead(head);
    ++PLC_driver.onceBurst;
}

void setPassComplete(int complete)
{
    LeafLocker lock(driverstate::leaf);
    PLC_driver.comInfo->passComplete = complete;
}

void serveCyclic()
{
    RW_VAR* head = headOf(PLC_driver.readList);
    if (!head) {
        setPassComplete(1);
    } else {
        PLC_driver.currentList = driverstate::kCyclicRead;
        head = nextCyclic(head);
        if (!head)
            return;
        encodeRead(head);
    }
    PLC_driver.writeBurst = 0;
    PLC_driver.onceBurst = 0;
}

// ---- Receive dispatcher -------------------------------------------------------------------------

// Outcomes of judging a reply, as GetDriverReturnValue() takes them.
enum ReplyOutcome {
    kAccepted = 0,
    kRejected = 1,
    kNoReply = 2,
    kWrongLength = 3,
    kRemoteNotStored = 4,
    kRemoteRejected = 5,
    kRemoteNoReply = 6,
    kRemoteWrongLength = 7
};

// Values of result.retValue.
enum ReturnValue {
    kNotFinished = 0,
    kDone = 1,
    kDoneNotStored = 100,
    kUnknownOutcome = 200,
    kNoConnection = 201
};

// What SwitchErrorReturn() adds the kind of the variable to.
enum ErrorBase {
    kRejectedBase = 10,
    kNoReplyBase = 40,
    kWrongLengthBase = 70,
    kRemoteRejectedBase = 110,
    kRemoteNoReplyBase = 140,
    kRemoteWrongLengthBase = 170
};

enum FinishStatus { kStatusDone = 1, kStatusFailed = 2 };

const int kConnectionAttempts = 4;
const int kJudgements = 11;
// No reply has this length, so the next call fails with a length error.
const int kNoReplyLength = 999;

void increment(int& word)
{
    word = wrapping::sum(word, 1);
}

void handleHandshakeReply(const QByteArray* reply, int station, int& readNumber)
{
    QList<Protocol>& queue = PLC_driver.sendQueue;
    ComInfo& settings = *PLC_driver.comInfo;
    if (HandshakeFunctionCheck(reply) == 1) {
        readNumber = 0;
        queue.removeFirst();
        increment(settings.framesAnswered);
        if (settings.framesAnswered == connection::kConnected) {
            queue.clear();
            setHandshakeInformation(station, true);
        }
        return;
    }
    PLC_driver.result.retValue = kNoConnection;
    if (settings.framesAnswered != connection::kAwaitingForwardOpen) {
        queue.clear();
        return;
    }
    if (++readNumber < kConnectionAttempts) {
        connection::renew(queue.first().frame, tagstore::transactionOf(station));
    } else {
        readNumber = 0;
        queue.clear();
    }
}

void judgeVariableLength(const QByteArray* reply, int length, int& readNumber)
{
    Protocol& head = PLC_driver.sendQueue.first();
    if (DataIntegrityJudgment(reply) == 1) {
        readNumber = 0;
        head.replyLength = length;
        return;
    }
    if (++readNumber < kJudgements) {
        PLC_driver.result.retValue = kNotFinished;
    } else {
        readNumber = 0;
        head.replyLength = kNoReplyLength;
    }
}

// True when a later entry belongs to the same variable as the head.
bool continuesLater(const QList<RW_VAR>& list)
{
    for (int i = 1; i < list.size(); ++i) {
        if (driverstate::sameVariable(list.at(i), list.first()))
            return true;
    }
    return false;
}

// A variable that is split into several entries is reported done once, after its last entry. A
// failure is reported at once.
void notifyFinished(const RW_VAR& request, bool last)
{
    const bool failed = driverstate::failed();
    if (PLC_driver.finishCallback && (last || failed)) {
        PLC_driver.finishCallback(PLC_driver.comInfo->callbackChannel, request.varType,
                                  request.varIndex, failed ? kStatusFailed : kStatusDone);
    }
}

void retire(QList<RW_VAR>& list, bool callBack)
{
    const RW_VAR* head = headOf(list);
    if (!head)
        return;
    if (callBack) {
        bool last;
        {
            LeafLocker lock(driverstate::leaf);
            last = !continuesLater(list);
        }
        notifyFinished(*head, last);
    }
    passRetValue(*head, PLC_driver.result);
    removeHead(list);
}

// A cyclic request stays in the list and moves to its end.
void retireCyclic()
{
    LeafLocker lock(driverstate::leaf);
    if (PLC_driver.readList.isEmpty())
        return;
    passRetValue(PLC_driver.readList.first(), PLC_driver.result);
    rotate(PLC_driver.readList);
}

void completeRequest(bool local)
{
    switch (PLC_driver.currentList) {
    case driverstate::kWrite:
        retire(PLC_driver.writeList, true);
        break;
    case driverstate::kOneShotRead:
        retire(PLC_driver.onceReadList, local);
        break;
    case driverstate::kCyclicRead:
        retireCyclic();
        break;
    default:
        break;
    }
}

void dropOneShotsOfResult(bool ofItsStationOnly)
{
    const RW_VAR& result = PLC_driver.result;
    LeafLocker lock(driverstate::leaf);
    QList<RW_VAR>& reads = PLC_driver.onceReadList;
    for (int i = reads.size() - 1; i >= 0; --i) {
        const bool stationMatches = !ofItsStationOnly || reads.at(i).stationNo == result.stationNo;
        if (stationMatches && driverstate::sameVariable(reads.at(i), result))
            reads.removeAt(i);
    }
}

void dropWritesOfStation(int station)
{
    QList<RW_VAR>& writes = PLC_driver.writeList;
    for (int i = writes.size() - 1; i >= 0; --i) {
        if (writes.at(i).stationNo == station)
            writes.removeAt(i);
    }
}

void followUpFailure()
{
    driverstate::notifyRefresh(PLC_driver.result.varType);
    const bool multiStation = PLC_driver.comInfo->multiStation != 0;
    dropOneShotsOfResult(multiStation);
    if (multiStation)
        dropWritesOfStation(PLC_driver.result.stationNo);
    else
        PLC_driver.writeList.clear();
}

void noteFailure()
{
    LeafLocker lock(driverstate::leaf);
    PLC_driver.errorFlag = true;
    PLC_driver.readCycleCount = 0;
    PLC_driver.comInfo->passComplete = 0;
}

void noteSuccess(bool countsAsCycle)
{
    LeafLocker lock(driverstate::leaf);
    PLC_driver.errorFlag = false;
    if (!countsAsCycle || PLC_driver.comInfo->passComplete != 0)
        return;
    increment(PLC_driver.readCycleCount);
    if (PLC_driver.readCycleCount > PLC_driver.readList.size()) {
        PLC_driver.readCycleCount = 0;
        PLC_driver.comInfo->passComplete = 1;
    }
}

void handleGoodReply(int code, bool local, int station)
{
    ComInfo& settings = *PLC_driver.comInfo;
    PLC_driver.sendQueue.removeFirst();
    increment(settings.framesAnswered);
    const bool outstanding = settings.framesAnswered < settings.frameCount;
    noteSuccess(!outstanding && local);
    addPlcNumber(station);
    QMutexLocker lock(&PLC_driver.listMutex);
    if (!outstanding)
        completeRequest(local);
    PLC_driver.result.retValue = code;
}

void handleFailure(int code, bool local, int station)
{
    ComInfo& settings = *PLC_driver.comInfo;
    noteFailure();
    increment(settings.failureCount);
    const bool dropped = settings.failureCount > settings.retryLimit;
    if (dropped) {
        settings.failureCount = 0;
        PLC_driver.sendQueue.clear();
        setHandshakeInformation(station, false);
    }
    QMutexLocker lock(&PLC_driver.listMutex);
    if (dropped) {
        completeRequest(local);
        followUpFailure();
    }
    PLC_driver.result.retValue = dropped ? code : int(kNotFinished);
}

void finishTransaction(QByteArray* reply, int length, int station)
{
    const bool local = driverstate::inFlight().var.linkId == PLC_driver.comInfo->localLink;
    const int code =
        local ? DealDataOfLocalArea(reply, length) : DealDataOfRemoteArea(reply, length);
    if (code == kDone || code == kDoneNotStored)
        handleGoodReply(code, local, station);
    else
        handleFailure(code, local, station);
}

// Judges a reply by its length. The bytes of a reply to a write are not looked at, so that only
// this function notices when there are none, whatever length the host tells.
ReplyOutcome judgeLength(QByteArray* reply, int length)
{
    if (PLC_driver.sendQueue.isEmpty())
        return kNoReply;
    if (!reply && CheckGetData(reply, length) == driverstate::kAcceptOnly)
        return kNoReply;
    const int expected = driverstate::inFlight().replyLength;
    if (length == 0 && expected != 0)
        return kNoReply;
    return expected != length && expected != driverstate::kVariableLength ? kWrongLength
                                                                          : kAccepted;
}

} // namespace

// ---- Driver object ------------------------------------------------------------------------------

Device_Driver::Device_Driver()
    : comInfo(nullptr), finishCallback(nullptr), refreshCallback(nullptr),
      listMutex(QMutex::NonRecursive), dataMutex(QMutex::NonRecursive),
      stationMutex(QMutex::NonRecursive), result(), currentList(driverstate::kNoListYet),
      writeBurst(0), onceBurst(0), readCycleCount(0), errorFlag(false), spareFlag(false)
{
}

// ---- Poll cycle ---------------------------------------------------------------------------------

Protocol* ComCommunication()
{
    if (!PLC_driver.sendQueue.isEmpty())
        return headOfQueue();
    QMutexLocker lock(&PLC_driver.listMutex);
    if (!PLC_driver.comInfo)
        return nullptr;
    if (!PLC_driver.writeList.isEmpty() && PLC_driver.writeBurst < kLongestBurst)
        serveWrite();
    else if (sizeOf(PLC_driver.onceReadList) > 0 && PLC_driver.onceBurst < kLongestBurst)
        serveOneShot();
    else
        serveCyclic();
    return headOfQueue();
}

RW_VAR* DataCom(QByteArray* reply, int length)
{
    static int readNumber = 0;
    PLC_driver.result.retValue = kDone;
    if (PLC_driver.sendQueue.isEmpty())
        return &PLC_driver.result;
    if (!PLC_driver.comInfo) {
        PLC_driver.result.retValue = kNotFinished;
        return &PLC_driver.result;
    }
    const int station = driverstate::inFlight().var.stationNo;
    if (!getHandshakeInformation(station))
        handleHandshakeReply(reply, station, readNumber);
    else if (driverstate::inFlight().replyLength == driverstate::kVariableLength)
        judgeVariableLength(reply, length, readNumber);
    else
        finishTransaction(reply, length, station);
    return &PLC_driver.result;
}

int DealDataOfLocalArea(QByteArray* reply, int length)
{
    const ReplyOutcome outcome = judgeLength(reply, length);
    if (outcome != kAccepted)
        return GetDriverReturnValue(outcome);
    const int verdict = CheckGetData(reply, length);
    if (verdict == driverstate::kStore) {
        QMutexLocker lock(&PLC_driver.dataMutex);
        SaveToLocalDataErea(reply);
    }
    return GetDriverReturnValue(verdict == driverstate::kReject ? kRejected : kAccepted);
}

int DealDataOfRemoteArea(QByteArray* reply, int length)
{
    const ReplyOutcome outcome = judgeLength(reply, length);
    if (outcome != kAccepted)
        return GetDriverReturnValue(outcome == kNoReply ? kRemoteNoReply : kRemoteWrongLength);
    if (CheckGetData(reply, length) == driverstate::kReject)
        return GetDriverReturnValue(kRemoteRejected);
    if (driverstate::inFlight().var.reqFlag != -1)
        return GetDriverReturnValue(kRemoteNotStored);
    SaveToLocalDataErea(reply);
    const bool partial = PLC_driver.comInfo && PLC_driver.comInfo->framesAnswered == 1;
    return GetDriverReturnValue(partial ? kRemoteNotStored : kAccepted);
}

// ---- Return codes and debug log -----------------------------------------------------------------

int GetDriverReturnValue(int outcome)
{
    switch (outcome) {
    case kAccepted:
        return kDone;
    case kRejected:
        return SwitchErrorReturn(kRejectedBase);
    case kNoReply:
        return SwitchErrorReturn(kNoReplyBase);
    case kWrongLength:
        return SwitchErrorReturn(kWrongLengthBase);
    case kRemoteNotStored:
        return kDoneNotStored;
    case kRemoteRejected:
        return SwitchErrorReturn(kRemoteRejectedBase);
    case kRemoteNoReply:
        return SwitchErrorReturn(kRemoteNoReplyBase);
    case kRemoteWrongLength:
        return SwitchErrorReturn(kRemoteWrongLengthBase);
    default:
        return kUnknownOutcome;
    }
}

int SwitchErrorReturn(int base)
{
    const int kind = PLC_driver.sendQueue.isEmpty() ? 0 : driverstate::inFlight().var.varType;
    const int fine = kind >= 1 && kind <= 11 ? kind : 0;
    return wrapping::sum(base, 1 + fine);
}

void customMessageHandler(QtMsgType, const char* message)
{
    static QMutex logMutex;
    static bool check = true;
    // Writing may itself cause a message, which would wait for ever for the lock.
    static __thread bool writing = false;
    if (writing)
        return;
    writing = true;
    {
        QMutexLocker lock(&logMutex);
        QFile file(QLatin1String("debug.log"));
        const bool opened =
            file.open(QIODevice::WriteOnly | (check ? QIODevice::Truncate : QIODevice::Append));
        check = false;
        if (opened) {
            const QDateTime now = QDateTime::currentDateTime();
            QTextStream line(&file);
            // The milliseconds are written as a number, as Qt 4 does; Qt 5's own format drops a
            // fraction's trailing zeros.
            line << now.toString(QLatin1String("yyyy.MM.dd.hh:mm:ss.")) << now.time().msec() << ':'
                 << QString::fromLatin1(message) << '\n';
            line.flush();
        }
    }
    writing = false;
}

// ---- Catalogue of variable names ----------------------------------------------------------------

void PassVarName(QList<varName>* list)
{
    const int kIndexed = 2;
    if (!list)
        return;
    for (int i = 0; i < list->size(); ++i) {
        if (list->at(i).kind != kIndexed)
            continue;
        // The lock is taken for each name, so that a value or a frame waits for one of them only.
        LeafLocker lock(tagstore::leaf);
        plcAddList.insert(list->at(i).name, list->at(i));
    }
}

bool getPassVarName(QString name) // NOLINT(performance-unnecessary-value-param): host ABI
{
    LeafLocker lock(tagstore::leaf);
    return plcAddList.constFind(name) != plcAddList.constEnd();
}

int updateRwVar(RW_VAR* request)
{
    if (request) {
        LeafLocker lock(tagstore::leaf);
        const tagstore::Address address =
            tagstore::addressOf(request->tagName, request->addressText, request->count);
        request->startAddress = address.startAddress;
        request->count = address.count;
        request->reqFlag = address.reqFlag;
        tagstore::seededInfo(PLCDataStorage[request->stationNo], request->tagName);
    }
    return 1;
}

void passRetValue(const RW_VAR& from, RW_VAR& to)
{
    to = from;
    to.data.clear();
}
