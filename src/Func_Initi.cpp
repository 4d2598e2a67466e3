#include "Func_Initi.h"

#include "internal/DriverState.h"
#include "internal/QtCompat.h"
#include "internal/Wrapping.h"

void* LB = nullptr;
void* LW = nullptr;
void* RWI = nullptr;

namespace {

// The write list and the one-shot list hold at most so many records.
const int kLongestQueue = 1024;
const int kElementsPerRequest = 15;
// No controller has a longer array: a longer run comes from a mistaken count and is not cut into
// requests.
const int kLongestRun = 1 << 20;

typedef QMap<QString, QList<RW_VAR>> RequestsByName;
typedef QMap<int, RequestsByName> RequestsByStation;

void advance(RW_VAR& run, int elements)
{
    run.startAddress = wrapping::sum(run.startAddress, elements);
    run.count -= elements;
}

// Appends to `requests` the blocks that addressAdd() appends to the cyclic list.
void cut(QList<RW_VAR>& requests, RW_VAR& run, int maxLength, bool appendRest)
{
    if (run.count > kLongestRun)
        run.count = 0;
    while (maxLength > 0 && maxLength <= run.count) {
        requests.append(run);
        requests.last().count = maxLength;
        advance(run, maxLength);
    }
    if (appendRest && run.count > 0)
        requests.append(run);
}

bool samePlace(const RW_VAR& a, const RW_VAR& b)
{
    return a.stationNo == b.stationNo && a.areaType == b.areaType &&
           a.startAddress == b.startAddress && a.count == b.count;
}

// Index of the queued write that a new one to the same place replaces, -1 for none. The head is not
// compared, since it may be in flight.
int queuedWriteTo(const RW_VAR& request)
{
    const QList<RW_VAR>& writes = PLC_driver.writeList;
    for (int i = 1; i < writes.size(); ++i) {
        if (samePlace(writes.at(i), request))
            return i;
    }
    return -1;
}

bool isQueuedOnce(const RW_VAR& request)
{
    const QList<RW_VAR>& reads = PLC_driver.onceReadList;
    for (int i = 0; i < reads.size(); ++i) {
        if (driverstate::sameVariable(reads.at(i), request) && samePlace(reads.at(i), request))
            return true;
    }
    return false;
}

// True when the gap between run and next request is too wide for one request.
bool isBeyond(const RW_VAR& run, const RW_VAR& next, int maxLength)
{
    const qint64 start = run.startAddress;
    return start + run.count < next.startAddress && start + maxLength < next.startAddress;
}

// Appends to `requests` the blocks that BitVarReCreat() appends to the cyclic list.
void merge(QList<RW_VAR>& requests, const QList<RW_VAR>& group, int maxLength)
{
    if (group.isEmpty())
        return;
    RW_VAR run = group.first();
    cut(requests, run, maxLength, false);
    for (int i = 1; i < group.size(); ++i) {
        const RW_VAR& next = group.at(i);
        if (run.count == 0) {
            run = next;
        } else if (isBeyond(run, next, maxLength)) {
            cut(requests, run, maxLength, true);
            run = next;
        } else {
            // The run ends where the next request ends, even if the run was longer.
            const int end = wrapping::sum(next.startAddress, next.count);
            run.count = wrapping::difference(end, run.startAddress);
        }
    }
    cut(requests, run, maxLength, true);
}

RW_VAR cyclicTemplate(const ComInfo& settings)
{
    RW_VAR request = RW_VAR();
    request.varIndex = -1;
    request.hostField3 = settings.remoteMode;
    request.linkId = settings.localLink;
    request.stationNo = settings.defaultStation;
    return request;
}

RequestsByStation grouped(const QList<HOSTVAR>& variables, const ComInfo& settings)
{
    RequestsByStation groups;
    RW_VAR request = cyclicTemplate(settings);
    for (int i = 0; i < variables.size(); ++i) {
        const HOSTVAR& variable = variables.at(i);
        request.areaType = variable.areaType;
        request.tagName = variable.tagName;
        request.addressText = variable.addressText;
        request.startAddress = 0;
        request.count = variable.count;
        updateRwVar(&request);
        groups[request.stationNo][request.tagName].append(request);
    }
    return groups;
}

QList<RW_VAR> cyclicRequests(RequestsByStation& groups)
{
    QList<RW_VAR> requests;
    for (RequestsByStation::iterator station = groups.begin(); station != groups.end(); ++station) {
        for (RequestsByName::iterator name = station->begin(); name != station->end(); ++name) {
            Bubble_Sort(*name);
            merge(requests, *name, kElementsPerRequest);
        }
    }
    return requests;
}

int appendOnce(const RW_VAR& request)
{
    QMutexLocker lock(&PLC_driver.listMutex);
    LeafLocker leaf(driverstate::leaf);
    PLC_driver.onceReadList.append(request);
    return PLC_driver.onceReadList.size();
}

void appendCyclic(const QList<RW_VAR>& requests)
{
    LeafLocker lock(driverstate::leaf);
    PLC_driver.readList += requests;
}

// Replaces the list and restarts the poll cycle in one step, so that no reply counts for a list
// that is half built. `requests` receives the old list, whose records the caller deletes after the
// lock is released. Returns the new list's length.
int replaceCyclic(QList<RW_VAR>& requests)
{
    LeafLocker lock(driverstate::leaf);
    PLC_driver.readList.swap(requests);
    PLC_driver.readCycleCount = 0;
    PLC_driver.comInfo->passComplete = 0;
    return PLC_driver.readList.size();
}

int emptyCyclic()
{
    QList<RW_VAR> old;
    LeafLocker lock(driverstate::leaf);
    PLC_driver.readList.swap(old);
    return 0;
}

int cyclicCount()
{
    LeafLocker lock(driverstate::leaf);
    return PLC_driver.readList.size();
}

} // namespace

// ---- Configuration ------------------------------------------------------------------------------

void SetComInfo(ComInfo* info)
{
    if (info) {
        info->clearedWord10 = 0;
        info->clearedWord13 = 0;
    }
    PLC_driver.comInfo = info;
}

void RegistCallBackFuncIntf(FinishCallback finish, RefreshCallback refresh)
{
    PLC_driver.finishCallback = finish;
    PLC_driver.refreshCallback = refresh;
}

void FlashLocalRegister(void* lb, void* lw, void* rwi)
{
    LB = lb;
    LW = lw;
    RWI = rwi;
}

void EnCommStation(int station, int enable)
{
    QMutexLocker lock(&PLC_driver.stationMutex);
    if (station < 0)
        PLC_driver.disabledStations.clear();
    else if (enable == 0)
        PLC_driver.disabledStations.insert(station, 0);
    else if (enable == 1)
        PLC_driver.disabledStations.remove(station);
}

int PLCAddressChangeIntef(...)
{
    return -1;
}

bool Ethernetcontains(int station)
{
    QMutexLocker lock(&PLC_driver.stationMutex);
    return PLC_driver.disabledStations.contains(station);
}

int StringAddressToInt(int, QString) // NOLINT(performance-unnecessary-value-param): host ABI
{
    return -1;
}

// ---- Request lists ------------------------------------------------------------------------------

int AddListReadVar(RW_VAR* request)
{
    LeafLocker lock(driverstate::leaf);
    if (request)
        PLC_driver.readList.append(*request);
    return PLC_driver.readList.size();
}

int AddListWriteVar(RW_VAR* request, int mode)
{
    QMutexLocker lock(&PLC_driver.listMutex);
    QList<RW_VAR>& writes = PLC_driver.writeList;
    if (!request)
        return writes.size();
    const bool unconditional = mode == 1 || writes.size() < 2;
    const int queued = unconditional ? -1 : queuedWriteTo(*request);
    if (queued >= 0)
        writes[queued] = *request;
    else if (unconditional || writes.size() < kLongestQueue)
        writes.append(*request);
    return writes.size();
}

int AddListOnceReadVar(RW_VAR* request, int mode)
{
    if (request && mode == 1)
        return appendOnce(*request);
    if (request) {
        request->reqFlag = 0;
        request->onceFlag = 1;
        if (PLC_driver.comInfo && PLC_driver.comInfo->multiStation == 0)
            request->stationNo = PLC_driver.comInfo->defaultStation;
        updateRwVar(request);
    }
    // listMutex is not taken, since the caller may hold it.
    LeafLocker lock(driverstate::leaf);
    QList<RW_VAR>& reads = PLC_driver.onceReadList;
    if (request && reads.size() < kLongestQueue && !isQueuedOnce(*request))
        reads.append(*request);
    return reads.size();
}

int ReCreatReadVarList(QList<HOSTVAR>* hostList)
{
    QMutexLocker lock(&PLC_driver.listMutex);
    if (!hostList || (!hostList->isEmpty() && !PLC_driver.comInfo))
        return cyclicCount();
    if (hostList->isEmpty())
        return emptyCyclic();
    RequestsByStation groups = grouped(*hostList, *PLC_driver.comInfo);
    QList<RW_VAR> requests = cyclicRequests(groups);
    return replaceCyclic(requests);
}

void addressAdd(RW_VAR& run, int maxLength, bool appendRest)
{
    QList<RW_VAR> requests;
    cut(requests, run, maxLength, appendRest);
    appendCyclic(requests);
}

void BitVarReCreat(QList<RW_VAR>& group, int maxLength)
{
    QList<RW_VAR> requests;
    merge(requests, group, maxLength);
    appendCyclic(requests);
}

void Bubble_Sort(QList<RW_VAR>& group)
{
    for (int i = 1; i < group.size(); ++i) {
        for (int j = group.size() - 1; j >= i; --j) {
            if (group.at(j - 1).startAddress > group.at(j).startAddress)
                qtcompat::swapItems(group, j - 1, j);
        }
    }
}
