#ifndef MICRO850_HOST_OWNTRANSACTIONS_H
#define MICRO850_HOST_OWNTRANSACTIONS_H

#include <QtCore/QtGlobal>

#include <functional>
#include <memory>
#include <random>
#include <utility>

namespace micro850::host {

/// Draws transaction numbers for requests that a peer must not take for repetitions. It does so
/// with a message that has the number of the one before, also of another program: each program's
/// driver counts from 0 or 1. The driver ignores the numbers of replies.
class OwnTransactions
{
public:
    /// Draws from the system.
    OwnTransactions()
        : OwnTransactions([device = std::make_shared<std::random_device>()] { return (*device)(); })
    {
    }
    /// Draws from this function. Of what it gives, the lower 16 bits count.
    explicit OwnTransactions(std::function<unsigned()> random) : m_random(std::move(random)) {}

    /// A number that is neither the last one drawn nor near those that drivers begin with. Its low
    /// byte, of which the sequence byte is made, is far from that of `driver`, the driver's present
    /// number.
    quint16 next(quint16 driver) { return draw(driver, 0); }

    /// Such a number for the last request of a program. Another program's next() never gives it, so
    /// that the request with which that one begins does not follow its own number.
    quint16 last(quint16 driver) { return draw(driver, 1); }

private:
    quint16 draw(quint16 driver, unsigned lowestBitOfHigh)
    {
        const unsigned far = 64;
        const unsigned firstHigh = 0x20;
        for (;;) {
            const unsigned drawn = m_random() & 0xFFFFu;
            const unsigned low = drawn & 0xFF;
            const unsigned high = drawn >> 8;
            const unsigned ahead = (low - driver) & 0xFFu;
            // A byte 10 is doubled on the line; the sequence byte is 7 more.
            const bool isLonger = low == 0x10 || low + 7 == 0x10;
            const bool suits = high >= firstHigh && high % 2 == lowestBitOfHigh && !isLonger &&
                               ahead >= far && ahead <= 0x100 - far;
            if (suits && drawn != m_last) {
                m_last = static_cast<quint16>(drawn);
                return m_last;
            }
        }
    }

    std::function<unsigned()> m_random;
    quint16 m_last = 0;
};

} // namespace micro850::host

#endif
