#ifndef MICRO850_COMMON_DURATIONTEXT_H
#define MICRO850_COMMON_DURATIONTEXT_H

// Durations as ISO 8601 writes them.

#include "CipType.h"

#include <cstdint>
#include <optional>
#include <string>

namespace micro850 {

/// Microseconds in one unit of a type that holds a duration; 0 for every other type.
int microsecondsPerUnit(const CipType& type);

/// Microseconds of an ISO 8601 duration of weeks, days and smaller units: "PT2.5S", "-P1DT12H".
/// Nothing for another text, for a year or a month, whose length varies, and for a duration that
/// does not fit in 64 bits.
std::optional<std::int64_t> parseDuration(const std::string& text);

/// A number of microseconds in days and smaller units: "PT2.5S", "-P1DT12H", "PT0S".
std::string durationText(std::int64_t microseconds);

} // namespace micro850

#endif
