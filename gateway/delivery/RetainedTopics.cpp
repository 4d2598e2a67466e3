#include "RetainedTopics.h"

#include "Json.h"

#include <algorithm>

namespace micro850::gateway {

namespace {

using host::Json;

QList<QByteArray> sorted(const QSet<QByteArray>& topics)
{
    QList<QByteArray> list = topics.values();
    std::sort(list.begin(), list.end());
    return list;
}

} // namespace

RetainedTopics::RetainedTopics(const QString& kept)
{
    const Json topics = Json::parse(kept.toStdString(), nullptr, false);
    if (!topics.is_array())
        return;
    for (const Json& topic : topics) {
        if (topic.is_string())
            m_all.insert(QByteArray::fromStdString(topic.get<std::string>()));
    }
}

void RetainedTopics::setUsed(const QSet<QByteArray>& used)
{
    m_used = used;
    m_all.unite(used);
}

bool RetainedTopics::use(const QByteArray& topic)
{
    m_used.insert(topic);
    const bool isNew = !m_all.contains(topic);
    m_all.insert(topic);
    return isNew;
}

QList<QByteArray> RetainedTopics::obsolete() const
{
    return sorted(m_all - m_used);
}

void RetainedTopics::remove(const QByteArray& topic)
{
    if (!m_used.contains(topic))
        m_all.remove(topic);
}

QString RetainedTopics::text() const
{
    Json topics = Json::array();
    for (const QByteArray& topic : sorted(m_all))
        topics.push_back(topic.toStdString());
    return QString::fromStdString(topics.dump());
}

} // namespace micro850::gateway
