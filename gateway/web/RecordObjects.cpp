#include "RecordObjects.h"

#include "HistoryRows.h"
#include "WebValues.h"

namespace micro850::gateway {

Json withExactTexts(Json row)
{
    row.erase("sequence");
    addExactText(row, "old", "oldText");
    addExactText(row, "new", "newText");
    return row;
}

Json objectOf(const LineEvent& event)
{
    host::HistoryEvent row;
    row.time = event.time;
    row.line = event.line;
    row.station = event.station;
    row.state = event.state;
    row.text = event.text;
    return withExactTexts(host::jsonOf(row));
}

Json objectOf(const JournalEntry& entry)
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
    return withExactTexts(host::jsonOf(row));
}

} // namespace micro850::gateway
