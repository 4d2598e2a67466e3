#ifndef MICRO850_SIMULATOR_CONTROLLER_H
#define MICRO850_SIMULATOR_CONTROLLER_H

#include "CipServer.h"
#include "LinkLayer.h"

namespace micro850::sim {

/// One controller without any I/O: bytes in, bytes out, time from a clock.
class Controller
{
public:
    Controller(const Clock& clock, TagTable tags, LinkOptions link = LinkOptions(),
               Identity identity = Identity());
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    void receive(const Bytes& bytes);
    /// Checks the time-outs of the link.
    void tick();
    /// Returns the bytes to send and removes them from the output.
    Bytes transmit();

    /// Forgets connections, link state and counters. Values return to the initial ones unless they
    /// are retained.
    void powerCycle(bool retainValues);
    /// Replaces all tags; connections stay.
    void download(TagTable tags);
    /// From now on `handler` answers messages instead of the CIP server.
    void answerWith(LinkLayer::Handler handler) { m_handler = std::move(handler); }

    TagTable& tags() { return m_tags; }
    CipServer& server() { return m_server; }
    const LinkCounters& counters() const { return m_link.counters(); }
    /// True while a reply is not acknowledged.
    bool awaitsAcknowledgement() const { return m_link.awaitsAcknowledgement(); }

private:
    const Clock& m_clock;
    Duration m_start;
    TagTable m_tags;
    CipServer m_server;
    LinkLayer::Handler m_handler;
    LinkLayer m_link;
};

} // namespace micro850::sim

#endif
