#ifndef MICRO850_HOST_COMMANDS_SHAREDLINE_H
#define MICRO850_HOST_COMMANDS_SHAREDLINE_H

#include "ArrayLengths.h"
#include "Commands.h"
#include "PollLoop.h"
#include "RemotePlant.h"

#include <memory>
#include <optional>

namespace micro850::host {

/// What a watch in the background shows.
struct WatchOrder
{
    Project project;
    std::optional<GatewayPlace> gateway;
    std::vector<std::string> tags; ///< as the user named them
    QStringList hints;             ///< for tags that the controller does not know
    bool json = false;
    double seconds = 0; ///< 0: without end
};

/// A line that is open for several commands, which use it in place of one of their own. A process
/// has at most one, like the driver.
class SharedLine
{
public:
    SharedLine();
    virtual ~SharedLine();
    SharedLine(const SharedLine&) = delete;
    SharedLine& operator=(const SharedLine&) = delete;

    /// The one of this process, or null.
    static SharedLine* current();

    /// Gives a command the line and, unless it names another one, the project that is used with it.
    /// Throws UserError when the command names a line of its own.
    virtual void adopt(LineOptions& options) const = 0;
    virtual const PortSettings& port() const = 0;
    virtual const Clock& clock() const = 0;
    /// The loop, which knows the stations of this project.
    virtual PollLoop& loop(const Project& project) = 0;
    /// Polls variables besides everything else. The project must live longer than the plant.
    virtual std::unique_ptr<Plant> attach(const Project& project) = 0;
    /// False: there is no background.
    virtual bool watchInBackground(WatchOrder order) = 0;
    /// What its commands know of the lengths of arrays.
    ArrayLengths& lengths() { return m_lengths; }

private:
    ArrayLengths m_lengths;
};

} // namespace micro850::host

#endif
