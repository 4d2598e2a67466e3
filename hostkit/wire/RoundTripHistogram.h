#ifndef MICRO850_HOST_ROUNDTRIPHISTOGRAM_H
#define MICRO850_HOST_ROUNDTRIPHISTOGRAM_H

#include "Clock.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace micro850::host {

/// How many round trips took how long, since the beginning: from a controller behind a network to
/// one on a slow line that answers at the last moment.
struct RoundTripHistogram
{
    static constexpr std::array<int, 15> kLimitsMs = {2,   5,   10,  20,  30,   50,   75,  100,
                                                      150, 200, 300, 500, 1000, 2000, 5000};

    /// Of round trips up to each limit and above the one before; the last: above all limits.
    std::array<qint64, kLimitsMs.size() + 1> counts = {};
    Duration sum{0}; ///< of all round trips

    void add(Duration roundTrip)
    {
        const auto limit = std::find_if(kLimitsMs.begin(), kLimitsMs.end(), [&](int milliseconds) {
            return roundTrip <= std::chrono::milliseconds(milliseconds);
        });
        ++counts[static_cast<std::size_t>(limit - kLimitsMs.begin())];
        sum += roundTrip;
    }
};

} // namespace micro850::host

#endif
