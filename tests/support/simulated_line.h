#ifndef MICRO850_TESTS_SIMULATED_LINE_H
#define MICRO850_TESTS_SIMULATED_LINE_H

#include "Clock.h"
#include "FaultyLine.h"
#include "Line.h"
#include "byte_arrays.h"

#include <functional>
#include <vector>

/// The host's end of a line to simulated controllers, on virtual time. Time passes only where the
/// host waits, and a millisecond with each piece sent. While the line is hung up, its device is
/// gone.
class SimulatedLine : public micro850::host::Line
{
public:
    SimulatedLine(micro850::VirtualClock& clock, micro850::sim::FaultyLine& line)
        : m_clock(clock), m_lines{&line}
    {
    }

    /// Returns the line that carries a piece; null to lose it. Unless set, the line that was given
    /// first carries all pieces.
    std::function<micro850::sim::FaultyLine*(const QByteArray& piece)> route;
    /// Adds another controller to the line.
    void add(micro850::sim::FaultyLine& line) { m_lines.push_back(&line); }
    /// Number of pieces sent so far.
    qint64 sent() const { return m_sent; }

    bool open(QString& error) override
    {
        m_open = !isGone();
        if (!m_open)
            error = QStringLiteral("there is no such device");
        return m_open;
    }
    void close() override { m_open = false; }
    bool isOpen() const override { return m_open; }
    void discardInput() override { arrived(); }

    bool send(const QByteArray& bytes) override
    {
        ++m_sent;
        if (micro850::sim::FaultyLine* const line = route ? route(bytes) : m_lines.front())
            line->receive(toBytes(bytes));
        pause(kStep);
        return !isGone();
    }
    bool receive(QByteArray& bytes, micro850::Duration wait) override
    {
        for (const micro850::Duration end = m_clock.now() + wait; !isGone();) {
            const QByteArray received = arrived();
            bytes += received;
            if (!received.isEmpty() || m_clock.now() >= end)
                return true;
            pause(kStep);
        }
        return false;
    }
    void pause(micro850::Duration time) override
    {
        for (; time > micro850::Duration(0); time -= kStep)
            pass(kStep);
    }

protected:
    bool isGone() const { return m_lines.front()->isHungUp(); }
    /// Returns the bytes that have arrived and removes them from the lines.
    QByteArray arrived()
    {
        QByteArray bytes;
        for (micro850::sim::FaultyLine* line : m_lines)
            bytes += toByteArray(line->transmit());
        return bytes;
    }
    /// Lets time pass at both ends.
    virtual void pass(micro850::Duration time)
    {
        m_clock.advance(time);
        for (micro850::sim::FaultyLine* line : m_lines)
            line->tick();
    }

    static constexpr std::chrono::milliseconds kStep{1};
    micro850::VirtualClock& m_clock;
    std::vector<micro850::sim::FaultyLine*> m_lines;

private:
    bool m_open = false;
    qint64 m_sent = 0;
};

#endif
