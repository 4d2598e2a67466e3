#ifndef MICRO850_HOST_PLOT_H
#define MICRO850_HOST_PLOT_H

#include "Clock.h"

#include <QtCore/QPair>
#include <QtCore/QStringList>
#include <QtCore/QVector>

namespace micro850::host {

/// A rolling chart of one value over time, drawn with block characters: the newest at the right.
class Plot
{
public:
    explicit Plot(Duration span) : m_span(span) {}

    /// The value from now on; NaN where there is none. Times do not go back.
    void add(Duration now, double value);
    /// The chart in so many lines of so many characters. Columns start at multiples of their width
    /// in time, so that the picture moves by whole characters.
    QStringList lines(int width, int rows, Duration now) const;
    /// "1.5 to 20", over the whole span; "" without a value.
    QString range(Duration now) const;

private:
    struct Limits
    {
        double least;
        double most;
        bool any;
    };
    Limits limits(Duration now) const;
    double valueAt(Duration time) const;

    Duration m_span;
    QVector<QPair<Duration, double>> m_changes;
};

} // namespace micro850::host

#endif
