#ifndef MICRO850_HOST_PLOTHISTORY_H
#define MICRO850_HOST_PLOTHISTORY_H

#include "Clock.h"

#include <deque>
#include <optional>

namespace micro850::host {

/// The least and the most of some values.
struct PlotRange
{
    double least;
    double most;
};

/// One value over time, for a chart of a span. A value holds until the next one comes. Memory is
/// bounded: values that lie closer together than the finest chart can show keep their extremes.
class PlotHistory
{
public:
    explicit PlotHistory(Duration span);

    /// The value from now on; NaN where there is none. Times do not go back.
    void add(Duration now, double value);
    /// Between two times, with the value that the first of them found; none where there was no
    /// value.
    std::optional<PlotRange> range(Duration from, Duration to) const;
    /// The value of now; NaN where there is none.
    double newest() const;

private:
    struct Slot
    {
        Duration begin;
        std::optional<PlotRange> range; ///< of the values in it
        double last;                    ///< NaN: none
    };
    std::deque<Slot> m_slots;
    Duration m_span;
    Duration m_width;
};

} // namespace micro850::host

#endif
