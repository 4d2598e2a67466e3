#include "Controller.h"

namespace micro850::sim {

Controller::Controller(const Clock& clock, TagTable tags, LinkOptions link, Identity identity)
    : m_clock(clock), m_start(clock.now()), m_tags(std::move(tags)),
      m_server(clock, m_tags, std::move(identity)),
      m_handler([this](const Bytes& message) { return m_server.handle(message); }),
      m_link(
          clock, [this](const Bytes& message) { return m_handler(message); }, link)
{
}

void Controller::receive(const Bytes& bytes)
{
    m_tags.move(m_clock.now() - m_start);
    m_link.receive(bytes);
}

void Controller::tick()
{
    m_link.tick();
}

Bytes Controller::transmit()
{
    return m_link.transmit();
}

void Controller::powerCycle(bool retainValues)
{
    m_server.reset();
    m_link.reset();
    if (!retainValues)
        m_tags.reset();
    m_start = m_clock.now();
}

void Controller::download(TagTable tags)
{
    m_tags = std::move(tags);
}

} // namespace micro850::sim
