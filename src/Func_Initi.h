#ifndef MICRO850_FUNC_INITI_H
#define MICRO850_FUNC_INITI_H

// Configuration entry points, the map of disabled stations and the request lists.

#include "Device_Driver.h"

/// The host's description of one cyclic variable (host ABI). The host's list holds its records by
/// pointer, as QList does with every type of this size.
struct HOSTVAR
{
    unsigned char hostField0; ///< not read
    unsigned char areaType;
    int hostField1;      ///< not read
    QString addressText; ///< element index as decimal text
    QString tagName;
    int count; ///< elements, or 16-bit host words
};

// ---- Configuration: while no other call is running, unless stated otherwise ---------------------

/// Keeps the address of the host's settings record and clears its words 10 and 13. Null removes it:
/// the poll cycle then sends nothing.
MICRO850_ENTRY void SetComInfo(ComInfo* info);
/// Keeps the two callbacks; either may be null.
MICRO850_ENTRY void RegistCallBackFuncIntf(FinishCallback finish, RefreshCallback refresh);
/// Keeps the addresses of the host's memory areas. The driver never reads through them.
MICRO850_ENTRY void FlashLocalRegister(void* lb, void* lw, void* rwi);
/// Enables (1) or disables (0) a station. A negative station enables all. Any thread; takes
/// `stationMutex`.
MICRO850_ENTRY void EnCommStation(int station, int enable);
/// Always -1. Does not read its arguments. Any thread.
MICRO850_ENTRY int PLCAddressChangeIntef(...);

extern MICRO850_EXPORT void* LB;
extern MICRO850_EXPORT void* LW;
extern MICRO850_EXPORT void* RWI;

/// True while the station is disabled. Takes `stationMutex`; the caller may hold `listMutex`.
MICRO850_EXPORT bool Ethernetcontains(int station);
/// Always -1.
MICRO850_EXPORT int StringAddressToInt(int kind, QString text);

// ---- Request lists ------------------------------------------------------------------------------
// Each returns the length of its list after the operation. A null record adds nothing.

/// Appends to the cyclic list. Any thread; takes none of the named mutexes.
MICRO850_ENTRY int AddListReadVar(RW_VAR* request);
/// Appends to the write list if `mode` is 1. In other modes overwrites a queued write of the same
/// station, area, start and count if there is one after the head, and appends otherwise; a list of
/// 1024 records drops the new one. Any thread, but not from a callback, since it takes `listMutex`.
MICRO850_ENTRY int AddListWriteVar(RW_VAR* request, int mode);
/// Appends the request to the one-shot list. With `mode` 1 appends it unchanged; takes `listMutex`.
/// In other modes completes `*request` first (station, element, flags) and drops it if it is queued
/// already or if 1024 are. This takes none of the named mutexes, so that a callback and a caller
/// that holds `listMutex` may use it. Any thread.
MICRO850_ENTRY int AddListOnceReadVar(RW_VAR* request, int mode);
/// Replaces the cyclic list by requests of at most 15 elements for the host's variables and
/// restarts the poll cycle. An empty list empties the cyclic list and does no more. A null list, or
/// variables without a settings record, change nothing. Any thread, but not from a callback. Holds
/// `listMutex` for 1 ms with a thousand variables (x86-64); the time grows by the square of the
/// number of elements that one array has in the list.
MICRO850_ENTRY int ReCreatReadVarList(QList<HOSTVAR>* hostList);

/// Cuts blocks of `maxLength` elements from `run` and appends them to the cyclic list. `run` keeps
/// the rest, which `appendRest` appends too. Caller holds `listMutex`.
MICRO850_EXPORT void addressAdd(RW_VAR& run, int maxLength, bool appendRest);
/// Merges one group, sorted by startAddress, into runs and cuts them. Caller holds `listMutex`.
MICRO850_EXPORT void BitVarReCreat(QList<RW_VAR>& group, int maxLength);
/// Sorts by startAddress; equal ones keep their order.
MICRO850_EXPORT void Bubble_Sort(QList<RW_VAR>& group);

#endif
