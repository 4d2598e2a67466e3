#ifndef MICRO850_HOST_CHANGEFILTER_H
#define MICRO850_HOST_CHANGEFILTER_H

#include "Clock.h"
#include "Project.h"
#include "ValueStore.h"

#include <QtCore/QByteArray>
#include <QtCore/QVector>

#include <optional>
#include <set>
#include <utility>

namespace micro850::host {

/// Decides which values of variables are told: a change beyond the dead band, another quality or
/// error, and an unchanged value when its heartbeat is due. A change is counted from the value that
/// was told last, by a change or by a heartbeat, so that a slow drift is told, too.
class ChangeFilter
{
public:
    /// What is known of a variable.
    struct State
    {
        const CipType* type = nullptr; ///< null before the first value
        QByteArray bytes;              ///< all elements, in the controller's byte order
        Quality quality = Quality::Never;
        QString error;
    };

    explicit ChangeFilter(const QVector<Variable>& variables);

    /// True when the state is to be told now. It then counts as told.
    bool isNews(int variable, const State& state, Duration now);
    /// The variables whose heartbeat is due before `now` and `ahead`; they count as told now. Who
    /// asks once in a while gives the time until it asks again, so that none is late. Those that
    /// were never told have none.
    QVector<int> popHeartbeats(Duration now, Duration ahead = Duration(0));
    /// When the next heartbeat is due, to wait for; none without heartbeats.
    std::optional<Duration> nextHeartbeat() const;

private:
    struct Told
    {
        State state;
        State latest; ///< the last one that was asked about; a heartbeat tells it
        bool any = false;
        Duration at{0};
    };
    bool hasMoved(int variable, const State& from, const State& to) const;
    void note(int variable, Duration now);

    QVector<Variable> m_variables;
    QVector<Told> m_told;
    /// When the heartbeats of variables that were told are due.
    std::set<std::pair<Duration, int>> m_heartbeats;
};

} // namespace micro850::host

#endif
