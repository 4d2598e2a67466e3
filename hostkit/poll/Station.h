#ifndef MICRO850_HOST_STATION_H
#define MICRO850_HOST_STATION_H

#include "Exchange.h"

#include <optional>

namespace micro850::host {

/// One controller as the host sees it.
struct Station
{
    enum class State {
        Connecting, ///< asked for its connection, no answer yet
        Connected,
        Dead,    ///< did not answer; taken out of the cycle and probed at growing intervals
        Disabled ///< by the project
    };
    int number = 1;
    QString name;
    State state = State::Connecting;
    QString error; ///< of the last connection set-up

    int failedSetUps = 0; ///< in a row
    int refusedOpens = 0; ///< connection requests without a valid answer, in this set-up
    Duration probePause{0};
    Duration nextProbe{0};
    bool probing = false; ///< dead, and asked for its connection at present
    std::optional<Duration> lastAnswer;
    bool wasConnected = false;
    Counters counters;

    bool alive() const { return state == State::Connected; }
    /// True while requests for it are handed to the driver.
    bool inService() const
    {
        return state == State::Connecting || state == State::Connected || probing;
    }
};

/// "connected", "dead", ...
inline QString stateText(Station::State state)
{
    switch (state) {
    case Station::State::Connecting:
        return QStringLiteral("connecting");
    case Station::State::Connected:
        return QStringLiteral("connected");
    case Station::State::Dead:
        return QStringLiteral("dead");
    case Station::State::Disabled:
        break;
    }
    return QStringLiteral("disabled");
}

} // namespace micro850::host

#endif
