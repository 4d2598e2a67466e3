#include "Plot.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace micro850::host {

namespace {

const int kStepsOfCell = 8;
const std::chrono::milliseconds kLeastColumn(1);

// A cell that is filled from below by this many eighths.
QChar block(int steps)
{
    if (steps <= 0)
        return QLatin1Char(' ');
    return QChar(0x2580 + std::min(steps, kStepsOfCell));
}

} // namespace

void Plot::add(Duration now, double value)
{
    const bool same =
        !m_changes.isEmpty() && (m_changes.last().second == value ||
                                 (std::isnan(m_changes.last().second) && std::isnan(value)));
    if (same)
        return;
    m_changes.append({now, value});
    // The last one before the span still counts.
    while (m_changes.size() > 1 && m_changes.at(1).first < now - 2 * m_span)
        m_changes.removeFirst();
}

double Plot::valueAt(Duration time) const
{
    const auto after = std::upper_bound(
        m_changes.begin(), m_changes.end(), time,
        [](Duration at, const QPair<Duration, double>& c) { return at < c.first; });
    return after == m_changes.begin() ? std::numeric_limits<double>::quiet_NaN()
                                      : (after - 1)->second;
}

Plot::Limits Plot::limits(Duration now) const
{
    Limits limits = {std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest(),
                     false};
    const auto take = [&limits](double value) {
        if (!std::isfinite(value))
            return;
        limits.any = true;
        limits.least = std::min(limits.least, value);
        limits.most = std::max(limits.most, value);
    };
    take(valueAt(now - m_span));
    for (const QPair<Duration, double>& change : m_changes) {
        if (change.first > now - m_span && change.first <= now)
            take(change.second);
    }
    return limits;
}

QString Plot::range(Duration now) const
{
    const Limits found = limits(now);
    if (!found.any)
        return QString();
    return QStringLiteral("%1 to %2").arg(found.least, 0, 'g', 6).arg(found.most, 0, 'g', 6);
}

QStringList Plot::lines(int width, int rows, Duration now) const
{
    const Limits found = limits(now);
    const Duration wide = m_span / std::max(1, width);
    const Duration columnWidth = std::max<Duration>(kLeastColumn, wide);
    const Duration last = now - now % columnWidth;
    QStringList lines;
    for (int row = rows - 1; row >= 0; --row) {
        QString line;
        for (int column = 0; column < width; ++column) {
            const double value = column + 1 == width
                                     ? valueAt(now)
                                     : valueAt(last - (width - 1 - column) * columnWidth);
            const double height = found.most > found.least
                                      ? (value - found.least) / (found.most - found.least)
                                      : 0.5; // a constant value is drawn in the middle
            const bool drawn = std::isfinite(value);
            const int steps =
                drawn ? 1 + static_cast<int>(std::lround(height * (rows * kStepsOfCell - 1))) : 0;
            line += block(steps - row * kStepsOfCell);
        }
        lines += line;
    }
    return lines;
}

} // namespace micro850::host
