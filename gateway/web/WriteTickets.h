#ifndef MICRO850_GATEWAY_WEB_WRITETICKETS_H
#define MICRO850_GATEWAY_WEB_WRITETICKETS_H

#include "Clock.h"

#include <QtCore/QByteArray>

#include <deque>

namespace micro850::gateway {

/// Each lets one write through. A browser sends a request again by itself when a connection ends
/// before the answer: with its ticket it is carried out once at most. They are in memory: what
/// another run of the service gave is not known.
class WriteTickets
{
public:
    /// What a ticket is good for.
    struct Write
    {
        QByteArray caller;    ///< his session, or the mark of his token
        quint64 identity = 0; ///< of the variable
        int element = 0;

        bool operator==(const Write& other) const
        {
            return caller == other.caller && identity == other.identity && element == other.element;
        }
    };
    enum class Use {
        Good,    ///< it is used up now
        TooOld,  ///< it was never used
        Another, ///< it was for another variable or element; it is used up now
        Used,    ///< it was used before
        Unknown  ///< perhaps it was used before
    };

    /// The clock must outlive it.
    explicit WriteTickets(const Clock& clock) : m_clock(clock) {}

    QByteArray give(const Write& write);
    Use use(const QByteArray& ticket, const Write& write);

    static constexpr int kMost = 1024;
    static constexpr int kMostOfCaller = 32;
    static constexpr std::chrono::seconds kLifetime{60};

private:
    struct Ticket
    {
        QByteArray text;
        Write write;
        Duration given;
        bool isUsed;
    };

    void makeRoomFor(const QByteArray& caller);

    const Clock& m_clock;
    std::deque<Ticket> m_tickets; ///< in the order in which they were given
};

} // namespace micro850::gateway

#endif
