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

// ---- Configuration: while no other call is running, but for what says otherwise -----------------

/// Keeps the host's settings record, words 10 and 13 of which it clears. Null takes it away: the
/// poll cycle then stands still.
MICRO850_ENTRY void SetComInfo(ComInfo* info);
/// Keeps the two callbacks; either may be null.
MICRO850_ENTRY void RegistCallBackFuncIntf(FinishCallback finish, RefreshCallback refresh);
/// Keeps the addresses of the host's memory areas. The driver never reads through them.
MICRO850_ENTRY void FlashLocalRegister(void* lb, void* lw, void* rwi);
/// Enables (1) or disables (0) a station, below 0 enables all. Any thread; takes `stationMutex`.
MICRO850_ENTRY void EnCommStation(int station, int enable);
/// Always -1; the arguments are not read. Any thread.
MICRO850_ENTRY int PLCAddressChangeIntef(...);

extern MICRO850_EXPORT void* LB;
extern MICRO850_EXPORT void* LW;
extern MICRO850_EXPORT void* RWI;

/// True while the station is disabled. Takes `stationMutex`; the caller may hold `listMutex`.
MICRO850_EXPORT bool Ethernetcontains(int station);
/// Always -1.
MICRO850_EXPORT int StringAddressToInt(int kind, QString text);

// ---- Request lists ------------------------------------------------------------------------------
// Each returns the length of its list after the operation; a null record adds nothing.

/// Appends to the cyclic list. Any thread; takes none of the named mutexes.
MICRO850_ENTRY int AddListReadVar(RW_VAR* request);
/// Appends to the write list (`mode` 1), else first looks for a queued write of the same station,
/// area, start and count behind the head and overwrites it. At 1024 records a new one is dropped.
/// Any thread but a callback's; takes `listMutex`.
MICRO850_ENTRY int AddListWriteVar(RW_VAR* request, int mode);
/// Appends to the one-shot list unchanged (`mode` 1, under `listMutex`), else completes `*request`
/// (station, element, flags) and appends it unless it is queued already or 1024 are. Any thread;
/// the second form takes none of the named mutexes: callbacks, and who holds `listMutex`, may use
/// it.
MICRO850_ENTRY int AddListOnceReadVar(RW_VAR* request, int mode);
/// Replaces the cyclic list by requests of at most 15 elements for the host's variables and
/// restarts the poll cycle; an empty list only empties it. A null list, or variables without a
/// settings record, change nothing. Any thread but a callback's; takes `listMutex`, for 1 ms with a
/// thousand variables (x86-64) and longer, by the square, with more elements of one array.
MICRO850_ENTRY int ReCreatReadVarList(QList<HOSTVAR>* hostList);

/// Appends to the cyclic list blocks of `maxLength` elements cut from `run`, which keeps the rest;
/// `appendRest` appends that too. Caller holds `listMutex`.
MICRO850_EXPORT void addressAdd(RW_VAR& run, int maxLength, bool appendRest);
/// Merges one group, sorted by startAddress, into runs and cuts them. Caller holds `listMutex`.
MICRO850_EXPORT void BitVarReCreat(QList<RW_VAR>& group, int maxLength);
/// Sorts by startAddress, stable.
MICRO850_EXPORT void Bubble_Sort(QList<RW_VAR>& group);

#endif
