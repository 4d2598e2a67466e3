#ifndef MICRO850_INTERNAL_REQUESTLISTS_H
#define MICRO850_INTERNAL_REQUESTLISTS_H

// What the request lists do: runs of elements are merged and cut into requests, a queued request is
// replaced or found, a list is replaced in one step.

#include "Device_Driver.h"

namespace requestlists {

/// A cyclic request asks for at most so many elements.
const int kElementsPerRequest = 15;

// ---- Runs: no global is read and no lock is taken -----------------------------------------------

/// Appends to `requests` blocks of `maxLength` elements cut from `run`, which keeps the rest;
/// `appendRest` appends that too. A run longer than any controller array counts as empty.
void cut(QList<RW_VAR>& requests, RW_VAR& run, int maxLength, bool appendRest);
/// Merges one group, sorted by startAddress, into runs and appends the blocks that they are cut
/// into.
void merge(QList<RW_VAR>& requests, const QList<RW_VAR>& group, int maxLength);
/// Sorts by startAddress, stable.
void sort(QList<RW_VAR>& group);

// ---- Cyclic list: each takes driverstate::leaf --------------------------------------------------

int cyclicCount();
int appendCyclic(const RW_VAR& request);
void appendCyclic(const QList<RW_VAR>& requests);
/// Replaces the list and restarts the poll cycle in one step, so that no reply counts for a list
/// that is half built. `requests` receives the old list, whose records the caller deletes after the
/// lock is released. Returns the new list's length. Caller holds `listMutex`, and there is a
/// settings record.
int replaceCyclic(QList<RW_VAR>& requests);
/// Caller holds `listMutex`.
void emptyCyclic();

// ---- Write and one-shot list: each returns the length of its list -------------------------------

/// Appends the write. Unless `unconditional`, it first overwrites a queued write to the same place,
/// and a full list drops it. Caller holds `listMutex`.
int queueWrite(const RW_VAR& request, bool unconditional);
/// Appends the read unchanged. Takes driverstate::leaf.
int appendOnce(const RW_VAR& request);
/// Appends the read unless it is queued already or the list is full. Takes driverstate::leaf.
int queueOnce(const RW_VAR& request);
/// Takes driverstate::leaf.
int onceCount();

} // namespace requestlists

#endif
