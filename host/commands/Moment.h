#ifndef MICRO850_HOST_COMMANDS_MOMENT_H
#define MICRO850_HOST_COMMANDS_MOMENT_H

#include <cstdint>
#include <string>

namespace micro850::host {

/// Which of two moments a local time means that comes twice, because the clock is set back: the
/// first for the begin of a range, the second for its end. So a range has all that it may mean.
enum class Bound { From, To };

/// Milliseconds since 1970 UTC of a moment as a user names it: ISO 8601 with an offset or in local
/// time ("2026-11-22", "2026-11-22T14:30", "2026-11-22 14:30:00.125+01:00"), "now", or a time
/// before `now` ("-90s", "-15min", "-1h", "-7d", "-2w", "-PT1H30M"). A date alone is its midnight.
/// Throws UserError, which calls the text `option`, for another text and for a local time that the
/// clock skips.
std::int64_t momentOf(const std::string& text, const std::string& option, Bound bound,
                      std::int64_t now);

} // namespace micro850::host

#endif
