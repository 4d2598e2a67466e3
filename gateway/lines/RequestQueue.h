#ifndef MICRO850_GATEWAY_LINES_REQUESTQUEUE_H
#define MICRO850_GATEWAY_LINES_REQUESTQUEUE_H

#include "LineService.h"

#include <QtCore/QByteArray>

#include <deque>
#include <functional>

namespace micro850::gateway {

/// The requests of a line that wait. The worker gets one at a time, so that it is known, when it
/// ends, which one it may have carried out. Each is answered once.
class RequestQueue
{
public:
    /// `send` passes a line to the worker; false when there is none.
    explicit RequestQueue(std::function<bool(const QByteArray&)> send) : m_send(std::move(send)) {}

    /// Does not answer at once: call pump() soon.
    void add(qint64 id, Json request, const LineService::Answer& answer);
    /// Takes a request back: at once if the worker does not have it yet. False for an unknown id.
    bool cancel(qint64 id);
    /// Gives the worker the next request, if it has none. Requests that cannot be sent are answered
    /// with `whyNot`.
    void pump(const QString& whyNot);
    /// The worker's reply to its request. Throws UserError for one that it was not asked for.
    void takeReply(Json reply);
    /// There is no worker any more: answers all. A write that it had may have been carried out.
    void failAll(const QString& reason);
    int size() const { return static_cast<int>(m_open.size()); }

private:
    struct Open
    {
        qint64 id;
        Json request;
        LineService::Answer answer;
    };
    Open takeFirst();

    std::function<bool(const QByteArray&)> m_send;
    std::deque<Open> m_open;
    bool m_firstIsSent = false;
};

} // namespace micro850::gateway

#endif
