#ifndef MICRO850_TESTS_SIM_LINE_H
#define MICRO850_TESTS_SIM_LINE_H

#include "Clock.h"
#include "FaultyLine.h"
#include "Line.h"

#include <functional>
#include <vector>

/// The host's end of a line with faults, on the virtual time of the simulated
/// controller. Time passes only where the host waits, and a millisecond with each piece sent. While
/// the line is hung up its device is gone.
class SimLine : public micro850::host::Line
{
public:
    SimLine(micro850::VirtualClock& clock, micro850::sim::FaultyLine& line)
        : m_clock(clock), m_lines{&line}
    {
    }

    /// Who hears a piece; null for nobody. Unless set, all pieces go to the line given first.
    std::function<micro850::sim::FaultyLine*(const QByteArray& piece)> route;
    /// Another controller that is heard on the same line.
    void add(micro850::sim::FaultyLine& line) { m_lines.push_back(&line); }
    /// Pieces sent so far.
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
            line->receive(micro850::Bytes(bytes.begin(), bytes.end()));
        pause(kStep);
        return !isGone();
    }
    bool receive(QByteArray& bytes, micro850::Duration wait) override
    {
        for (const micro850::Duration end = m_clock.now() + wait; !isGone();) {
            const QByteArray came = arrived();
            bytes += came;
            if (!came.isEmpty() || m_clock.now() >= end)
                return true;
            pause(kStep);
        }
        return false;
    }
    void pause(micro850::Duration time) override
    {
        for (; time > micro850::Duration(0); time -= kStep) {
            m_clock.advance(kStep);
            for (micro850::sim::FaultyLine* line : m_lines)
                line->tick();
        }
    }

private:
    static constexpr std::chrono::milliseconds kStep{1};

    bool isGone() const { return m_lines.front()->isHungUp(); }
    QByteArray arrived()
    {
        QByteArray bytes;
        for (micro850::sim::FaultyLine* line : m_lines) {
            const micro850::Bytes came = line->transmit();
            bytes.append(reinterpret_cast<const char*>(came.data()), static_cast<int>(came.size()));
        }
        return bytes;
    }

    micro850::VirtualClock& m_clock;
    std::vector<micro850::sim::FaultyLine*> m_lines;
    bool m_open = false;
    qint64 m_sent = 0;
};

#endif
