#include "PlotHistory.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace micro850::host {

namespace {

// More than the dots of the widest window.
const int kSlots = 2048;
const std::chrono::milliseconds kLeastWidth(1);

void widen(std::optional<PlotRange>& range, double value)
{
    if (!std::isfinite(value))
        return;
    range = range ? PlotRange{std::min(range->least, value), std::max(range->most, value)}
                  : PlotRange{value, value};
}

} // namespace

PlotHistory::PlotHistory(Duration span)
    : m_span(span), m_width(std::max<Duration>(kLeastWidth, span / kSlots))
{
}

void PlotHistory::add(Duration now, double value)
{
    const double last =
        m_slots.empty() ? std::numeric_limits<double>::quiet_NaN() : m_slots.back().last;
    if (last == value || (std::isnan(last) && std::isnan(value)))
        return;
    if (m_slots.empty() || now - m_slots.back().begin >= m_width)
        m_slots.push_back({now, std::nullopt, value});
    widen(m_slots.back().range, value);
    m_slots.back().last = value;
    // The last one before the span still counts.
    while (m_slots.size() > 1 && m_slots.at(1).begin < now - m_span - m_width)
        m_slots.pop_front();
}

std::optional<PlotRange> PlotHistory::range(Duration from, Duration to) const
{
    const auto after =
        std::lower_bound(m_slots.begin(), m_slots.end(), from,
                         [](const Slot& slot, Duration time) { return slot.begin < time; });
    std::optional<PlotRange> range;
    if (after != m_slots.begin())
        widen(range, std::prev(after)->last);
    for (auto slot = after; slot != m_slots.end() && slot->begin < to; ++slot) {
        if (slot->range) {
            widen(range, slot->range->least);
            widen(range, slot->range->most);
        }
    }
    return range;
}

double PlotHistory::newest() const
{
    return m_slots.empty() ? std::numeric_limits<double>::quiet_NaN() : m_slots.back().last;
}

} // namespace micro850::host
