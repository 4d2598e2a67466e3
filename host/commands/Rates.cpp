#include "Rates.h"

#include <algorithm>

namespace micro850::host {

const char* const kReadIntervalHelp =
    "Seconds between two reads of a variable whose project names no intervalMs; 0: as often as the "
    "line allows (default 0.5)";

void RateOptions::addTo(CommandOptions& command, const char* intervalHelp)
{
    command.number("--interval", interval, 0.0, 1e9, intervalHelp);
    command.flag("--fast", fast, "Read every variable as often as the line allows");
}

void RateOptions::applyTo(Project& project, Duration otherwise) const
{
    if (fast) {
        project.readAllFast();
        return;
    }
    const qint64 day = 24LL * 60 * 60 * 1000;
    const qint64 shortest = interval == 0 ? 0 : 1;
    const Duration wanted = interval >= 0 ? givenInterval() : otherwise;
    project.setInterval(
        static_cast<int>(std::clamp<qint64>(wholeMilliseconds(wanted), shortest, day)));
}

} // namespace micro850::host
