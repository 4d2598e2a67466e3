#ifndef MICRO850_HOST_PLOTAXIS_H
#define MICRO850_HOST_PLOTAXIS_H

#include "Clock.h"
#include "PlotHistory.h"

#include <QtCore/QString>
#include <QtCore/QVector>

namespace micro850::host {

/// A value axis that begins and ends at round numbers: 1, 2 or 5 times a power of ten apart.
class ValueAxis
{
public:
    /// The axis for these values, with at most about so many steps.
    ValueAxis(PlotRange values, int mostSteps);

    double least() const { return m_least; }
    double most() const { return m_most; }
    /// From the least to the most.
    QVector<double> ticks() const;
    QString label(double tick) const;
    /// The width of the widest label.
    int labelWidth() const;

private:
    double m_step = 1;
    double m_least = 0;
    double m_most = 1;
};

/// A moment that a time axis names.
struct TimeTick
{
    Duration before; ///< how long before the end of the axis
    QString label;
};

/// The round clock times of an axis that ends at this time of the local day and is so long: at most
/// so many, "14:05:30" or, where the whole minute is enough, "14:05". The newest is the last.
QVector<TimeTick> timeTicks(Duration span, Duration timeOfDay, int most);

} // namespace micro850::host

#endif
