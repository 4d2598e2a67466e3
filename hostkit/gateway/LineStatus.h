#ifndef MICRO850_HOST_GATEWAY_LINESTATUS_H
#define MICRO850_HOST_GATEWAY_LINESTATUS_H

#include "Json.h"
#include "JsonFile.h"
#include "Plant.h"

namespace micro850::host {

/// How a line and its stations do.
struct LineStatus
{
    LineView line;
    LineFigures figures;
    QVector<StationView> stations;
};

LineStatus statusOf(const Plant& plant);

/// The object that the summary of the host's commands has.
Json summaryOf(const LineStatus& status);
/// The same with all that lineStatusOf() needs. The gateway has it for each line in the reply to
/// "status", and its workers in "ages". `now` is the time by the clock of `lastAnswer`.
Json jsonOf(const LineStatus& status, Duration now);
/// The status in such an object; keys that are missing have their defaults. Throws UserError, which
/// names the key, for a value that is not allowed.
LineStatus lineStatusOf(const JsonNode& object, Duration now);

} // namespace micro850::host

#endif
