#include "simulator_thread.h"

#include "SerialPort.h"

#include <poll.h>

using namespace micro850;
using namespace micro850::sim;

SimulatorThread::SimulatorThread(const std::string& tagFile, std::string link)
    : m_controller(m_clock, TagTable::fromFile(tagFile)), m_line(m_clock, m_controller),
      m_link(std::move(link))
{
    putCableBack();
    m_thread = std::thread([this] { serve(); });
}

SimulatorThread::~SimulatorThread()
{
    m_stop = true;
    m_thread.join();
}

void SimulatorThread::with(const std::function<void(Controller&)>& action)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    action(m_controller);
}

Bytes SimulatorThread::element(const std::string& tag, std::size_t index)
{
    Bytes bytes;
    with([&](Controller& controller) { bytes = controller.tags().find(tag)->elements.at(index); });
    return bytes;
}

void SimulatorThread::faults(const std::string& rules)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const Fault& fault : faultsFromText("{\"faults\": [" + rules + "]}", "faults"))
        m_line.add(fault);
}

unsigned SimulatorThread::strikes()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    unsigned sum = 0;
    for (const auto& [kind, count] : m_line.counts())
        sum += count;
    return sum;
}

void SimulatorThread::pullCable()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_port.reset();
}

void SimulatorThread::putCableBack()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_port = SerialPort::pseudoTerminal(m_link, m_clock);
}

void SimulatorThread::serve()
{
    constexpr int kWait = 5; // milliseconds between two checks of m_stop
    while (!m_stop) {
        std::vector<pollfd> waits;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_port)
                waits = m_port->waits();
        }
        ::poll(waits.data(), waits.size(), kWait);
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_port)
            continue;
        bool gone = false;
        const Bytes bytes = m_port->read(gone);
        if (m_silent || !isUnderstood())
            continue;
        m_line.receive(bytes);
        m_line.tick();
        m_port->write(m_line.transmit());
    }
}

// Caller holds m_mutex.
bool SimulatorThread::isUnderstood() const
{
    termios settings{};
    return m_speed == B0 || (::tcgetattr(m_port->waits().front().fd, &settings) == 0 &&
                             ::cfgetospeed(&settings) == m_speed);
}
