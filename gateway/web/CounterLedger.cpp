#include "CounterLedger.h"

#include <iterator>

namespace micro850::gateway {

namespace {

void add(MetricNumbers& sums, const MetricNumbers& numbers)
{
    for (auto number = numbers.constBegin(); number != numbers.constEnd(); ++number)
        sums[number.key()] += number.value();
}

bool wentBack(const MetricNumbers& before, const MetricNumbers& now)
{
    for (auto number = before.constBegin(); number != before.constEnd(); ++number) {
        if (now.value(number.key(), 0) < number.value())
            return true;
    }
    return false;
}

} // namespace

void CounterLedger::take(const QByteArray& group, const MetricNumbers& counts)
{
    Group& known = m_groups[group];
    if (wentBack(known.now, counts))
        add(known.before, known.now);
    known.now = counts;
}

MetricNumbers CounterLedger::totals(const QByteArray& group) const
{
    const Group known = m_groups.value(group);
    MetricNumbers sums = known.before;
    add(sums, known.now);
    return sums;
}

void CounterLedger::keepOnly(const QSet<QByteArray>& groups)
{
    for (auto group = m_groups.begin(); group != m_groups.end();)
        group = groups.contains(group.key()) ? std::next(group) : m_groups.erase(group);
}

} // namespace micro850::gateway
