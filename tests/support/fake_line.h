#ifndef MICRO850_TESTS_FAKE_LINE_H
#define MICRO850_TESTS_FAKE_LINE_H

#include "Clock.h"
#include "Line.h"

#include <functional>
#include <map>
#include <vector>

/// Virtual time in milliseconds. It passes only where something waits.
class FakeClock : public micro850::host::Clock
{
public:
    qint64 now() const override { return m_now; }
    void pass(qint64 ms) { m_now += ms; }

private:
    qint64 m_now = 1000;
};

/// A line in memory. What is sent goes to a listener at once; what the listener answers arrives at
/// the time that it names. Waiting moves the clock.
class FakeLine : public micro850::host::Line
{
public:
    explicit FakeLine(FakeClock& clock) : m_clock(clock) {}

    bool open(QString& error) override;
    void close() override;
    bool isOpen() const override { return m_open; }
    void discardInput() override;
    bool send(const QByteArray& bytes) override;
    bool receive(QByteArray& bytes, int waitMs) override;
    void pause(int ms) override { m_clock.pass(ms); }

    /// Called with each piece that is sent.
    std::function<void(const QByteArray&)> onSend;
    /// Lets bytes arrive after so many milliseconds.
    void arrive(const QByteArray& bytes, int afterMs = 1);
    /// Takes the device away or puts it back.
    void setPresent(bool present) { m_present = present; }
    /// Lets the device be opened and fail at once, as a loose plug does.
    void setLoose(bool loose) { m_loose = loose; }

    /// Every piece that was sent, in order.
    std::vector<QByteArray> sent;
    /// The times of the attempts to open it.
    std::vector<qint64> openedAt;

private:
    FakeClock& m_clock;
    std::multimap<qint64, QByteArray> m_arriving;
    bool m_open = false;
    bool m_present = true;
    bool m_loose = false;
};

#endif
