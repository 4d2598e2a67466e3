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
    /// The device stays, but for so many microseconds every byte is lost, as with a cable that is
    /// pulled behind an adapter.
    void disconnect(qint64 microseconds)
    {
        cut();
        m_connectedAt = this->microseconds() + microseconds;
    }
    /// For so many microseconds the controller neither sends nor handles what it receives.
    void hold(qint64 microseconds) { m_heldUntil = this->microseconds() + microseconds; }
    qint64 microseconds() const { return m_clock.now().count(); }

    void discardInput() override { m_arriving.clear(); }
    bool send(const QByteArray& bytes) override
    {
        for (const char byte : bytes) {
            pass(m_byteTime);
            if (microseconds() >= m_connectedAt)
                m_sending.push_back(static_cast<quint8>(byte));
            deliver();
        }
        return !isGone();
    }
    bool receive(QByteArray& bytes, micro850::Duration wait) override
    {
        const micro850::Duration end = m_clock.now() + wait;
        do {
            if (isGone())
                return false;
            collect();
            pass(m_byteTime);
        } while (m_arriving.isEmpty() && m_clock.now() < end);
        bytes += m_arriving.left(1);
        m_arriving.remove(0, 1);
        return true;
    }
    bool awaitReturn(micro850::Duration wait) override
    {
        for (const micro850::Duration end = m_clock.now() + wait; isGone() && m_clock.now() < end;)
            pass(m_byteTime);
        return !isGone();
    }

private:
    bool isHeld() const { return microseconds() < m_heldUntil; }
    void deliver()
    {
        if (isHeld() || m_sending.empty())
            return;
        m_lines.front()->receive(m_sending);
        m_sending.clear();
    }
    void collect()
    {
        if (isHeld())
            return;
        m_arriving += arrived();
        if (microseconds() < m_connectedAt)
            m_arriving.clear();
    }
    void pass(micro850::Duration time) override
    {
        SimulatedLine::pass(time);
        deliver();
        while (!m_plans.empty() && m_plans.begin()->first <= microseconds()) {
            const std::function<void()> action = m_plans.begin()->second;
            m_plans.erase(m_plans.begin());
            action();
        }
    }

    micro850::Duration m_byteTime;
    std::multimap<qint64, std::function<void()>> m_plans;
    QByteArray m_arriving;
    micro850::Bytes m_sending; ///< not handled by the controller yet
    qint64 m_connectedAt = 0;
    qint64 m_heldUntil = 0;
};

#endif
