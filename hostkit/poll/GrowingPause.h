#ifndef MICRO850_HOST_GROWINGPAUSE_H
#define MICRO850_HOST_GROWINGPAUSE_H

#include "Clock.h"

#include <algorithm>

namespace micro850::host {

/// The pause between two attempts: it doubles with each attempt that fails, up to a limit.
class GrowingPause
{
public:
    GrowingPause(Duration first, Duration longest) : m_first(first), m_longest(longest) {}

    /// The pause after one more failed attempt.
    Duration next()
    {
        m_pause = std::min(m_longest, std::max(m_first, 2 * m_pause));
        return m_pause;
    }
    /// Begins with the first pause again.
    void reset() { m_pause = Duration(0); }

private:
    Duration m_first;
    Duration m_longest;
    Duration m_pause{0};
};

} // namespace micro850::host

#endif
