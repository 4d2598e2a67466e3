#ifndef MICRO850_HOST_COMMANDS_RASTER_H
#define MICRO850_HOST_COMMANDS_RASTER_H

#include "Clock.h"

#include <optional>

namespace micro850::host {

/// Times at one interval, from the first one on. After a pause they are the same as without it.
class Raster
{
public:
    explicit Raster(Duration interval) : m_interval(interval) {}

    /// True once for each time, and once for those that were missed together.
    bool isDue(Duration now)
    {
        if (m_next && now < *m_next)
            return false;
        const Duration due = m_next.value_or(now);
        m_next = due + ((now - due) / m_interval + 1) * m_interval;
        return true;
    }

private:
    Duration m_interval;
    std::optional<Duration> m_next;
};

} // namespace micro850::host

#endif
