#ifndef MICRO850_TESTS_FUZZ_DRIVER_STATE_H
#define MICRO850_TESTS_FUZZ_DRIVER_STATE_H

// What every harness needs from the driver: a fresh state for each input, checks that end the run
// with one line, and the conditions that hold whenever no entry point is running.

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

/// Returns the driver to its state after loading, with `settings` as its settings record.
void resetDriver(ComInfo& settings);

/// Sets the second of the day of the driver's clock, so that an input always does the same.
void setTimeOfDay(int seconds);

/// Checks that every lock is free.
void checkLocksFree();
/// Checks that the lists and the queue are in a state that the driver's own operations produce.
void checkConsistent();

/// The stores by station and tag, for a comparison after an operation.
typedef QMap<int, PLCTAGCOMMUNICATION> Stores;

/// What the driver may change between two copies of the stores: for a reply the record of the frame
/// that was in flight, for a read also the value and the class of its tag.
struct Change
{
    bool reply;
    int station;
    bool read;
    QString tag;
};
const Change kNoReply = {false, 0, false, QString()};

/// Checks that everything in `before` still exists and that only what `allowed` names has changed.
/// A reply advances the station's transaction counter by at most one, skipping 0. A confirmed class
/// stays. Stations and unconfirmed classes may be new.
void checkStoresAgainst(const Stores& before, const Change& allowed);

} // namespace fuzz

#endif
