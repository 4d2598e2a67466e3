#include "PlotAxis.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace micro850::host {

namespace {

const int kMostTicks = 100;
const std::array<int, 19> kTimeSteps = {1,   2,   5,    10,   15,   20,   30,    60,    120,  300,
                                        600, 900, 1200, 1800, 3600, 7200, 10800, 21600, 43200};
const std::chrono::seconds kDay(86400);

double roundStep(double least)
{
    const double power = std::pow(10, std::floor(std::log10(least)));
    for (const int factor : {1, 2, 5}) {
        if (factor * power >= least * (1 - 1e-9))
            return factor * power;
    }
    return 10 * power;
}

QString clockText(std::chrono::seconds timeOfDay, bool withSeconds)
{
    const auto seconds = static_cast<int>((timeOfDay + kDay).count() % kDay.count());
    const QString text = QStringLiteral("%1:%2")
                             .arg(seconds / 3600, 2, 10, QLatin1Char('0'))
                             .arg(seconds / 60 % 60, 2, 10, QLatin1Char('0'));
    return withSeconds ? text + QStringLiteral(":%1").arg(seconds % 60, 2, 10, QLatin1Char('0'))
                       : text;
}

} // namespace

// A constant value is in the middle.
ValueAxis::ValueAxis(PlotRange values, int mostSteps)
{
    // Half the range each, which may be larger than a number can be.
    const double half = values.most / 2 - values.least / 2;
    const double size = std::max(std::abs(values.least), std::abs(values.most));
    const bool isConstant = half <= size * 1e-12;
    const double wanted = isConstant ? std::max(size / 10, 1e-300) : half / mostSteps * 2;
    m_step = size == 0 ? 1 : roundStep(std::min(wanted, 1e307));
    m_least = std::floor(values.least / m_step + 1e-9) * m_step;
    m_most = std::ceil(values.most / m_step - 1e-9) * m_step;
    if (isConstant || m_most <= m_least) {
        m_least -= m_step;
        m_most += m_step;
    }
}

QVector<double> ValueAxis::ticks() const
{
    QVector<double> ticks;
    const double count =
        std::min<double>(kMostTicks, std::round(m_most / m_step - m_least / m_step));
    for (int i = 0; i <= static_cast<int>(count); ++i)
        ticks.append(m_least + i * m_step);
    return ticks;
}

QString ValueAxis::label(double tick) const
{
    const double size = std::max(std::abs(m_least), std::abs(m_most));
    const double value = std::abs(tick) < m_step / 1000 ? 0 : tick;
    if (size >= 1e7 || m_step < 1e-6)
        return QString::number(value, 'g', 6);
    const int decimals = std::max(0, -static_cast<int>(std::floor(std::log10(m_step) + 1e-9)));
    return QString::number(value, 'f', decimals);
}

int ValueAxis::labelWidth() const
{
    int width = 0;
    for (const double tick : ticks())
        width = std::max(width, label(tick).size());
    return width;
}

QVector<TimeTick> timeTicks(Duration span, Duration timeOfDay, int most)
{
    const double least = std::chrono::duration<double>(span).count() / std::max(1, most);
    const auto found = std::find_if(kTimeSteps.begin(), kTimeSteps.end(),
                                    [least](int step) { return step >= least; });
    const std::chrono::seconds step(found == kTimeSteps.end() ? kTimeSteps.back() : *found);
    QVector<TimeTick> ticks;
    for (Duration before = timeOfDay % step; before <= span; before += step) {
        const auto at = std::chrono::duration_cast<std::chrono::seconds>(timeOfDay - before + kDay);
        ticks.prepend({before, clockText(at, step.count() % 60 != 0)});
    }
    return ticks;
}

} // namespace micro850::host
