#ifndef MICRO850_HOST_PLANTTEXTS_H
#define MICRO850_HOST_PLANTTEXTS_H

#include "Plant.h"

namespace micro850::host {

/// The line's settings, and why it is down: "line /dev/ttyUSB0, 38400 8N1".
QString lineStateText(const LineView& line);
/// The same with the reason that is to be reported when it changes.
QString reportedLineStateText(const LineView& line);
/// How busy the line is: transactions, share in use, round trips, retries of all stations,
/// reopenings.
QString lineFiguresText(const LineFigures& figures, const QVector<StationView>& stations);
/// State and counters: "station 1 (press): connected; sent 12, ...".
QString stationText(const StationView& station, Duration now);
/// The state, of a dead station with the reason: "dead, no answer".
QString conditionText(const StationView& station);
/// "the line is 140 % asked for: Level is read every 1.4 s instead of 1 s".
QString overloadText(double share, const QString& variable, Duration asked, Duration actual);
/// "0.3 s", "12 s", "5 min", "2 h"; "-" for none.
QString ageText(std::optional<Duration> age);

} // namespace micro850::host

#endif
