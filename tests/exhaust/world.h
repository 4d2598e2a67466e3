#ifndef MICRO850_TESTS_EXHAUST_WORLD_H
#define MICRO850_TESTS_EXHAUST_WORLD_H

#include "driver_copy.h"
#include "fixed_time_of_day.h"
#include "model.h"

#include <string>
#include <vector>

/// What a host or the line can do. Those after Poll ask the driver for its frame and deliver what
/// the line makes of the answer.
enum class Act {
    ReadCyclically,
    ReadOnce,
    Write,
    Disable,
    Enable,
    Rebuild,
    RebuildEmpty,
    Poll,
    SilentLook, ///< one call without bytes
    GoodLook,   ///< one call with the good reply, the first of two
    Silence,    ///< this and all that follow: calls up to the verdict
    Good,
    Refused,
    Corrupt,
    Cut,
    Doubled,
    Late,
    Foreign,
    Forgotten
};

struct Step
{
    Act act;
    int station = 0;
    char tag = 0;
};

/// Steps for each of the stations and tags.
std::vector<Step> allSteps(int stations, const std::string& tags);
/// A step as a person would say it.
std::string nameOf(const Step& step);

/// The state between two steps.
struct State
{
    DriverCopy driver;
    model::Driver model;
    QByteArray before; ///< the good answer to the frame that was sent before
};

/// The driver and its model, with one host, one line and one controller.
class World
{
public:
    /// A driver after loading. The host's cyclic list is rebuilt with `tags`.
    World(const std::string& tags, bool stationsPerVariable, int writeMode);

    const State& state() const { return m_state; }
    /// Makes one step from a state; state() is what it leads to. False if driver and model differ.
    bool take(const State& from, const Step& step);
    /// Fetches every value of the state that was reached last. False if driver and model differ.
    bool fetch(int stations, const std::string& tags, std::uint64_t& fetched);
    /// What differs, once the step is taken again after makeReadable().
    std::string difference() const;
    void makeReadable();
    /// Sets the transaction number of every station.
    void setNumbers(quint16 number);
    /// Bytes that are equal for equal states. Valid until the next step.
    const std::string& key();

private:
    void act(const Step& step);
    void actOfHost(const Step& step);
    void actOfLine(Act act);
    QByteArray received(Act act, const QByteArray& answer) const;
    void deliver(const QByteArray& bytes, bool toVerdict);
    void rebuild(bool empty);
    void seen(const char* name, qint64 driver, qint64 model);

    const std::string m_tags;
    FixedTimeOfDay m_clock;
    State m_state;
    quint32 m_serial = 0;
    Description m_driver, m_model;
    std::size_t m_seen = 0; ///< bytes of m_driver in front of the state
};

#endif
