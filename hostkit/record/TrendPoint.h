#ifndef MICRO850_HOST_TRENDPOINT_H
#define MICRO850_HOST_TRENDPOINT_H

#include <QtCore/QtGlobal>

namespace micro850::host {

/// A part of the span of a trend, or one record: the least, the greatest and the last good value.
/// All three are NaN where there was none.
struct TrendPoint
{
    qint64 time; ///< at which the part begins: milliseconds since 1970 UTC
    double least;
    double greatest;
    double last;
};

} // namespace micro850::host

#endif
