#include "ReadSchedule.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace micro850::host {

namespace {

// Value bytes of one reply; see runsOf().
const int kBytesOfRequest = 250;
// Before the first answer.
const double kFirstCost = 20000;
const double kCostSmoothing = 0.2;
const double kShareSmoothing = 0.3;
const std::chrono::seconds kMeasureInterval(1);
// Neighbours join a request when they are due within this part of their interval.
const int kJoinPart = 8;
// Runs of other intervals that lie between two neighbours.
const int kOpenRuns = 8;
const std::chrono::seconds kLongestRetry(5);
// A transaction that took so much longer than usual has delayed others.
const std::chrono::milliseconds kDelay(100);
// Reads may take longer than expected, or be due again sooner.
const double kSafety = 1.25;
// What is read before it is due is at most this part of its interval early.
const double kMostEarly = 0.5;
// So many runs ahead are looked at to see whether they can be read in time.
const int kMostAhead = 4096;
// When an overload begins, changes and ends.
const double kOverload = 1.05;
const double kNoOverload = 0.97;
const double kMuchChange = 0.25;
const int kCertain = 3;

double count(Duration time)
{
    return static_cast<double>(time.count());
}

Duration scaled(Duration time, double factor)
{
    return Duration(static_cast<Duration::rep>(count(time) * factor));
}

bool isDelay(Duration cost, double usual)
{
    return cost > kDelay && count(cost) > 2 * usual;
}

bool isBefore(const TimedRun& a, const TimedRun& b)
{
    return a.tag == b.tag ? a.element < b.element : a.tag < b.tag;
}

// Both are runs of one tag.
bool spanned(TimedRun& first, const TimedRun& second)
{
    const int begin = std::min(first.element, second.element);
    const int end = std::max(first.end(), second.end());
    const bool touch = first.element <= second.end() && second.element <= first.end();
    if (!touch || !first.mergeable || !second.mergeable ||
        (end - begin) * first.elementSize > kBytesOfRequest)
        return false;
    first.element = begin;
    first.elements = end - begin;
    first.variable = -1;
    return true;
}

// Neighbours that have the same interval are always read together.
QVector<TimedRun> merged(QVector<TimedRun> runs)
{
    std::stable_sort(runs.begin(), runs.end(), isBefore);
    QVector<TimedRun> all;
    for (const TimedRun& run : runs) {
        bool joined = false;
        for (int i = all.size() - 1;
             !joined && i >= 0 && all.at(i).tag == run.tag && all.size() - i <= kOpenRuns; --i)
            joined = all.at(i).interval == run.interval && spanned(all[i], run);
        if (!joined)
            all.append(run);
    }
    return all;
}

} // namespace

// The unit that read at least the elements of this run at its interval, or null.
const ReadSchedule::Unit* ReadSchedule::covering(const QVector<Unit>& units,
                                                 const std::map<int, int>& placeOf,
                                                 const TimedRun& run)
{
    auto place = placeOf.upper_bound(run.element);
    if (place == placeOf.begin())
        return nullptr;
    const Unit& unit = units.at(std::prev(place)->second);
    const bool covers = unit.run.end() >= run.end() && unit.run.interval == run.interval;
    return covers ? &unit : nullptr;
}

void ReadSchedule::plan(QVector<TimedRun> runs, Duration now)
{
    const QVector<Unit> before = std::exchange(m_units, {});
    QHash<TagKey, std::map<int, int>> placeOf; // in `before`, by first element
    for (int i = 0; i < before.size(); ++i)
        placeOf[before.at(i).run.tag].emplace(before.at(i).run.element, i);
    m_unitsOf.clear();
    m_neighbours.clear();
    m_planned.clear();
    m_waiting.clear();
    m_underWay.clear();
    for (const TimedRun& run : merged(std::move(runs))) {
        Unit unit;
        unit.run = run;
        unit.due = now + run.interval;
        if (const Unit* const known = covering(before, placeOf.value(run.tag), run)) {
            unit = *known;
            unit.run = run;
        }
        const int index = m_units.size();
        m_units.append(unit);
        m_unitsOf[run.tag.station].append(index);
        if (run.mergeable)
            m_neighbours[run.tag].emplace(run.element, index);
        if (!m_parked.contains(run.tag.station))
            enter(index);
    }
    measure(now);
}

void ReadSchedule::enter(int unit)
{
    const Unit& entered = m_units.at(unit);
    queueOf(entered).emplace(entered.due, unit);
    m_wakeAt = Duration(0);
}

void ReadSchedule::leave(int unit)
{
    const Unit& left = m_units.at(unit);
    queueOf(left).erase({left.due, unit});
}

void ReadSchedule::makeWait(int unit, Duration due)
{
    leave(unit);
    m_units[unit].waits = true;
    m_units[unit].due = due;
    enter(unit);
}

// Another transaction may be under way when it is due.
Duration ReadSchedule::pauseOf(const Unit& unit) const
{
    const Duration interval = scaled(unit.run.interval, m_stretch);
    const bool isAlone = m_units.size() == 1 && m_share == 1;
    return isAlone ? interval : interval - std::min<Duration>(m_longestCost, interval / 2);
}

void ReadSchedule::begin(int unit, Duration now)
{
    leave(unit);
    Unit& begun = m_units[unit];
    begun.waits = false;
    begun.begun = now;
    begun.due = now + pauseOf(begun);
    enter(unit);
}

Duration ReadSchedule::costOf(const Unit& unit) const
{
    if (unit.cost > Duration(0))
        return unit.cost;
    return Duration(static_cast<Duration::rep>(m_usualCost > 0 ? m_usualCost : kFirstCost));
}

// How long the line can do nothing until the planned reads can no longer all begin in time, one
// after the other. Reads that are due before another one may be due again until then. When it is
// time, the read that is the least early for its interval goes first.
ReadSchedule::Slack ReadSchedule::slackOf(Duration now) const
{
    Slack least = {Duration::max(), -1};
    int pick = -1;
    double earliness = kMostEarly;
    double before = 0; // what is read first takes
    double rate = 0;   // and how much of the line, with its repetitions
    double begun = 0;
    const double load = std::min(2 * m_rate, 1.0);
    int left = kMostAhead;
    for (const auto& [due, index] : m_planned) {
        const double time = count(due - now);
        if (--left < 0 || time * (1 - load) - kSafety * count(m_allCosts) > count(least.time))
            break;
        const Unit& unit = m_units.at(index);
        const double pause = count(pauseOf(unit));
        if (time <= earliness * pause) {
            earliness = time / pause;
            pick = index;
        }
        const double slack = time - before - (rate * time - begun);
        least.time = std::min(least.time, Duration(static_cast<Duration::rep>(slack)));
        if (least.time <= Duration(0)) {
            least.pick = pick;
            break;
        }
        const double cost = kSafety * count(costOf(unit));
        before += cost;
        rate += cost / pause;
        begun += cost / pause * time;
    }
    return least;
}

// The planned read that has to begin now, or -1.
int ReadSchedule::pickPlanned(Duration now)
{
    if (m_planned.empty())
        m_wakeAt = Duration::max();
    if (now < m_wakeAt)
        return -1;
    const auto [due, first] = *m_planned.begin();
    if (due <= now)
        return first;
    const Slack slack = slackOf(now);
    if (slack.pick >= 0)
        return slack.pick;
    // Nothing may be read yet that is early enough: look again soon.
    const Duration pause =
        slack.time > Duration(0) ? slack.time : std::max(Duration(1), m_longestCost / 2);
    m_wakeAt = now + std::min<Duration>(pause, due - now);
    return -1;
}

std::optional<TimedRun> ReadSchedule::next(Duration now)
{
    if (now - m_measuredAt >= kMeasureInterval)
        measure(now);
    int unit = pickPlanned(now);
    if (!m_waiting.empty() && (unit < 0 || m_waiting.begin()->first < m_units.at(unit).due))
        unit = m_waiting.begin()->second;
    if (unit < 0)
        return std::nullopt;
    TimedRun request = m_units.at(unit).run;
    m_underWay = {unit};
    begin(unit, now);
    if (request.mergeable)
        joinNeighbours(request, now);
    return request;
}

bool ReadSchedule::join(TimedRun& request, int unit, Duration now) const
{
    const Unit& joining = m_units.at(unit);
    const bool isDue = joining.waits || joining.due <= now + joining.run.interval / kJoinPart;
    return isDue && spanned(request, joining.run);
}

void ReadSchedule::joinNeighbours(TimedRun& request, Duration now)
{
    const std::map<int, int>& all = m_neighbours[request.tag];
    const auto take = [&](int unit) {
        if (!join(request, unit, now))
            return false;
        begin(unit, now);
        m_underWay.append(unit);
        return true;
    };
    auto left = all.lower_bound(request.element);
    auto right = all.upper_bound(request.element);
    while (right != all.end() && take(right->second))
        ++right;
    while (left != all.begin() && take(std::prev(left)->second))
        --left;
}

void ReadSchedule::noteAnswer(Duration now, Duration cost)
{
    const double usual = m_usualCost;
    m_usualCost += (count(cost) - usual) * (usual > 0 ? kCostSmoothing : 1);
    for (const int unit : m_underWay) {
        Unit& answered = m_units[unit];
        const Duration part = cost / m_underWay.size();
        const double smoothing = answered.cost > Duration(0) ? kCostSmoothing : 1;
        answered.cost += scaled(part - answered.cost, smoothing);
    }
    m_underWay.clear();
    if (isDelay(cost, usual))
        forgiveDelay(now);
}

void ReadSchedule::noteFailure(Duration now)
{
    for (const int unit : m_underWay) {
        if (m_parked.contains(m_units.at(unit).run.tag.station))
            continue;
        leave(unit);
        Unit& failed = m_units[unit];
        failed.due =
            std::min(failed.due, now + std::min<Duration>(failed.run.interval, kLongestRetry));
        enter(unit);
    }
    m_underWay.clear();
}

void ReadSchedule::noteOther(Duration now, Duration cost)
{
    m_other += cost;
    if (isDelay(cost, m_usualCost))
        forgiveDelay(now);
}

// What the line has delayed is read in the order of the intervals: otherwise the fast ones would
// wait for all that is late.
void ReadSchedule::forgiveDelay(Duration now)
{
    while (!m_planned.empty() && m_planned.begin()->first < now) {
        const int unit = m_planned.begin()->second;
        makeWait(unit, now + m_units.at(unit).run.interval);
    }
}

void ReadSchedule::park(int station)
{
    m_parked.insert(station);
    for (const int unit : m_unitsOf.value(station))
        leave(unit);
}

void ReadSchedule::restart(int station, Duration now)
{
    m_parked.remove(station);
    for (const int unit : m_unitsOf.value(station)) {
        if (!m_underWay.contains(unit))
            makeWait(unit, now + m_units.at(unit).run.interval);
        else
            enter(unit);
    }
}

void ReadSchedule::pull(int station, Duration now)
{
    const QVector<int> units = m_unitsOf.value(station);
    const auto first = std::min_element(units.begin(), units.end(), [this](int a, int b) {
        return m_units.at(a).due < m_units.at(b).due;
    });
    if (first != units.end() && !m_parked.contains(station))
        makeWait(*first, now);
}

// ---- Load ---------------------------------------------------------------------------------------

void ReadSchedule::measure(Duration now)
{
    const bool isRegular = now - m_measuredAt >= kMeasureInterval;
    if (isRegular) {
        const double share = std::min(1.0, count(m_other) / count(now - m_measuredAt));
        m_otherShare += (share - m_otherShare) * kShareSmoothing;
        m_measuredAt = now;
        m_other = Duration(0);
    }
    m_longestCost = m_allCosts = Duration(0);
    m_rate = 0;
    bool known = true;
    for (const Unit& unit : m_units) {
        if (m_parked.contains(unit.run.tag.station))
            continue;
        const Duration cost = costOf(unit);
        m_rate += count(cost) / count(unit.run.interval);
        m_allCosts += cost;
        m_longestCost = std::max(m_longestCost, cost);
        known = known && unit.cost > Duration(0);
    }
    const double leastFree = 0.05;
    m_load.share = m_rate / (m_share * std::max(leastFree, 1 - m_otherShare));
    // Of a line without an answer nobody knows what it can carry.
    m_stretch = m_usualCost > 0 ? std::max(1.0, m_load.share) : 1;
    m_rate /= m_stretch;
    if (isRegular && known)
        judge();
}

// Tells an overload when it is certain that it has begun, ended or changed much.
void ReadSchedule::judge()
{
    const double share = m_load.share;
    const bool changes = m_load.isOverload
                             ? share < kNoOverload || std::abs(share - m_load.toldShare) >
                                                          kMuchChange * m_load.toldShare
                             : share > kOverload;
    m_doubts = changes ? m_doubts + 1 : 0;
    if (m_doubts < kCertain)
        return;
    m_doubts = 0;
    m_load.isOverload = share >= kNoOverload;
    if (m_load.isOverload)
        tell();
}

void ReadSchedule::tell()
{
    m_load.toldShare = m_load.share;
    m_load.variable = -1;
    for (const Unit& unit : m_units) {
        const bool shorter = m_load.variable < 0 || unit.run.interval < m_load.asked;
        if (!shorter || m_parked.contains(unit.run.tag.station))
            continue;
        m_load.variable = unit.run.first;
        m_load.asked = unit.run.interval;
    }
    m_load.actual = scaled(m_load.asked, m_load.share);
}

} // namespace micro850::host
