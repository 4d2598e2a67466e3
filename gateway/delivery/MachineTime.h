#ifndef MICRO850_GATEWAY_DELIVERY_MACHINETIME_H
#define MICRO850_GATEWAY_DELIVERY_MACHINETIME_H

#include "Clock.h"

namespace micro850::gateway {

/// Milliseconds of the clock that all processes of a machine have in common. It never goes back.
inline std::int64_t machineMilliseconds()
{
    return wholeMilliseconds(
        std::chrono::duration_cast<Duration>(std::chrono::steady_clock::now().time_since_epoch()));
}

} // namespace micro850::gateway

#endif
