#include "RecordObjects.h"

#include "RecordRows.h"
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
    return withExactTexts(host::jsonOf(rowOf(event)));
}

Json objectOf(const JournalEntry& entry)
{
    return withExactTexts(host::jsonOf(rowOf(entry)));
}

} // namespace micro850::gateway
