#ifndef MICRO850_HOST_DURATION_H
#define MICRO850_HOST_DURATION_H

#include "CipType.h"

#include <QtCore/QString>

#include <optional>

namespace micro850::host {

/// Microseconds in one unit of a type that holds a duration; 0 for every other type.
int microsecondsPerUnit(const CipType& type);

/// Microseconds of an ISO 8601 duration of days and smaller units: "PT2.5S", "-P1DT12H". Nothing
/// for another text, a year or a month, whose length is not fixed, and for what 64 bits do not
/// hold.
std::optional<qint64> durationFromText(const QString& text);

/// The duration of so many microseconds in days and smaller units: "PT2.5S", "-P1DT12H", "PT0S".
QString durationText(qint64 microseconds);

} // namespace micro850::host

#endif
