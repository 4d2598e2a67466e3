#ifndef MICRO850_HOST_PLANT_H
#define MICRO850_HOST_PLANT_H

#include "Counters.h"
#include "RoundTripHistogram.h"
#include "ValueStore.h"

#include <functional>
#include <optional>

namespace micro850::host {

/// A line as commands show it.
struct LineView
{
    QString device;
    QString text; ///< device and settings, as PortSettings::text()
    bool isUp = false;
    QString error; ///< why it is down; empty while it is up
    /// The error to report when it changes, as LineState::reportedError().
    QString reportedError;
};

/// How busy a line is, and how fast its peers answer; see LineStatistics.
struct LineFigures
{
    double transactionsPerSecond = 0;
    double percentInUse = 0;
    std::optional<Duration> roundTripMedian; ///< none before the first answer
    std::optional<Duration> roundTrip99;     ///< 99 % of the answers do not exceed it
    qint64 reopened = 0;                     ///< how often the line was opened again
    /// How much of the line's time the intervals of the variables ask for.
    double percentAsked = 0;
    /// What the line cannot hold, with figures; empty while it holds every interval. It changes
    /// only when the overload begins, changes much, or ends.
    QString overload;
    RoundTripHistogram roundTrips; ///< of all answers
    bool hasRates = true;          ///< false in the first second, of which none can be told
};

/// A station as commands show it.
struct StationView
{
    int number = 1;
    QString name;
    /// "connected", "connecting", "dead", "refused", "line down", "disabled".
    QString state;
    QString problem;                    ///< why it has no connection; empty when it has one
    bool isConnected = true;            ///< over a line that is up
    bool isServed = true;               ///< requests go to it
    std::optional<Duration> lastAnswer; ///< by the clock of the caller
    Counters counters;
};

/// Variables that are polled, as commands see them: with a line of their own (PollLoop), or through
/// a gateway.
class Plant
{
public:
    virtual ~Plant() = default;

    /// Lets something happen: a transaction, news from elsewhere, or a pause of some milliseconds.
    virtual void step() = 0;
    /// Ends in order. Call step() no more.
    virtual void finish() = 0;
    /// Sets a function that is asked while something is waited for; when it returns true, the wait
    /// ends soon.
    virtual void setInterrupt(const std::function<bool()>& interrupt) = 0;

    virtual const ValueStore& values() const = 0;
    virtual ValueStore& values() = 0;
    /// Good only for a value that came after the line was opened and the station connected.
    virtual Quality quality(int variable) const = 0;
    virtual LineView line() const = 0;
    virtual LineFigures figures() const = 0;
    /// By number.
    virtual QVector<StationView> stationViews() const = 0;
};

} // namespace micro850::host

#endif
