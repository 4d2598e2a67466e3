#ifndef MICRO850_TESTS_FAKE_LINE_H
#define MICRO850_TESTS_FAKE_LINE_H

#include "Clock.h"
#include "Line.h"

#include <functional>
#include <map>
#include <optional>
#include <vector>

/// A line in memory, on virtual time. A listener gets each piece at once, and its answers arrive
/// when it says. Waiting moves the clock.
class FakeLine : public micro850::host::Line
{
public:
    explicit FakeLine(micro850::VirtualClock& clock) : m_clock(clock) {}

    bool open(QString& error) override;
    void close() override;
    bool isOpen() const override { return m_open; }
    void discardInput() override;
    bool send(const QByteArray& bytes) override;
    bool receive(QByteArray& bytes, micro850::Duration wait) override;
    void pause(micro850::Duration time) override { m_clock.advance(time); }
    bool awaitReturn(micro850::Duration time) override;

    /// Called with each piece that is sent.
    std::function<void(const QByteArray&)> onSend;
    /// Delivers bytes to the host after a number of milliseconds.
    void arrive(const QByteArray& bytes, int afterMs = 1);
    /// Removes the device or puts it back.
    void setPresent(bool present) { m_present = present; }
    /// Puts it back in so many milliseconds, with a sign that it is back.
    void returnAfter(int ms) { m_returnAt = m_clock.now() + std::chrono::milliseconds(ms); }
    /// While loose, the device can be opened but fails at once, like a loose plug.
    void setLoose(bool loose) { m_loose = loose; }

    micro850::Duration transportDelay() const override { return delay; }

    /// Why it cannot be opened while the device is away.
    QString openError = QStringLiteral("no such device");
    /// How long bytes take there and back, as it also tells.
    micro850::Duration delay{0};
    /// Every piece that was sent, in order.
    std::vector<QByteArray> sent;
    /// The times of all attempts to open it.
    std::vector<micro850::Duration> openedAt;

private:
    micro850::VirtualClock& m_clock;
    std::multimap<micro850::Duration, QByteArray> m_arriving;
    std::optional<micro850::Duration> m_returnAt;
    bool m_open = false;
    bool m_present = true;
    bool m_loose = false;
};

#endif
