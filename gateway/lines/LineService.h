#ifndef MICRO850_GATEWAY_LINES_LINESERVICE_H
#define MICRO850_GATEWAY_LINES_LINESERVICE_H

#include "LineSettings.h"
#include "Protocol.h"

#include <functional>

namespace micro850::gateway {

using host::GatewayValue;
using host::Json;

/// A line or a station changed its state.
struct LineEvent
{
    qint64 time = 0;  ///< milliseconds since 1970 UTC
    QString line;     ///< empty: the gateway itself
    int station = -1; ///< below 0: the line itself
    QString state;    ///< "connected", "dead", "line down", ...
    QString text;     ///< one line for people, with the reason
};

/// A write, for the journal.
struct JournalEntry
{
    qint64 time = 0; ///< milliseconds since 1970 UTC
    int uid = -1;
    int pid = -1;
    QString client; ///< the name that the client gave, or that of its program
    QString line;
    QString name;
    int element = 0; ///< within the variable
    Json oldValue;   ///< null when it is not known
    Json newValue;
    QString outcome; ///< "written", or the code of the error
    QString error;   ///< empty when it was written
};

/// Is told what happens on the lines. Called on the thread of the event loop; it must not block.
class LineListener
{
public:
    virtual ~LineListener() = default;
    /// A variable's value, quality or error is to be told: it changed by its dead band, or its
    /// heartbeat is due.
    virtual void handleValue(int, int) {}
    virtual void handleEvent(const LineEvent&) {}
    /// Something about a line that is no change of its state: it cannot hold its intervals.
    virtual void handleNotice(const LineEvent&) {}
    virtual void handleWrite(const JournalEntry&) {}
    /// Lines and variables may have come and gone; indices that were kept are no longer valid.
    virtual void handleReload() {}
};

/// What the rest of the gateway needs of its lines. Everything happens on the thread of the event
/// loop, and nothing blocks.
class LineService
{
public:
    virtual ~LineService() = default;

    virtual int size() const = 0;
    virtual const LineSettings& line(int index) const = 0;
    /// The latest value; always there, of quality Never before the first one.
    virtual const GatewayValue& latest(int line, int variable) const = 0;
    /// Time since the value was read last, in milliseconds; below 0 before the first one.
    virtual qint64 ageMs(int line, int variable) const = 0;
    /// The line's part of the reply to "status".
    virtual Json status(int line) const = 0;

    using Answer = std::function<void(const Json& reply)>;
    /// Sends a request of the protocol (read fresh, type, write) to the worker of the line;
    /// `answer` is called once with the reply, later, also when the worker ends or the line is
    /// removed. Returns a number for cancel().
    virtual qint64 ask(int line, Json request, const Answer& answer) = 0;
    /// Takes the request back unless it was sent to the controller. `answer` is still called.
    virtual void cancel(qint64 asked) = 0;

    /// The listener must be removed before it is destroyed.
    virtual void addListener(LineListener& listener) = 0;
    virtual void removeListener(LineListener& listener) = 0;
    /// Tells all listeners of a write.
    virtual void reportWrite(const JournalEntry& entry) = 0;
};

} // namespace micro850::gateway

#endif
