#include "RequestQueue.h"

#include "Message.h"
#include "UserError.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

const std::size_t kMostOpen = 4096;

bool isWrite(const Json& request)
{
    const auto name = request.find("request");
    return name != request.end() && *name == "write";
}

} // namespace

void RequestQueue::add(qint64 id, Json request, const LineService::Answer& answer)
{
    request["id"] = id;
    m_open.push_back({id, std::move(request), answer});
}

bool RequestQueue::cancel(qint64 id)
{
    const auto found = std::find_if(m_open.begin(), m_open.end(),
                                    [id](const Open& open) { return open.id == id; });
    if (found == m_open.end())
        return false;
    if (found == m_open.begin() && m_firstIsSent) {
        m_send(host::lineOf({{"request", "cancel"}, {"of", id}}));
        return true;
    }
    const Open open = std::move(*found);
    m_open.erase(found);
    open.answer(host::errorReply(open.id, host::errorcode::kCancelled, "it was taken back"));
    return true;
}

RequestQueue::Open RequestQueue::takeFirst()
{
    Open open = std::move(m_open.front());
    m_open.pop_front();
    m_firstIsSent = false;
    return open;
}

// An answer can bring further requests, and cancel others.
void RequestQueue::pump(const QString& whyNot)
{
    while (m_open.size() > kMostOpen) {
        const Open open = std::move(m_open.back());
        m_open.pop_back();
        open.answer(host::errorReply(open.id, host::errorcode::kBusy,
                                     "too many requests wait for the line"));
    }
    while (!m_open.empty() && !m_firstIsSent) {
        m_firstIsSent = m_send(host::lineOf(m_open.front().request));
        if (m_firstIsSent)
            return;
        const Open open = takeFirst();
        open.answer(host::errorReply(open.id, host::errorcode::kUnreachable, whyNot.toStdString()));
    }
}

void RequestQueue::takeReply(Json reply)
{
    const auto id = reply.find("id");
    if (!m_firstIsSent || id == reply.end() || *id != m_open.front().id)
        throw UserError("a reply to no request");
    takeFirst().answer(reply);
}

void RequestQueue::failAll(const QString& reason)
{
    const bool begun = m_firstIsSent;
    std::deque<Open> all;
    all.swap(m_open);
    m_firstIsSent = false;
    for (auto open = all.begin(); open != all.end(); ++open) {
        const bool mayBeDone = begun && open == all.begin() && isWrite(open->request);
        open->answer(host::errorReply(
            open->id, mayBeDone ? host::errorcode::kUnknownOutcome : host::errorcode::kUnreachable,
            (mayBeDone ? "it may have been sent: " : "not sent: ") + reason.toStdString()));
    }
}

} // namespace micro850::gateway
