#ifndef MICRO850_HOST_POLLTIMEOUT_H
#define MICRO850_HOST_POLLTIMEOUT_H

#include "Clock.h"

namespace micro850::host {

/// What poll() takes: milliseconds, rounded up, so that a wait never becomes a busy loop.
inline int pollTimeout(Duration time)
{
    return static_cast<int>(wholeMilliseconds(time + std::chrono::microseconds(999)));
}

} // namespace micro850::host

#endif
