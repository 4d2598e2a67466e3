#include "RecordRows.h"

namespace micro850::gateway {

host::HistoryEvent rowOf(const LineEvent& event)
{
    host::HistoryEvent row;
    row.time = event.time;
    row.line = event.line;
    row.station = event.station;
    row.state = event.state;
    row.text = event.text;
    return row;
}

host::HistoryWrite rowOf(const JournalEntry& entry)
{
    host::HistoryWrite row;
    row.time = entry.time;
    row.uid = entry.uid;
    row.pid = entry.pid;
    row.client = entry.client;
    row.line = entry.line;
    row.name = entry.name;
    row.element = entry.element;
    row.oldValue = entry.oldValue;
    row.newValue = entry.newValue;
    row.outcome = entry.outcome;
    row.error = entry.error;
    return row;
}

LineEvent eventOf(const host::HistoryEvent& row)
{
    LineEvent event;
    event.time = row.time;
    event.line = row.line;
    event.station = row.station;
    event.state = row.state;
    event.text = row.text;
    return event;
}

} // namespace micro850::gateway
