#ifndef MICRO850_GATEWAY_WEB_RECORDOBJECTS_H
#define MICRO850_GATEWAY_WEB_RECORDOBJECTS_H

#include "LineService.h"

namespace micro850::gateway {

/// What happened as an object, as the history has it, without a number.
Json objectOf(const LineEvent& event);
Json objectOf(const JournalEntry& entry);
/// A row of the journal, without its number and with the exact digits of large integers.
Json withExactTexts(Json row);

} // namespace micro850::gateway

#endif
