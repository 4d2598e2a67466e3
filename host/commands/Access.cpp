#include "Access.h"

namespace micro850::host {

Access::Access(const LineOptions& options, const Route& route, const Project& project)
{
    if (route.gateway) {
        m_gateway =
            std::make_unique<GatewayClient>(route.gateway->path, route.gateway->client, m_clock);
        m_tags = std::make_unique<RemoteSession>(*m_gateway, route.gateway->line);
    } else if (route.shared) {
        m_tags = std::make_unique<Session>(route.shared->loop(project), project);
    } else {
        m_connection = std::make_unique<Connection>(options, project);
        // After the line is open, so that an earlier trace is not lost to a wrong port.
        m_trace = std::make_unique<TraceRecorder>(options.trace, options.force);
        auto session = std::make_unique<Session>(m_connection->api(), m_connection->line(),
                                                 m_connection->clock(), project);
        session->exchange().setObserver(m_trace->observer(&session->exchange()));
        m_tags = std::move(session);
    }
    m_tags->setInterrupt([this] { return m_interrupt.requested(); });
}

Access::~Access() = default;

ArrayLengths& Access::lengths()
{
    SharedLine* const shared = SharedLine::current();
    return shared ? shared->lengths() : m_lengths;
}

int Access::lengthOf(const TagKey& tag)
{
    return lengths().lengthOf(*m_tags, tag, [this] { m_interrupt.throwIfRequested(); });
}

void Access::finish()
{
    m_tags->finish();
    if (m_trace)
        m_trace->close();
}

} // namespace micro850::host
