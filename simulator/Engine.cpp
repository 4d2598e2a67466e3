#include "Engine.h"

namespace micro850::sim {

Engine::Engine(const Clock& clock, Plant plant, LinkOptions link, Identity identity)
    : m_clock(clock), m_start(clock.now()), m_plant(std::move(plant)),
      m_server(clock, m_plant, std::move(identity)),
      m_handler([this](const Bytes& message) { return m_server.handle(message); }),
      m_link(
          clock, [this](const Bytes& message) { return m_handler(message); }, link)
{
}

void Engine::receive(const Bytes& bytes)
{
    m_plant.move(m_clock.now() - m_start);
    m_link.receive(bytes);
}

void Engine::tick()
{
    m_link.tick();
}

Bytes Engine::transmit()
{
    return m_link.transmit();
}

void Engine::powerCycle(bool retainValues)
{
    m_server.reset();
    m_link.reset();
    if (!retainValues)
        m_plant.reset();
    m_start = m_clock.now();
}

void Engine::download(Plant plant)
{
    m_plant = std::move(plant);
}

} // namespace micro850::sim
