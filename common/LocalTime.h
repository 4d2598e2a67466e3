#ifndef MICRO850_COMMON_LOCALTIME_H
#define MICRO850_COMMON_LOCALTIME_H

#include <cstdint>
#include <string>

namespace micro850 {

/// A moment as a person reads it: local time with the offset from UTC that held at that moment, so
/// that the hour which the end of summer time repeats is two different texts.
/// "2026-11-22 14:30:00 +01:00". `milliseconds` are those since 1970 UTC; the part of a second is
/// cut off.
std::string localTimeText(std::int64_t milliseconds);

/// The same with milliseconds: "2026-11-22 14:30:00.125 +01:00".
std::string exactLocalTimeText(std::int64_t milliseconds);

} // namespace micro850

#endif
