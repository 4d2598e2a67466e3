#include "NodeWriter.h"

namespace micro850::gateway::sparkplug {

namespace {

const int kSeqs = 256;

} // namespace

bool NodeWriter::publish(const char* type, const QByteArray& device, const QVector<Metric>& metrics)
{
    const int seq = qstrcmp(type, "NBIRTH") == 0 ? 0 : m_seq;
    Payload payload;
    payload.timestamp = static_cast<quint64>(m_clock.now());
    payload.seq = static_cast<quint64>(seq);
    payload.metrics = metrics;
    MqttMessage message;
    message.topic = topicOf(m_settings, type, device);
    message.payload = encoded(payload);
    message.qos = 0;
    if (!m_link.publish(message))
        return false;
    m_seq = (seq + 1) % kSeqs;
    ++m_messages;
    return true;
}

MqttMessage NodeWriter::death(int bdSeq) const
{
    MqttMessage message;
    message.topic = topicOf(m_settings, "NDEATH");
    message.payload = encoded(nodeDeath(bdSeq, m_clock.now()));
    message.qos = 1;
    return message;
}

} // namespace micro850::gateway::sparkplug
