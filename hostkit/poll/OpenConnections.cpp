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
    const bool answers = answer.outcome == Answer::Outcome::Answered;
    if (!answers)
        m_silent.insert(station);
    else if (!m_silent.isEmpty())
        m_silent.remove(station);
    if (answer.request.service != kForwardOpen || (answers && !answer.reply.good()))
        return;
    // Without an answer the connection may be open all the same.
    const QByteArray request = dataOf(frame).bytes();
    const QByteArray key = connectionKey(request);
    const auto isSame = [&](const QByteArray& other) { return connectionKey(other) == key; };
    QList<QByteArray>& requests = m_requests[station];
    requests.erase(std::remove_if(requests.begin(), requests.end(), isSame), requests.end());
    requests.append(request);
    if (requests.size() > kMostOpened)
        requests.removeFirst();
}

void OpenConnections::close(int station)
{
    m_exchange.setStation(station);
    for (const QByteArray& request : m_requests.take(station)) {
        if (!closeOne(request))
            return;
    }
}

void OpenConnections::closeAll()
{
    const QMap<int, QList<QByteArray>> stations = std::exchange(m_requests, {});
    for (auto opened = stations.cbegin(); opened != stations.cend(); ++opened) {
        m_exchange.setStation(opened.key());
        for (const QByteArray& request : *opened) {
            if (!m_silent.contains(opened.key()) && !closeOne(request))
                return;
        }
    }
}

// False without an answer. What the answer says does not matter: the controller has closed the
// connection, does not know it any more, or does not know the service.
bool OpenConnections::closeOne(const QByteArray& openRequest)
{
    const QByteArray frame = wireFrame(closeRequest(openRequest, m_exchange.lastTransaction()));
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
