#include "FreshReads.h"

#include <algorithm>

namespace micro850::host {

namespace {

// The gateway lets a client have 64, and has others to serve.
const int kMostOpen = 8;
const int kElementsAtOnce = 200;

} // namespace

void FreshReads::begin(const QVector<int>& variables)
{
    m_parts.clear();
    m_open = m_next = 0;
    for (const int index : variables) {
        const Variable& variable = m_project.variables.at(index);
        for (int at = 0; at < variable.length; at += kElementsAtOnce)
            m_parts.append({index, variable.element + at,
                            std::min(kElementsAtOnce, variable.length - at), Duration(0), 0});
    }
}

void FreshReads::work(GatewayClient& gateway, const QString& line, Duration now)
{
    for (Part& part : m_parts) {
        if (part.request != 0 && gateway.isAnswered(part.request))
            take(gateway, part, now);
    }
    for (int looked = 0; looked < m_parts.size() && m_open < kMostOpen; ++looked) {
        Part& part = m_parts[m_next];
        m_next = (m_next + 1) % m_parts.size();
        if (part.request != 0 || now < part.dueAt)
            continue;
        const Variable& variable = m_project.variables.at(part.variable);
        const qint64 id = gateway.post({{"request", "read"},
                                        {"line", line.toStdString()},
                                        {"station", variable.station},
                                        {"tag", variable.tag.toStdString()},
                                        {"element", part.element},
                                        {"elements", part.elements}});
        part.request = id;
        part.dueAt =
            variable.poll == PollMode::Once
                ? Duration::max()
                : now + std::chrono::milliseconds(variable.intervalMs.value_or(kDefaultIntervalMs));
        ++m_open;
    }
}

void FreshReads::take(GatewayClient& gateway, Part& part, Duration now)
{
    const qint64 request = part.request;
    part.request = 0;
    --m_open;
    try {
        store(part, gateway.takeReply(request), now);
    } catch (const GatewayRefused& error) {
        m_values.setError(part.variable, QString::fromStdString(error.why()));
        if (part.dueAt == Duration::max()) // once, but it was not
            part.dueAt = now + std::chrono::seconds(1);
    }
}

void FreshReads::store(const Part& part, const GatewayClient::Reply& reply, Duration now)
{
    const Variable& variable = m_project.variables.at(part.variable);
    const CipType& type = cipTypeNamed(reply.first().at("type").text());
    QByteArray bytes;
    for (const JsonNode& message : reply) {
        for (const JsonNode& element : message.at("elements").elements())
            bytes += bytesOf(QString::fromStdString(element.text()), "elements");
    }
    const QString problem = typeProblem(variable, type);
    if (problem.isEmpty())
        m_values.store({variable.station, variable.tag}, part.element, type, bytes, now);
    else
        m_values.setError(part.variable, problem);
}

} // namespace micro850::host
