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

void RateOptions::noteGateway(const Output& output) const
{
    QStringList idle;
    if (interval >= 0)
        idle += QStringLiteral("--interval");
    if (fast)
        idle += QStringLiteral("--fast");
    if (!idle.isEmpty())
        output.note(idle.join(QStringLiteral(", ")) +
                    QStringLiteral(": without effect on how often the gateway reads its variables "
                                   "(its project files tell it)"));
}

} // namespace micro850::host
