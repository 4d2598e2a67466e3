#ifndef MICRO850_GATEWAY_LINES_LINEIMAGE_H
#define MICRO850_GATEWAY_LINES_LINEIMAGE_H

#include "Clock.h"
#include "LineService.h"
#include "WallClock.h"

#include <QtCore/QHash>

#include <optional>
#include <vector>

namespace micro850::gateway {

/// The latest values of a line, as its workers told them. Values outlive a worker: they get stale.
class LineImage
{
public:
    /// The arguments must live longer than this object.
    LineImage(const LineSettings& settings, const Clock& clock, const WallClock& wallClock);

    int size() const { return static_cast<int>(m_states.size()); }
    const GatewayValue& value(int variable) const { return at(variable).value; }
    /// Milliseconds since the value was read last; below 0 before the first one.
    qint64 ageMs(int variable) const;
    /// The age of the oldest value that is read again and again; none while there is none.
    std::optional<qint64> oldestMs() const;

    /// The variable of that name, below 0 for none.
    int indexOf(const QString& name) const { return m_variables.value(name, -1); }

    /// Takes a value that a worker tells. Returns its variable if the value, its quality or its
    /// error changed, else -1. Throws UserError for what is no value of the line.
    int take(const Json& object);
    /// Takes the ages of variables from `first` on: milliseconds, or null for one that the worker
    /// has not read. Throws UserError for what are no ages of the line.
    void takeAges(int first, const Json& ages);
    /// Nobody reads the values any more. Returns the variables that changed.
    QVector<int> markStale(const QString& reason);
    /// Makes values stale that became too old: those of a worker that is silent, if `all`, and
    /// those of an earlier worker. Returns the variables that changed. Others are judged by their
    /// worker.
    QVector<int> markOld(bool all);
    /// Takes over the values of variables that are the same in both projects. Call it before any
    /// other.
    void keepValues(const LineImage& old);

private:
    struct State
    {
        GatewayValue value;
        std::optional<Duration> readAt;
        qint64 clockDistance = 0; ///< of the two clocks when it was read, in milliseconds
        bool isKept = false;      ///< no worker of this image has read it
    };
    State& at(int variable) { return m_states[static_cast<std::size_t>(variable)]; }
    const State& at(int variable) const { return m_states.at(static_cast<std::size_t>(variable)); }
    qint64 stamp(State& state, Duration age) const;
    bool takeNever(State& state, const GatewayValue& told);
    bool isOld(int variable) const;

    const LineSettings& m_settings;
    const Clock& m_clock;
    const WallClock& m_wallClock;
    std::vector<State> m_states;
    QHash<QString, int> m_variables; ///< by name
};

} // namespace micro850::gateway

#endif
