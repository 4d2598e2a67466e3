#include "Session.h"

#include "Message.h"

#include <algorithm>
#include <exception>

namespace micro850::gateway::sparkplug {

namespace {

using host::GatewayValue;
using host::Json;
using host::Quality;

// Values of a message: a broker can limit its size.
const int kMostInBatch = 200;
const int kEnoughBytes = 32 * 1024;
// Types become known one after the other when a station is read for the first time: one birth tells
// them all.
const std::chrono::milliseconds kGatherTypes(250);
const std::size_t kMostWaiting = 1000;
// The last values of a station that dies are told before its death.
const std::chrono::milliseconds kLastValues(500);
const std::chrono::seconds kAfterHistory(2);
const int kMostPings = 4;

// Nothing for a row that is no value: the file was damaged.
std::optional<GatewayValue> valueIn(const QByteArray& body)
{
    try {
        return host::gatewayValueOf(Json::parse(body.constData(), body.constData() + body.size()));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

QString textIn(const Json& object, const char* key)
{
    const auto found = object.find(key);
    return found != object.end() && found->is_string()
               ? QString::fromStdString(found->get<std::string>())
               : QString();
}

void dropBatch(Device& device)
{
    device.batch.clear();
    device.batchIds.clear();
    device.batchBytes = 0;
}

void clearSessionOf(Device& device)
{
    dropBatch(device);
    device.isBorn = false;
    device.isForHistory = false;
    device.birthDue.reset();
    device.deathDue.reset();
    device.waiting.clear();
    for (const auto& metric : device.metrics)
        metric->born.reset();
}

} // namespace

void Session::setModel(NodeModel model)
{
    if (isOpen()) {
        for (const auto& device : m_model.devices()) {
            if (device->isBorn && !model.device(device->line, device->station))
                kill(*device);
        }
    }
    if (isBegun()) {
        // Rows that wait for a message are offered again.
        if (m_flows)
            m_needs.flow().end();
        m_flows = false;
        m_stage = Stage::Node;
    }
    model.inherit(m_model);
    m_model = std::move(model);
}

void Session::begin(int bdSeq)
{
    m_bdSeq = bdSeq;
    if (m_flows)
        m_needs.flow().end();
    m_flows = false;
    m_stage = Stage::Node;
}

// Their births are not told again, which does not tell that they are gone.
bool Session::buryUnconnected()
{
    for (const auto& device : m_model.devices()) {
        dropBatch(*device);
        if (device->isBorn && !device->isConnected && !kill(*device))
            return false;
    }
    return true;
}

void Session::end()
{
    if (m_flows)
        m_needs.flow().end();
    m_flows = false;
    clearSession();
    m_sent.clear();
    m_pinged.clear();
    m_stage = Stage::Ended;
}

void Session::clearSession()
{
    for (const auto& device : m_model.devices())
        clearSessionOf(*device);
}

void Session::learnLatest()
{
    m_needs.flow().visitLatest([this](const QueuedMessage& message) {
        VariableMetric* metric = m_model.metric(message.line, message.name);
        const std::optional<GatewayValue> value =
            metric ? valueIn(message.body) : std::optional<GatewayValue>();
        if (value)
            learn(*metric, message, *value);
    });
}

bool Session::proceed()
{
    if (m_stage == Stage::Node) {
        if (!buryUnconnected())
            return false;
        clearSession();
        learnLatest();
        if (!m_writer.publish("NBIRTH", QByteArray(),
                              nodeBirth(m_model.states(), m_bdSeq, m_writer.now())))
            return false;
        ++m_births;
        m_nextDevice = 0;
        m_stage = Stage::Devices;
    }
    while (m_stage == Stage::Devices && m_nextDevice < m_model.devices().size()) {
        Device& device = *m_model.devices()[m_nextDevice];
        if (device.isConnected && !device.isBorn && !bear(device))
            return false;
        ++m_nextDevice;
    }
    if (m_stage == Stage::Devices) {
        m_stage = Stage::Open;
        m_flows = true;
        m_needs.flow().begin(*this);
    }
    return m_stage == Stage::Open;
}

// Everything that is known of it. A birth of a device that is born replaces the earlier one.
bool Session::bear(Device& device)
{
    if (!flush(device) ||
        !m_writer.publish("DBIRTH", device.id, deviceBirth(device, m_writer.now())))
        return false;
    ++m_births;
    device.isBorn = true;
    device.birthDue.reset();
    for (const auto& metric : device.metrics) {
        metric->born.reset();
        if (metric->type)
            metric->born =
                VariableMetric::Born{metric->dataType(), metric->latestId, metric->latestOrder};
        metric->toldGood = device.isConnected && metric->latest.quality == Quality::Good;
    }
    return true;
}

bool Session::kill(Device& device)
{
    if (!flush(device) || !m_writer.publish("DDEATH", device.id, {}))
        return false;
    ++m_deaths;
    device.isBorn = false;
    device.isForHistory = false;
    device.deathDue.reset();
    return true;
}

bool Session::flush(Device& device)
{
    if (device.batch.isEmpty())
        return true;
    if (!m_writer.publish("DDATA", device.id, device.batch))
        return false;
    m_sent += device.batchIds;
    dropBatch(device);
    return true;
}

void Session::ask()
{
    if (m_sent.isEmpty())
        return;
    m_pinged.insert(++m_pings, m_sent);
    m_sent.clear();
    m_writer.link().ping(m_pings);
}

void Session::leave()
{
    for (const auto& device : m_model.devices()) {
        if (isOpen())
            flush(*device);
    }
    ask();
    m_stage = Stage::Ended;
}

void Session::setState(const DeliveryEvent& event)
{
    if (event.isNotice)
        return;
    if (StateMetrics* state = m_model.state(event.line, event.station)) {
        state->isKnown = true;
        state->state = event.state;
        state->text = event.text;
        state->time = event.time;
    }
    if (event.station >= 0) {
        if (Device* device = m_model.device(event.line, event.station))
            setConnected(*device, event.state == QLatin1String("connected"));
        return;
    }
    if (event.state == QLatin1String("up"))
        return; // its stations are told one by one
    for (const auto& device : m_model.devices()) {
        if (device->line == event.line)
            setConnected(*device, false);
    }
}

void Session::setConnected(Device& device, bool isConnected)
{
    if (device.isConnected && !isConnected)
        device.deathDue = m_needs.clock().now() + kLastValues;
    if (isConnected) {
        device.deathDue.reset();
        device.isForHistory = false;
    }
    device.isConnected = isConnected;
}

bool Session::send(const QueuedMessage& message, Delivery delivery)
{
    if (!isOpen())
        return false;
    if (message.name.isEmpty())
        return sendEvent(message, delivery);
    VariableMetric* metric = m_model.metric(message.line, message.name);
    const std::optional<GatewayValue> value = valueIn(message.body);
    if (metric && value)
        return sendValue(*metric, message, *value, delivery);
    ++m_dropped;
    if (metric)
        m_needs.warn(QStringLiteral("a damaged value"),
                     QStringLiteral("a value of %1 in the queue is damaged: it is dropped")
                         .arg(message.name));
    else
        m_needs.warn(QStringLiteral("a value without a variable"),
                     QStringLiteral("a value of %1 waited: it is dropped, because the "
                                    "configuration has no such variable any more")
                         .arg(message.name));
    m_sent.append(message.id);
    return true;
}

// The births told what the states are. What was queued tells what they were.
bool Session::sendEvent(const QueuedMessage& message, Delivery delivery)
{
    StateMetrics* state = m_model.state(message.line, message.station);
    const Json body = Json::parse(message.body.constData(),
                                  message.body.constData() + message.body.size(), nullptr, false);
    const bool isState = body.is_object() && !body.contains("notice");
    if (state && isState) {
        const bool isHistorical = delivery == Delivery::History || message.time < state->time;
        const QVector<Metric> metrics =
            dataOf(*state, textIn(body, "state"), textIn(body, "text"), isHistorical, message.time);
        if (!m_writer.publish("NDATA", QByteArray(), metrics))
            return false;
    }
    m_sent.append(message.id);
    return true;
}

// The latest of what is known.
void Session::learn(VariableMetric& metric, const QueuedMessage& message, const GatewayValue& value)
{
    metric.latest = value;
    metric.latestTime = message.time;
    ++metric.latestOrder;
    metric.latestId = message.id;
    if (value.type)
        metric.type = value.type;
}

bool Session::sendValue(VariableMetric& metric, const QueuedMessage& message,
                        const GatewayValue& value, Delivery delivery)
{
    Device& device = *metric.device;
    const bool isHistory = delivery == Delivery::History;
    if (!isHistory)
        learn(metric, message, value);
    if (!metric.type)
        metric.type = value.type;
    const bool hasNewType = metric.born && metric.born->type != metric.dataType();
    const bool isMissing = !metric.born && metric.type;
    if (device.isBorn && !device.birthDue && (isMissing || (hasNewType && !isHistory)))
        device.birthDue = m_needs.clock().now() + kGatherTypes;
    const WaitingValue told{message, delivery, metric.latestOrder};
    if (!device.birthDue && device.waiting.empty())
        return tell(metric, told, value);
    if (device.waiting.size() >= kMostWaiting)
        return false;
    device.waiting.push_back(told);
    return true;
}

bool Session::tell(VariableMetric& metric, const WaitingValue& told, const GatewayValue& value)
{
    Device& device = *metric.device;
    const auto isTold = [&] {
        return device.isBorn && metric.born && metric.born->id == told.message.id;
    };
    // A station that does not answer has no fresh value: that is told by its death.
    const bool isImplied = !device.isBorn && !device.isConnected &&
                           told.delivery != Delivery::History &&
                           (told.delivery == Delivery::Repeated || value.quality != Quality::Good);
    // What has no type has no value.
    const bool isNothing = !metric.type;
    if (!isTold() && !isImplied && !isNothing && !device.isBorn) {
        device.isForHistory = !device.isConnected;
        device.lastHistory = m_needs.clock().now();
        if (!bear(device))
            return false;
    }
    if (!isTold() && !isImplied && !isNothing)
        return append(metric, told, value);
    m_sent.append(told.message.id);
    return true;
}

bool Session::append(VariableMetric& metric, const WaitingValue& told, const GatewayValue& value)
{
    Device& device = *metric.device;
    if ((device.batch.size() >= kMostInBatch || device.batchBytes >= kEnoughBytes) &&
        !flush(device))
        return false;
    const bool isHistorical = told.delivery == Delivery::History || device.isForHistory ||
                              (metric.born && told.order < metric.born->order);
    device.batch.append(dataOf(metric, value, isHistorical, told.message.time));
    device.batchIds.append(told.message.id);
    device.batchBytes += told.message.body.size();
    device.lastHistory = m_needs.clock().now();
    if (!isHistorical)
        metric.toldGood = value.quality == Quality::Good;
    return true;
}

void Session::tick()
{
    if (!isOpen())
        return;
    for (const auto& device : m_model.devices())
        tend(*device);
    if (m_pinged.size() < kMostPings)
        ask();
}

void Session::tend(Device& device)
{
    const Duration now = m_needs.clock().now();
    if (device.isConnected && !device.isBorn && !bear(device))
        return;
    if (device.birthDue && now >= *device.birthDue) {
        if (device.isBorn && !bear(device))
            return;
        device.birthDue.reset();
    }
    if (!device.birthDue)
        tellWaiting(device);
    if (!flush(device) || !device.isBorn || device.isConnected)
        return;
    if (device.isForHistory ? now >= device.lastHistory + kAfterHistory
                            : device.deathDue && now >= *device.deathDue)
        kill(device);
}

void Session::tellWaiting(Device& device)
{
    while (!device.waiting.empty()) {
        const WaitingValue first = device.waiting.front();
        VariableMetric* metric = m_model.metric(first.message.line, first.message.name);
        const std::optional<GatewayValue> value = valueIn(first.message.body);
        if (metric && value && !tell(*metric, first, *value))
            return;
        device.waiting.pop_front();
    }
}

void Session::handlePong(int number)
{
    while (!m_pinged.isEmpty() && m_pinged.firstKey() <= number) {
        const QVector<qint64> ids = m_pinged.take(m_pinged.firstKey());
        for (const qint64 id : ids)
            m_needs.flow().acknowledge(id);
    }
}

Json Session::status() const
{
    int born = 0;
    for (const auto& device : m_model.devices())
        born += device->isBorn ? 1 : 0;
    return {{"devices", m_model.devices().size()},
            {"born", born},
            {"births", m_births},
            {"deaths", m_deaths},
            {"messages", m_writer.messages()},
            {"dropped", m_dropped}};
}

} // namespace micro850::gateway::sparkplug
