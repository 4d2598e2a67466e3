#ifndef MICRO850_BENCH_PACED_SIM_LINE_H
#define MICRO850_BENCH_PACED_SIM_LINE_H

#include "Clock.h"
#include "FaultyLine.h"
#include "Line.h"

#include <functional>
#include <map>

/// A line of a given speed between the host and a simulated controller, on the controller's virtual
/// time, so that a run takes the same time on every machine. Time passes byte by byte; planned
/// actions happen in between, as from another thread.
class PacedSimLine : public micro850::host::Line
{
public:
    PacedSimLine(micro850::VirtualClock& clock, micro850::sim::FaultyLine& line, int baud)
        : m_clock(clock), m_line(line), m_byteTime(10 * 1000000 / baud)
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

    bool open(QString& error) override
    {
        m_open = !m_line.isHungUp();
        if (!m_open)
            error = QStringLiteral("there is no such device");
        return m_open;
    }
    void close() override { m_open = false; }
    bool isOpen() const override { return m_open; }
    void discardInput() override { m_arriving.clear(); }

    bool send(const QByteArray& bytes) override
    {
        for (const char byte : bytes) {
            pass(m_byteTime);
            m_line.receive({static_cast<quint8>(byte)});
        }
        return !m_line.isHungUp();
    }
    bool receive(QByteArray& bytes, micro850::Duration wait) override
    {
        const qint64 end = microseconds() + wait.count();
        do {
            if (m_line.isHungUp())
                return false;
            for (const quint8 byte : m_line.transmit())
                m_arriving.append(static_cast<char>(byte));
            pass(m_byteTime);
        } while (m_arriving.isEmpty() && microseconds() < end);
        bytes += m_arriving.left(1);
        m_arriving.remove(0, 1);
        return true;
    }
    void pause(micro850::Duration time) override
    {
        for (qint64 left = time.count(); left > 0; left -= 1000)
            pass(1000);
    }

private:
    void pass(qint64 microseconds)
    {
        m_clock.advance(micro850::Duration(microseconds));
        m_line.tick();
        while (!m_plans.empty() && m_plans.begin()->first <= this->microseconds()) {
            const std::function<void()> action = m_plans.begin()->second;
            m_plans.erase(m_plans.begin());
            action();
        }
    }

    micro850::VirtualClock& m_clock;
    micro850::sim::FaultyLine& m_line;
    qint64 m_byteTime;
    std::multimap<qint64, std::function<void()>> m_plans;
    QByteArray m_arriving;
    bool m_open = false;
};

#endif
