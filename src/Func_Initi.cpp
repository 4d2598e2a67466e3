#include "Func_Initi.h"

#include "internal/RequestLists.h"

void* LB = nullptr;
void* LW = nullptr;
void* RWI = nullptr;

namespace {

typedef QMap<QString, QList<RW_VAR>> RequestsByName;
typedef QMap<int, RequestsByName> RequestsByStation;

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
            requestlists::sort(*name);
            requestlists::merge(requests, *name, requestlists::kElementsPerRequest);
        }
    }
    return requests;
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
    return request ? requestlists::appendCyclic(*request) : requestlists::cyclicCount();
}

int AddListWriteVar(RW_VAR* request, int mode)
{
    QMutexLocker lock(&PLC_driver.listMutex);
    return request ? requestlists::queueWrite(*request, mode == 1) : PLC_driver.writeList.size();
}

int AddListOnceReadVar(RW_VAR* request, int mode)
{
    if (!request)
        return requestlists::onceCount();
    if (mode == 1) {
        QMutexLocker lock(&PLC_driver.listMutex);
        return requestlists::appendOnce(*request);
    }
    request->reqFlag = 0;
    request->onceFlag = 1;
    if (PLC_driver.comInfo && PLC_driver.comInfo->multiStation == 0)
        request->stationNo = PLC_driver.comInfo->defaultStation;
    updateRwVar(request);
    // listMutex is not taken, since the caller may hold it.
    return requestlists::queueOnce(*request);
}

int ReCreatReadVarList(QList<HOSTVAR>* hostList)
{
    QMutexLocker lock(&PLC_driver.listMutex);
    if (!hostList || (!hostList->isEmpty() && !PLC_driver.comInfo))
        return requestlists::cyclicCount();
    if (hostList->isEmpty()) {
        requestlists::emptyCyclic();
        return 0;
    }
    RequestsByStation groups = grouped(*hostList, *PLC_driver.comInfo);
    QList<RW_VAR> requests = cyclicRequests(groups);
    return requestlists::replaceCyclic(requests);
}

void addressAdd(RW_VAR& run, int maxLength, bool appendRest)
{
    QList<RW_VAR> requests;
    requestlists::cut(requests, run, maxLength, appendRest);
    requestlists::appendCyclic(requests);
}

void BitVarReCreat(QList<RW_VAR>& group, int maxLength)
{
    QList<RW_VAR> requests;
    requestlists::merge(requests, group, maxLength);
    requestlists::appendCyclic(requests);
}

void Bubble_Sort(QList<RW_VAR>& group)
{
    requestlists::sort(group);
}
