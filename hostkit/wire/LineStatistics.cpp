#include "LineStatistics.h"

#include <algorithm>

namespace micro850::host {

namespace {

const qint64 kSlotMs = 100;
const qint64 kWindowMs = 10000;
const int kRoundTrips = 1000;

} // namespace

void LineStatistics::add(qint64 now, int bytes, qint64 roundTripMs)
{
    if (m_first < 0)
        m_first = now;
    if (m_slots.isEmpty() || now - m_slots.last().begin >= kSlotMs)
        m_slots.append({now, 0, 0});
    ++m_slots.last().transactions;
    m_slots.last().bytes += bytes;
    while (now - m_slots.first().begin > kWindowMs)
        m_slots.removeFirst();
    if (roundTripMs < 0)
        return;
    if (m_roundTrips.size() < kRoundTrips)
        m_roundTrips.append(roundTripMs);
    else
        m_roundTrips[m_next] = roundTripMs;
    m_next = (m_next + 1) % kRoundTrips;
}

// The sums over the window, and when it began.
LineStatistics::Slot LineStatistics::recent(qint64 now) const
{
    Slot sum = {std::max(m_first, now - kWindowMs), 0, 0};
    for (const Slot& slot : m_slots) {
        if (now - slot.begin > kWindowMs)
            continue;
        sum.transactions += slot.transactions;
        sum.bytes += slot.bytes;
    }
    return sum;
}

double LineStatistics::transactionsPerSecond(qint64 now) const
{
    const Slot sum = recent(now);
    const qint64 time = now - sum.begin;
    return m_first < 0 || time <= 0 ? 0 : sum.transactions * 1000.0 / static_cast<double>(time);
}

double LineStatistics::percentInUse(qint64 now, const PortSettings& port) const
{
    const Slot sum = recent(now);
    const qint64 time = now - sum.begin;
    if (m_first < 0 || time <= 0)
        return 0;
    const double bits = static_cast<double>(sum.bytes) * port.bitsPerByte();
    return std::min(100.0, bits * 1000.0 / port.baud / static_cast<double>(time) * 100);
}

qint64 LineStatistics::roundTripMs(int percent) const
{
    if (m_roundTrips.isEmpty())
        return -1;
    QVector<qint64> sorted = m_roundTrips;
    std::sort(sorted.begin(), sorted.end());
    const int rank = (sorted.size() * percent + 99) / 100;
    return sorted.at(std::max(0, rank - 1));
}

} // namespace micro850::host
