#ifndef MICRO850_HOST_ROUNDTRIPS_H
#define MICRO850_HOST_ROUNDTRIPS_H

#include "Clock.h"

#include <algorithm>

namespace micro850::host {

/// Learns from the exchanges of a line how long its peers usually take to answer, besides the time
/// of the bytes on the line. With that a long reply after short ones is not missed too early.
class RoundTrips
{
public:
    /// True after the first note.
    bool isKnown() const { return m_isKnown; }
    /// A reply was complete so long after its request began to go out. `bytes` is the computed time
    /// of both on the line.
    void note(Duration roundTrip, Duration bytes)
    {
        const Duration beyond =
            std::clamp<Duration>(roundTrip - bytes, Duration(0), std::chrono::seconds(10));
        if (!m_isKnown) {
            m_isKnown = true;
            m_usual = beyond;
            m_spread = beyond / 2;
            return;
        }
        const Duration away = beyond > m_usual ? beyond - m_usual : m_usual - beyond;
        m_spread += (away - m_spread) / 4;
        m_usual += (beyond - m_usual) / 8;
    }
    /// When a reply counts as lost: so long after its request began to go out, if both take the
    /// time `bytes` on the line and at least the time `delay` besides. At most four times what is
    /// usual, at least 20 ms.
    Duration patience(Duration bytes, Duration delay) const
    {
        const Duration usual = bytes + std::max(m_usual, delay);
        const Duration late = std::min(usual + usual / 2 + 4 * m_spread, 4 * usual);
        return std::max<Duration>(late, std::chrono::milliseconds(20));
    }
    /// Hardly any reply takes longer, besides the time of the bytes.
    Duration longest() const { return 2 * m_usual + 4 * m_spread; }

private:
    bool m_isKnown = false;
    Duration m_usual{0};
    Duration m_spread{0}; ///< mean distance from the usual time
};

} // namespace micro850::host

#endif
