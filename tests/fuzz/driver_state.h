#ifndef MICRO850_TESTS_FUZZ_DRIVER_STATE_H
#define MICRO850_TESTS_FUZZ_DRIVER_STATE_H

// What every harness needs of the driver: a fresh state for each input, checks that end the run
// with one line, and what must hold whenever no entry point is at work.

#include "Device_Driver.h"
#include "Func_Check.h"
#include "Func_DealData.h"
#include "Func_GetOrSetData.h"
#include "Func_Initi.h"
#include "Func_Read.h"
#include "Func_Remote.h"
#include "Func_Write.h"
#include "fuzz_check.h"
#include "internal/ConnectionSetup.h"
#include "internal/DriverState.h"
#include "internal/Frame.h"
#include "internal/TagStore.h"
#include "tagcommunication.h"

namespace fuzz {

/// Puts the driver back to the state after loading, with `settings` as its settings record.
void resetDriver(ComInfo& settings);

/// The second of the day that the driver's clock shows, so that an input always does the same.
void setTimeOfDay(int seconds);

/// Every lock is free.
void checkLocksFree();
/// The lists and the queue are in a state that the driver's own operations give.
void checkConsistent();

/// Stores by station and tag, to compare with what an operation left.
typedef QMap<int, PLCTAGCOMMUNICATION> Stores;

/// What the driver may change between two looks at the stores: for a reply the record of the frame
/// that was in flight, for a read also the value and the class of its tag.
struct Change
{
    bool reply;
    int station;
    bool read;
    QString tag;
};
const Change kNoReply = {false, 0, false, QString()};

/// Of `before` everything is still there, and nothing has changed but what `allowed` says: a reply
/// advances the station's transaction counter by one at most, 0 left out, and a class that was
/// confirmed stays. Stations and classes that no reply told may be new.
void checkStoresAgainst(const Stores& before, const Change& allowed);

} // namespace fuzz

#endif
