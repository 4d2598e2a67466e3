#include "OpenConnections.h"

#include <algorithm>
#include <utility>

namespace micro850::host {

namespace {

// Of one station. Only a controller whose replies are lost again and again can hold more.
const int kMostOpened = 8;
// The longest reply to the request, every byte doubled.
const int kReplyBytes = 80;
// What a controller may take to answer. At the end of a program nobody waits longer.
const std::chrono::milliseconds kPatience(250);

} // namespace

void OpenConnections::note(int station, const QByteArray& frame, const Answer& answer)
{
    Opened& opened = m_stations[station];
    opened.answers = answer.outcome == Answer::Outcome::Answered;
    if (answer.request.service != kForwardOpen || (opened.answers && !answer.reply.good()))
        return;
    // Without an answer the connection may be open all the same.
    const QByteArray request = dataOf(frame).bytes();
    const QByteArray key = connectionKey(request);
    const auto isSame = [&](const QByteArray& other) { return connectionKey(other) == key; };
    QList<QByteArray>& requests = opened.requests;
    requests.erase(std::remove_if(requests.begin(), requests.end(), isSame), requests.end());
    requests.append(request);
    if (requests.size() > kMostOpened)
        requests.removeFirst();
}

void OpenConnections::close(int station)
{
    for (const QByteArray& request : std::exchange(m_stations[station].requests, {})) {
        if (!closeOne(request))
            return;
    }
}

void OpenConnections::closeAll()
{
    for (const Opened& opened : std::exchange(m_stations, {})) {
        for (const QByteArray& request : opened.requests) {
            if (opened.answers && !closeOne(request))
                return;
        }
    }
}

// False without an answer. What the answer says does not matter: the controller has closed the
// connection, does not know it any more, or does not know the service.
bool OpenConnections::closeOne(const QByteArray& openRequest)
{
    const QByteArray frame = wireFrame(closeRequest(openRequest, m_exchange.ownTransaction()));
    Counters uncounted;
    const Answer answer = m_exchange.run(frame, uncounted, timeoutFor(frame.size()));
    return answer.outcome == Answer::Outcome::Answered;
}

Duration OpenConnections::timeoutFor(int requestBytes) const
{
    return std::min<Duration>(m_exchange.timeoutFor(requestBytes),
                              m_port.timeOf(requestBytes + kReplyBytes) +
                                  m_exchange.delayFor(kPatience));
}

} // namespace micro850::host
