#ifndef MICRO850_HOST_READSCHEDULE_H
#define MICRO850_HOST_READSCHEDULE_H

#include "Clock.h"
#include "TagKey.h"

#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QSet>
#include <QtCore/QVector>

#include <map>
#include <optional>
#include <set>
#include <utility>

namespace micro850::host {

/// A run of a tag's elements that one request reads.
struct TimedRun
{
    TagKey tag;
    int element = 0; ///< the first one
    int elements = 1;
    int elementSize = 1; ///< bytes
    /// False: no request may span it and a neighbour.
    bool mergeable = false;
    Duration interval{0};
    /// The variable that shows the run; below 0: several.
    int variable = -1;
    /// The first variable that shows it.
    int first = -1;

    int end() const { return element + elements; }
};

/// How much of the line the intervals ask for.
struct LineLoad
{
    double share = 0; ///< 1: all of its time
    /// True from the time on at which it is certain that not every interval can be kept.
    bool isOverload = false;
    // Of the overload as it is to be told: they change only when it changes much.
    double toldShare = 0;
    int variable = -1; ///< one with the shortest interval
    Duration asked{0}; ///< its interval
    Duration actual{0};
};

/// Decides what to read next, so that the pause between two reads of a run is never longer than its
/// interval, as long as the line can carry that.
///
/// What is due first is read first. A run is due one interval after its last read has begun, less
/// the time of the transaction that may be under way then. Several may become due at the same time;
/// then the first ones are read as much earlier as they take, but never before half of their
/// interval. What waits for its first value, or was delayed by a fault of the line, is read when
/// the line is free, and competes with an interval of time from then on: thus a backlog of slow
/// runs never delays a fast one. When the line cannot carry what is asked for, all intervals grow
/// by the same factor.
class ReadSchedule
{
public:
    /// Replaces the runs, from the variables at most one for each element. Those that were there
    /// before keep the times at which they are due; new ones are due at once.
    void plan(QVector<TimedRun> runs, Duration now);
    bool isEmpty() const { return m_units.isEmpty(); }
    /// The share of the line that the runs can have; the rest is for reads without an interval.
    void setShare(double share) { m_share = share; }

    /// What to read now: a run, together with neighbours that are due about now. None: see
    /// wakeAt().
    std::optional<TimedRun> next(Duration now);
    /// When to ask for the next one, unless something changes until then.
    Duration wakeAt() const { return m_wakeAt; }
    /// The read that next() gave was answered after so much time of the line.
    void noteAnswer(Duration now, Duration cost);
    /// It failed: it is tried again after its interval, or after some seconds.
    void noteFailure(Duration now);
    /// The line was used for something else.
    void noteOther(Duration now, Duration cost);

    /// Takes the runs of a station out until restart().
    void park(int station);
    /// Every value of the station is to be read as soon as the line is free.
    void restart(int station, Duration now);
    /// Reads one run of the station, if there is one, before it is due.
    void pull(int station, Duration now);

    const LineLoad& load() const { return m_load; }

private:
    struct Unit
    {
        TimedRun run;
        Duration due{0};   ///< when its next read is to begin
        Duration begun{0}; ///< its last read
        Duration cost{0};  ///< of a read; 0: not known yet
        /// It is read as soon as the line is free.
        bool waits = true;
    };
    struct Slack
    {
        Duration time; ///< that the line can do nothing
        int pick;      ///< the unit to read now; below 0: none yet
    };
    /// Units in the order in which they are due.
    using Queue = std::set<std::pair<Duration, int>>;

    static const Unit* covering(const QVector<Unit>& units, const std::map<int, int>& placeOf,
                                const TimedRun& run);
    Queue& queueOf(const Unit& unit) { return unit.waits ? m_waiting : m_planned; }
    /// The time from the begin of a read until the next one is due.
    Duration pauseOf(const Unit& unit) const;
    void enter(int unit);
    void leave(int unit);
    void makeWait(int unit, Duration due);
    void begin(int unit, Duration now);
    int pickPlanned(Duration now);
    Slack slackOf(Duration now) const;
    bool join(TimedRun& request, int unit, Duration now) const;
    void joinNeighbours(TimedRun& request, Duration now);
    void forgiveDelay(Duration now);
    Duration costOf(const Unit& unit) const;
    void measure(Duration now);
    void judge();
    void tell();

    QVector<Unit> m_units;
    QHash<int, QVector<int>> m_unitsOf;             ///< by station
    QHash<TagKey, std::map<int, int>> m_neighbours; ///< by tag and first element: mergeable ones
    Queue m_planned;
    Queue m_waiting;
    QSet<int> m_parked;
    QVector<int> m_underWay; ///< the units of the read that next() gave
    Duration m_wakeAt{0};

    double m_share = 1;
    double m_usualCost = 0; ///< microseconds, of all reads
    double m_otherShare = 0;
    Duration m_other{0}; ///< since the last measurement
    Duration m_measuredAt{0};
    double m_rate = 0;      ///< sum of cost / interval
    Duration m_allCosts{0}; ///< sum
    Duration m_longestCost{0};
    double m_stretch = 1; ///< of all intervals
    int m_doubts = 0;     ///< measurements in a row that say that m_load should change
    LineLoad m_load;
};

} // namespace micro850::host

#endif
