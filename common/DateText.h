#ifndef MICRO850_COMMON_DATETEXT_H
#define MICRO850_COMMON_DATETEXT_H

// Dates and times of day as ISO 8601 writes them. A controller has no time zone: they are its own.

#include "CipType.h"

#include <cstdint>
#include <optional>
#include <string>

namespace micro850 {

/// The form in which a date or a time of a type is written, such as "2024-02-29"; null for every
/// type that is neither DATE, TIME_OF_DAY nor DATE_AND_TIME.
const char* dateExample(const CipType& type);

/// The controller's number for the ISO 8601 text of a date or time type: days since 1972-01-01 for
/// a DATE, milliseconds since midnight for a TIME_OF_DAY; a DATE_AND_TIME has the milliseconds in
/// its low 32 bits and the days in the 16 bits above. Nothing for another text, for a day that the
/// calendar or the type does not have, and for a type that is none of these.
std::optional<std::uint64_t> parseDate(const CipType& type, const std::string& text);

/// The ISO 8601 text of a controller's number: "2024-02-29", "06:30:00", "2024-02-29T06:30:00.250".
/// Nothing for a number that is no date or time, and for a type that is none of these.
std::optional<std::string> dateText(const CipType& type, std::uint64_t number);

} // namespace micro850

#endif
