#ifndef MICRO850_HOST_COMMANDS_ACCESS_H
#define MICRO850_HOST_COMMANDS_ACCESS_H

#include "ArrayLengths.h"
#include "Connection.h"
#include "Interrupt.h"
#include "RemoteSession.h"
#include "Route.h"
#include "Session.h"
#include "TraceRecorder.h"

#include <memory>

namespace micro850::host {

/// Single reads and writes for the duration of a command, over a line of its own or through a
/// gateway.
class Access
{
public:
    /// `project` is the one of the route, without what the command does not need; it must live
    /// longer than this object. Throws UserError when line, driver or gateway are missing.
    Access(const LineOptions& options, const Route& route, const Project& project);
    ~Access();
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;

    const Interrupt& interrupt() const { return m_interrupt; }
    TagAccess& tags() { return *m_tags; }
    /// How many elements a tag has, as ArrayLengths finds it. A line that is open for several
    /// commands remembers it for all of them. Throws as TagAccess::typeOf() does, and when the user
    /// interrupts.
    int lengthOf(const TagKey& tag);
    /// The length is looked for again.
    void forgetLengthOf(const TagKey& tag) { lengths().forget(tag); }
    /// Ends in order. Throws UserError when the trace could not be written.
    void finish();

private:
    ArrayLengths& lengths();

    const Interrupt m_interrupt; // before the line is open, so that it is closed in order
    const SystemClock m_clock;
    std::unique_ptr<GatewayClient> m_gateway;
    std::unique_ptr<Connection> m_connection;
    std::unique_ptr<TraceRecorder> m_trace;
    std::unique_ptr<TagAccess> m_tags;
    ArrayLengths m_lengths;
};

} // namespace micro850::host

#endif
