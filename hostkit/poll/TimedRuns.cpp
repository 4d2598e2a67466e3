#include "TimedRuns.h"

namespace micro850::host {

QVector<TimedRun> timedRuns(const Variable& variable, const CyclicRead& read, Duration interval)
{
    QVector<TimedRun> all;
    const QVector<Run> runs = runsOf(variable, *read.type);
    for (const Run& run : runs) {
        TimedRun timed;
        timed.tag = {variable.station, variable.tag};
        timed.element = run.element;
        timed.elements = run.elements;
        timed.elementSize = read.type->size;
        timed.mergeable = read.mergeable && read.type->kind != CipKind::String;
        timed.interval = interval;
        timed.variable = timed.first = read.variable;
        all.append(timed);
    }
    return all;
}

} // namespace micro850::host
