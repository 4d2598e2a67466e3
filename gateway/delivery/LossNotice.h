#ifndef MICRO850_GATEWAY_DELIVERY_LOSSNOTICE_H
#define MICRO850_GATEWAY_DELIVERY_LOSSNOTICE_H

#include "Clock.h"

#include <QtCore/QtGlobal>

namespace micro850::gateway {

/// Decides when people are told that messages were lost: once when it begins, and once when none
/// was lost for a while.
class LossNotice
{
public:
    enum class News { None, Begun, Over };

    /// `lost` is how many were lost so far, before anything is told.
    explicit LossNotice(qint64 lost) : m_lost(lost) {}

    /// `lost` can fall: the broker has some of those that were counted.
    News take(qint64 lost, Duration now);

private:
    qint64 m_lost;
    bool m_isLosing = false;
    Duration m_lostAt{0};
};

} // namespace micro850::gateway

#endif
