#ifndef MICRO850_TESTS_PACED_SIMULATED_LINE_H
#define MICRO850_TESTS_PACED_SIMULATED_LINE_H

#include "simulated_line.h"

#include <map>

/// A SimulatedLine of a given speed: time passes byte by byte, so that a run takes as long as on
/// such a line, on every machine. Planned actions happen in between, as from another thread.
class PacedSimulatedLine : public SimulatedLine
{
public:
    PacedSimulatedLine(micro850::VirtualClock& clock, micro850::sim::FaultyLine& line, int baud)
        : SimulatedLine(clock, line), m_byteTime(10 * 1000000 / baud)
    {
    }

    /// Plans an action in a number of microseconds from now.
    void plan(qint64 microseconds, const std::function<void()>& action)
    {
        m_plans.emplace(this->microseconds() + microseconds, action);
    }
    /// Drops the bytes that are on their way to the host.
    void cut() { m_arriving.clear(); }
    qint64 microseconds() const { return m_clock.now().count(); }

    void discardInput() override { m_arriving.clear(); }
    bool send(const QByteArray& bytes) override
    {
        for (const char byte : bytes) {
            pass(m_byteTime);
            m_lines.front()->receive({static_cast<quint8>(byte)});
        }
        return !isGone();
    }
    bool receive(QByteArray& bytes, micro850::Duration wait) override
    {
        const micro850::Duration end = m_clock.now() + wait;
        do {
            if (isGone())
                return false;
            m_arriving += arrived();
            pass(m_byteTime);
        } while (m_arriving.isEmpty() && m_clock.now() < end);
        bytes += m_arriving.left(1);
        m_arriving.remove(0, 1);
        return true;
    }

private:
    void pass(micro850::Duration time) override
    {
        SimulatedLine::pass(time);
        while (!m_plans.empty() && m_plans.begin()->first <= microseconds()) {
            const std::function<void()> action = m_plans.begin()->second;
            m_plans.erase(m_plans.begin());
            action();
        }
    }

    micro850::Duration m_byteTime;
    std::multimap<qint64, std::function<void()>> m_plans;
    QByteArray m_arriving;
};

#endif
