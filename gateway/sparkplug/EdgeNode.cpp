#include "EdgeNode.h"

#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QRandomGenerator>

namespace micro850::gateway::sparkplug {

namespace {

const int kBdSeqs = 256;
const char* const kKeptBdSeq = "bdSeq";
// A host that asks for births again and again gets one a second.
const std::chrono::seconds kBetweenBirths(1);

} // namespace

EdgeNode::EdgeNode(const SparkplugSettings& settings, PublisherNeeds& needs, Link& link)
    : m_settings(settings), m_needs(needs), m_link(link),
      m_writer(settings, link, needs.wallClock()), m_session(m_writer, needs),
      m_orders(needs, settings.maximumAgeMs), m_host(settings.primaryHost)
{
}

void EdgeNode::setCatalogue(const Catalogue& catalogue)
{
    const std::string text =
        jsonOf(catalogue).dump(-1, ' ', false, host::Json::error_handler_t::replace);
    if (text == m_catalogue)
        return;
    m_catalogue = text;
    NodeModel model(catalogue);
    const QString alike = model.namesAlike();
    if (!alike.isEmpty())
        m_needs.warn(QStringLiteral("names that are alike"),
                     QStringLiteral("%1 differ only in upper and lower case, which some hosts take "
                                    "for one: rename one of them")
                         .arg(alike));
    m_session.setModel(std::move(model));
}

MqttMessage EdgeNode::will()
{
    const QString last = m_needs.queue().kept(QLatin1String(kKeptBdSeq));
    m_bdSeq = last.isEmpty() ? 0 : (last.toInt() + 1) % kBdSeqs;
    m_needs.queue().keep(QLatin1String(kKeptBdSeq), QString::number(m_bdSeq));
    return m_writer.death(m_bdSeq);
}

// Without names of devices: those of a new configuration are among them.
QByteArray EdgeNode::subscribedDevices() const
{
    return topicOf(m_settings, "DCMD") + "/+";
}

void EdgeNode::handleConnected()
{
    m_isConnected = true;
    m_host.forget();
    m_link.subscribe(topicOf(m_settings, "NCMD"));
    if (m_settings.takesOrders)
        m_link.subscribe(subscribedDevices());
    if (m_settings.primaryHost.isEmpty()) {
        becomeReady();
        return;
    }
    m_link.subscribe(m_host.topic());
    m_needs.note(QStringLiteral("waiting for the primary host %1").arg(m_settings.primaryHost));
}

bool EdgeNode::isWaitingForHost() const
{
    return !m_settings.primaryHost.isEmpty() && !m_host.isOnline();
}

// A hall of panels does not tell its births at once.
void EdgeNode::becomeReady()
{
    const int spread = m_settings.broker.spreadMs > 0
                           ? QRandomGenerator::global()->bounded(m_settings.broker.spreadMs + 1)
                           : 0;
    m_birthDue = m_needs.clock().now() + std::chrono::milliseconds(spread);
}

void EdgeNode::handleDisconnected()
{
    m_isConnected = false;
    m_birthDue.reset();
    m_host.forget();
    m_session.end();
}

void EdgeNode::handleMessage(const MqttMessage& message)
{
    if (!m_isConnected)
        return;
    if (!m_settings.primaryHost.isEmpty() && message.topic == m_host.topic()) {
        handleHost(message.payload);
        return;
    }
    const bool isDevice = message.topic.startsWith(topicOf(m_settings, "DCMD") + '/');
    if (message.isRetained)
        m_orders.refuse(QStringLiteral("a retained command"),
                        QStringLiteral("it was retained, so that nobody knows when it was given"));
    else if (message.isCut)
        m_orders.refuse(QStringLiteral("a malformed command"),
                        QStringLiteral("its payload has more than %1 bytes").arg(kLongestCommand));
    else if (isDevice && m_settings.takesOrders)
        handleDeviceCommand(message);
    else if (message.topic == topicOf(m_settings, "NCMD"))
        handleNodeCommand(message.payload);
}

void EdgeNode::handleHost(const QByteArray& payload)
{
    const QString& host = m_settings.primaryHost;
    switch (m_host.take(payload)) {
    case HostState::News::Online:
        m_needs.note(QStringLiteral("the primary host %1 is online").arg(host));
        becomeReady();
        break;
    case HostState::News::Offline:
        m_needs.note(QStringLiteral("the primary host %1 is offline").arg(host));
        m_birthDue.reset();
        if (m_session.hasToldNode()) {
            die();
            m_link.reconnect(QStringLiteral("the primary host %1 is offline").arg(host));
        } else {
            m_session.end();
        }
        break;
    case HostState::News::Outdated:
        m_needs.warn(QStringLiteral("an outdated state"),
                     QStringLiteral("a state of the primary host %1 is older than the one before: "
                                    "it is ignored")
                         .arg(host));
        break;
    case HostState::News::Malformed:
        m_needs.warn(QStringLiteral("a malformed state"),
                     QStringLiteral("a state of the primary host %1 is not an object with "
                                    "\"online\" and \"timestamp\": it is ignored")
                         .arg(host));
        break;
    case HostState::News::None:
        break;
    }
}

void EdgeNode::handleNodeCommand(const QByteArray& bytes)
{
    const std::optional<Payload> payload = decoded(bytes);
    if (!payload) {
        m_orders.refuse(QStringLiteral("a malformed command"),
                        QStringLiteral("the payload of one for the node is not one of Sparkplug B, "
                                       "or has more than %1 bytes")
                            .arg(kLongestCommand));
        return;
    }
    for (const Metric& metric : payload->metrics) {
        const auto* value = std::get_if<bool>(&metric.value);
        if (metric.name != kRebirth) {
            m_orders.refuse(QStringLiteral("an unknown metric"),
                            QStringLiteral("the node takes no %1")
                                .arg(QString::fromStdString(inQuotes(metric.name.toStdString()))));
        } else if (!value || metric.isNull) {
            m_orders.refuse(QStringLiteral("a value of another type"),
                            QStringLiteral("%1 is true or false").arg(QLatin1String(kRebirth)));
        } else if (*value && m_session.isBegun()) {
            const Duration now = m_needs.clock().now();
            m_birthDue = m_rebornAt ? std::max(now, *m_rebornAt + kBetweenBirths) : now;
            ++m_rebirths;
        }
    }
    tick();
}

void EdgeNode::handleDeviceCommand(const MqttMessage& message)
{
    const QByteArray id = message.topic.mid(topicOf(m_settings, "DCMD").size() + 1);
    const Device* device = m_session.model().device(id);
    if (device)
        m_orders.take(m_session.model(), *device, message.payload, message.waited);
    else
        m_orders.refuse(QStringLiteral("an unknown device"),
                        QStringLiteral("there is no device %1")
                            .arg(QString::fromStdString(inQuotes(id.toStdString()))));
}

void EdgeNode::tick()
{
    if (!m_isConnected)
        return;
    const Duration now = m_needs.clock().now();
    if (m_birthDue && now >= *m_birthDue && !isWaitingForHost()) {
        m_birthDue.reset();
        m_rebornAt = now;
        m_session.begin(m_bdSeq);
    }
    if (m_session.isBegun() && m_session.proceed())
        m_session.tick();
}

void EdgeNode::die()
{
    m_session.leave();
    m_writer.publishDeath(m_bdSeq);
    m_birthDue.reset();
    m_isConnected = false;
}

void EdgeNode::stop()
{
    if (m_isConnected)
        die();
}

host::Json EdgeNode::status() const
{
    const char* state = !m_isConnected        ? "not connected"
                        : isWaitingForHost()  ? "waiting for the primary host"
                        : !m_session.isOpen() ? "announcing"
                                              : "online";
    host::Json status = {{"state", state}, {"bdSeq", m_bdSeq}, {"rebirths", m_rebirths}};
    status.update(m_session.status());
    if (m_settings.takesOrders)
        status["orders"] = m_orders.status();
    return status;
}

} // namespace micro850::gateway::sparkplug
