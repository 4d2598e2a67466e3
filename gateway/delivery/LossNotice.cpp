#include "LossNotice.h"

#include <utility>

namespace micro850::gateway {

namespace {

const std::chrono::seconds kQuietAfter(60);

} // namespace

LossNotice::News LossNotice::take(qint64 lost, Duration now)
{
    if (lost > std::exchange(m_lost, lost)) {
        m_lostAt = now;
        return std::exchange(m_isLosing, true) ? News::None : News::Begun;
    }
    if (!m_isLosing || now - m_lostAt < kQuietAfter)
        return News::None;
    m_isLosing = false;
    return News::Over;
}

} // namespace micro850::gateway
