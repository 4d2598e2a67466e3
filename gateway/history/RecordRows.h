#ifndef MICRO850_GATEWAY_HISTORY_RECORDROWS_H
#define MICRO850_GATEWAY_HISTORY_RECORDROWS_H

#include "HistoryRows.h"
#include "LineService.h"

namespace micro850::gateway {

/// What happened, as a row of a history without a number.
host::HistoryEvent rowOf(const LineEvent& event);
host::HistoryWrite rowOf(const JournalEntry& entry);
LineEvent eventOf(const host::HistoryEvent& row);

} // namespace micro850::gateway

#endif
