#include "internal/RequestLists.h"

#include "internal/DriverState.h"
#include "internal/QtCompat.h"
#include "internal/Wrapping.h"

namespace {

// The write list and the one-shot list hold at most so many records.
const int kLongestQueue = 1024;
// No controller has a longer array: a longer run comes from a mistaken count and is not cut into
// requests.
const int kLongestRun = 1 << 20;

void advance(RW_VAR& run, int elements)
{
    run.startAddress = wrapping::sum(run.startAddress, elements);
    run.count -= elements;
}

// True when the gap between run and next request is too wide for one request.
bool isBeyond(const RW_VAR& run, const RW_VAR& next, int maxLength)
{
    const qint64 start = run.startAddress;
    return start + run.count < next.startAddress && start + maxLength < next.startAddress;
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

} // namespace

namespace requestlists {

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

void sort(QList<RW_VAR>& group)
{
    for (int i = 1; i < group.size(); ++i) {
        for (int j = group.size() - 1; j >= i; --j) {
            if (group.at(j - 1).startAddress > group.at(j).startAddress)
                qtcompat::swapItems(group, j - 1, j);
        }
    }
}

int cyclicCount()
{
    LeafLocker lock(driverstate::leaf);
    return PLC_driver.readList.size();
}

int appendCyclic(const RW_VAR& request)
{
    LeafLocker lock(driverstate::leaf);
    PLC_driver.readList.append(request);
    return PLC_driver.readList.size();
}

void appendCyclic(const QList<RW_VAR>& requests)
{
    LeafLocker lock(driverstate::leaf);
    PLC_driver.readList += requests;
}

int replaceCyclic(QList<RW_VAR>& requests)
{
    LeafLocker lock(driverstate::leaf);
    PLC_driver.readList.swap(requests);
    PLC_driver.readCycleCount = 0;
    PLC_driver.comInfo->passComplete = 0;
    return PLC_driver.readList.size();
}

void emptyCyclic()
{
    // Deleted after the lock is released.
    QList<RW_VAR> old;
    LeafLocker lock(driverstate::leaf);
    PLC_driver.readList.swap(old);
}

int queueWrite(const RW_VAR& request, bool unconditional)
{
    QList<RW_VAR>& writes = PLC_driver.writeList;
    const bool always = unconditional || writes.size() < 2;
    const int queued = always ? -1 : queuedWriteTo(request);
    if (queued >= 0)
        writes[queued] = request;
    else if (always || writes.size() < kLongestQueue)
        writes.append(request);
    return writes.size();
}

int appendOnce(const RW_VAR& request)
{
    LeafLocker lock(driverstate::leaf);
    PLC_driver.onceReadList.append(request);
    return PLC_driver.onceReadList.size();
}

int queueOnce(const RW_VAR& request)
{
    LeafLocker lock(driverstate::leaf);
    QList<RW_VAR>& reads = PLC_driver.onceReadList;
    if (reads.size() < kLongestQueue && !isQueuedOnce(request))
        reads.append(request);
    return reads.size();
}

int onceCount()
{
    LeafLocker lock(driverstate::leaf);
    return PLC_driver.onceReadList.size();
}

} // namespace requestlists
