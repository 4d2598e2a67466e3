#ifndef MICRO850_HOST_ATTACHEDPLANT_H
#define MICRO850_HOST_ATTACHEDPLANT_H

#include "PollLoop.h"

namespace micro850::host {

/// Variables that are polled on a loop of others. They come and go while the loop, and with it the
/// connections to the stations, stays; so that several can be attached to one line, besides single
/// reads and writes.
class AttachedPlant : public Plant
{
public:
    /// The arguments must live longer than this object. Stations of the project that the loop does
    /// not know are added to it.
    AttachedPlant(PollLoop& loop, const Project& project, const Clock& clock);
    /// The loop goes on.
    ~AttachedPlant() override;
    AttachedPlant(const AttachedPlant&) = delete;
    AttachedPlant& operator=(const AttachedPlant&) = delete;

    /// Asks for what is due. Call it before a step of the loop.
    void ask();
    /// Stores what came. Call it after a step of the loop.
    void collect();
    /// When ask() has something to ask for; a loop need not be stepped before.
    Duration wakeAt() const;

    void step() override;
    void finish() override;
    /// The loop decides what ends a wait.
    void setInterrupt(const std::function<bool()>&) override {}
    const ValueStore& values() const override { return m_values; }
    ValueStore& values() override { return m_values; }
    Quality quality(int variable) const override;
    LineView line() const override { return m_loop.line(); }
    LineFigures figures() const override;
    QVector<StationView> stationViews() const override { return m_loop.stationViews(); }

private:
    /// A tag that some of the variables show.
    struct ShownTag
    {
        QVector<int> variables;
        const CipType* type = nullptr; ///< null until it is learnt
        Duration askAt{0};             ///< when to ask for it
        bool mergeable = true;
    };
    bool askForType(Duration now);
    std::optional<TimedRun> nextRun(Duration now);
    void watchStations(Duration now);
    void readmit(Duration now);
    void plan(Duration now);
    void handleType(const Operation& done, Duration now);
    void handleRead(const Operation& done, Duration now);
    void refuse(int variable, const QString& why, Duration now);
    bool isDisabled(int station) const;

    PollLoop& m_loop;
    const Project& m_project;
    const Clock& m_clock;
    ValueStore m_values;
    QMap<TagKey, ShownTag> m_tags;
    QMap<int, Duration> m_leftOut; ///< variables that are not read, and until when
    QMap<int, std::optional<Duration>> m_aliveSince; ///< by station, as last seen
    ReadSchedule m_schedule;
    QVector<TimedRun> m_fast; ///< read in turn, as often as the line allows
    int m_nextFast = 0;
    int m_timedInRow = 0;          ///< reads of the schedule since the last fast one
    bool m_isFast = false;         ///< the read under way is one of m_fast
    int m_operation = 0;           ///< under way; 0: none
    std::optional<TimedRun> m_run; ///< that it reads; none: it learns a type
    Duration m_askedAt{0};
    bool m_mustPlan = true;
    OverloadNote m_overload;
};

} // namespace micro850::host

#endif
