#include "LineStatistics.h"

#include <algorithm>

namespace micro850::host {

namespace {

const std::chrono::milliseconds kSlot(100);
const std::chrono::seconds kWindow(10);
const int kRoundTrips = 1000;

double secondsOf(Duration time)
{
    return std::chrono::duration<double>(time).count();
}

} // namespace

void LineStatistics::add(Duration now, int bytes, std::optional<Duration> roundTrip)
{
    if (!m_first)
        m_first = now;
    if (m_slots.isEmpty() || now - m_slots.last().begin >= kSlot)
        m_slots.append({now, 0, 0});
    ++m_slots.last().transactions;
    m_slots.last().bytes += bytes;
    while (now - m_slots.first().begin > kWindow)
        m_slots.removeFirst();
    if (!roundTrip)
        return;
    m_histogram.add(*roundTrip);
    if (m_roundTrips.size() < kRoundTrips)
        m_roundTrips.append(*roundTrip);
    else
        m_roundTrips[m_next] = *roundTrip;
    m_next = (m_next + 1) % kRoundTrips;
}

// The sums over the window, and when the window began.
LineStatistics::Slot LineStatistics::recent(Duration now) const
{
    Slot sum = {std::max(m_first.value_or(now), now - kWindow), 0, 0};
    for (const Slot& slot : m_slots) {
        if (now - slot.begin > kWindow)
            continue;
        sum.transactions += slot.transactions;
        sum.bytes += slot.bytes;
    }
    return sum;
}

bool LineStatistics::hasRates(Duration now) const
{
    return !m_first || now - *m_first >= std::chrono::seconds(1);
}

double LineStatistics::transactionsPerSecond(Duration now) const
{
    const Slot sum = recent(now);
    const double seconds = secondsOf(now - sum.begin);
    return seconds <= 0 ? 0 : sum.transactions / seconds;
}

double LineStatistics::percentInUse(Duration now, const PortSettings& port) const
{
    const Slot sum = recent(now);
    const double seconds = secondsOf(now - sum.begin);
    if (seconds <= 0)
        return 0;
    const double bits = static_cast<double>(sum.bytes) * port.bitsPerByte();
    return std::min(100.0, bits / port.baud / seconds * 100);
}

std::optional<Duration> LineStatistics::roundTrip(int percent) const
{
    if (m_roundTrips.isEmpty())
        return std::nullopt;
    QVector<Duration> sorted = m_roundTrips;
    std::sort(sorted.begin(), sorted.end());
    const int rank = (sorted.size() * percent + 99) / 100;
    return sorted.at(std::max(0, rank - 1));
}

} // namespace micro850::host
