#ifndef MICRO850_HOST_TIMEDRUNS_H
#define MICRO850_HOST_TIMEDRUNS_H

#include "ReadPlan.h"
#include "ReadSchedule.h"

namespace micro850::host {

/// What is read when a variable with an interval is read.
QVector<TimedRun> timedRuns(const Variable& variable, const CyclicRead& read, Duration interval);

} // namespace micro850::host

#endif
