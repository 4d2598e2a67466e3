#ifndef MICRO850_INTERNAL_DRIVERSTATE_H
#define MICRO850_INTERNAL_DRIVERSTATE_H

// What the units share of the driver object: its leaf lock, the send queue and the exchange that is
// going on.

#include "Device_Driver.h"
#include "internal/LeafLock.h"

namespace driverstate {

/// Leaf lock of what entry points without a named mutex share with the poll pair: `readList`,
/// `onceReadList`, `readCycleCount`, ComInfo::passComplete and `errorFlag`. The poll pair and
/// ReCreatReadVarList() hold `listMutex` as well, so a head that was looked up under both stays
/// where it is.
extern QMutex leaf;

/// Values of Device_Driver::currentList.
enum RequestList { kCyclicRead = 0, kWrite = 1, kOneShotRead = 2, kNoListYet = 100 };

/// What CheckGetData() returns.
enum Verdict { kReject = 0, kStore = 1, kAcceptOnly = 2 };

/// A Protocol::replyLength that stands for any length.
const int kVariableLength = -1;

/// True while the last transaction in flight failed.
bool failed();
/// The transaction in flight; only while the send queue is not empty.
inline const Protocol& inFlight()
{
    return PLC_driver.sendQueue.at(0);
}
/// True when both requests belong to the same variable of the host.
inline bool sameVariable(const RW_VAR& a, const RW_VAR& b)
{
    return a.varType == b.varType && a.varIndex == b.varIndex;
}

/// Appends a transaction to the send queue; moves `frame` there and leaves it empty. Caller holds
/// `listMutex` or is the only thread.
void queue(QByteArray& frame, int replyLength, int auxLength, const RW_VAR& request);
/// Notes in the settings record that an exchange of `frames` begins.
void beginExchange(int frames);
/// Calls the refresh callback, if there is one. Caller holds `listMutex`.
void notifyRefresh(int varType);

} // namespace driverstate

#endif
