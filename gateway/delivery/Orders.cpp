#include "Orders.h"

#include "JsonMessages.h"
#include "Message.h"
#include "Protocol.h"
#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QCryptographicHash>

#include <algorithm>
#include <utility>

namespace micro850::gateway {

namespace {

using host::Json;
namespace errorcode = host::errorcode;

const char kExpired[] = "expired";
const char kWaitedTooLong[] = "it waited too long for the line";
const char kReadTooLate[] = "it waited too long until the gateway could read it";
const char kEnds[] = "the gateway ends or its settings change: send the order again";
const char kRetained[] = "retained";
const int kLongestId = 128;
const int kMostSenders = 16;

/// Why an order is not carried out.
class Refusal : public std::runtime_error
{
public:
    Refusal(const char* code, const std::string& text) : std::runtime_error(text), m_code(code) {}
    const char* code() const { return m_code; }

private:
    const char* m_code;
};

bool isUtf8(const QByteArray& text)
{
    return QString::fromUtf8(text).toUtf8() == text;
}

// Nothing but text that is no JSON.
std::optional<Json> bareValue(const QByteArray& payload, const char* name)
{
    try {
        return host::jsonOf(JsonNode::fromText(payload.toStdString(), name));
    } catch (const UserError&) {
        return std::nullopt;
    }
}

Json idIn(const JsonNode& order)
{
    if (!order.has("id"))
        return Json();
    const JsonNode node = order.at("id");
    const Json id = host::jsonOf(node);
    const bool isShort = id.is_string() && id.get<std::string>().size() <= kLongestId;
    if (!id.is_number() && !isShort)
        node.fail("an id is a number or a text of at most 128 bytes");
    return id;
}

// With or without milliseconds.
std::optional<qint64> timeOfText(QString text)
{
    const int kWholeSeconds = 20;
    if (text.size() == kWholeSeconds)
        text.insert(kWholeSeconds - 1, QStringLiteral(".000"));
    return host::timeOf(text);
}

std::optional<qint64> timeIn(const JsonNode& order)
{
    if (!order.has("time"))
        return std::nullopt;
    const JsonNode node = order.at("time");
    const Json time = host::jsonOf(node);
    const qint64 kLatest = 253402300799999; // the end of the year 9999
    std::optional<qint64> found;
    if (time.is_number_integer() && time >= 0 && time <= kLatest)
        found = time.get<qint64>();
    if (time.is_string())
        found = timeOfText(QString::fromStdString(time.get<std::string>()));
    if (!found)
        node.fail(node.found() + " is no time (use UTC such as \"2026-11-22T13:30:00.125Z\", or "
                                 "milliseconds since 1970)");
    return found;
}

OrderContent contentOf(const JsonNode& object, Json& id)
{
    OrderContent content;
    content.id = id = idIn(object);
    object.expectKeys({"value", "element", "id", "time"});
    content.value = host::jsonOf(object.at("value"));
    const int kLargest = 65535;
    if (object.has("element"))
        content.element = static_cast<int>(object.at("element").integer(0, kLargest));
    content.time = timeIn(object);
    return content;
}

// Which element is meant must be said: nobody writes the first of many by mistake.
int elementOf(const OrderContent& content, const CatalogueVariable& variable)
{
    if (!content.element && variable.length > 1) {
        const QByteArray last = QByteArray::number(variable.length - 1);
        throw UserError("the variable has " + std::to_string(variable.length) +
                        " elements and an order writes one: write {\"value\": ..., \"element\": "
                        "0}, with an element from 0 to " +
                        last.toStdString());
    }
    return content.element.value_or(0);
}

std::string secondsText(qint64 milliseconds)
{
    const double kMillisecondsOfSecond = 1000;
    return QString::number(static_cast<double>(milliseconds) / kMillisecondsOfSecond, 'f', 1)
               .toStdString() +
           " s";
}

// What the reply of the service means to who gave the order.
Json resultOf(const Json& reply)
{
    Json result = Json::object();
    const auto error = reply.find("error");
    if (error != reply.end() && error->is_object()) {
        result["outcome"] = error->value("code", "refused");
        result["text"] = error->value("text", "");
        // Nobody else takes an order back.
        if (result["outcome"] == errorcode::kCancelled) {
            result["outcome"] = kExpired;
            result["text"] = kWaitedTooLong;
        }
        return result;
    }
    for (const char* const key : {"outcome", "old", "value", "verified"}) {
        const auto found = reply.find(key);
        if (found != reply.end())
            result[key] = *found;
    }
    return result;
}

} // namespace

OrderContent OrderContent::parse(const QByteArray& payload, bool isText, Json& id)
{
    if (payload.size() > Orders::kLongestPayload)
        throw UserError("an order has at most " + std::to_string(Orders::kLongestPayload) +
                        " bytes, this one has " + std::to_string(payload.size()));
    const QByteArray trimmed = payload.trimmed();
    if (trimmed.isEmpty() && !(isText && !payload.isEmpty()))
        throw UserError("an empty message is no order");
    if (!isUtf8(payload))
        throw UserError("an order is text in UTF-8");
    if (trimmed.startsWith('{'))
        return contentOf(host::messageIn(trimmed, "order"), id);
    OrderContent content;
    const std::optional<Json> bare = bareValue(trimmed, "order");
    const bool isQuoted = trimmed.startsWith('"');
    if (isQuoted && !bare)
        throw UserError("order: " + inQuotes(trimmed.toStdString()) + " is no text of JSON");
    if (bare && (!isText || isQuoted))
        content.value = *bare;
    else
        content.value = (isText ? payload : trimmed).toStdString();
    return content;
}

Orders::Orders(const QString& prefix, int maximumAgeMs, PublisherNeeds& needs, FindVariable find,
               SendResult send)
    : m_topics(prefix), m_maximumAgeMs(maximumAgeMs), m_needs(needs), m_find(std::move(find)),
      m_send(std::move(send))
{
}

Orders::~Orders() = default;

void Orders::handle(const MqttMessage& message)
{
    const QByteArray topic = m_topics.valueOfOrder(message.topic);
    if (topic.isEmpty())
        return m_needs.warn(QStringLiteral("order: topic"),
                            "an order came to a topic that is none of ours: " +
                                QString::fromUtf8(message.topic.left(kLongestId)));
    if (message.isRetained && message.payload.isEmpty() && !message.isCut)
        return; // the broker is told to forget what it retained
    ++m_received;
    Sender sender;
    sender.topic = topic;
    sender.correlation = message.correlation;
    try {
        accept(message, topic, sender);
    } catch (const Refusal& refusal) {
        refuse(sender, QByteArray(), refusal.code(), refusal.what());
    } catch (const UserError& error) {
        refuse(sender, QByteArray(), errorcode::kBadRequest, error.what());
    }
}

// First what needs no look at the content: a retained order is nobody's order of now.
void Orders::accept(const MqttMessage& message, const QByteArray& topic, Sender& sender)
{
    const CatalogueVariable* const variable = m_find(topic);
    const bool isText = variable && variable->type && variable->type->kind == CipKind::String;
    std::optional<UserError> mistake;
    OrderContent content;
    try {
        if (message.isCut)
            throw UserError("an order has at most " + std::to_string(kLongestPayload) +
                            " bytes, this message was far longer");
        content = OrderContent::parse(message.payload, isText, sender.id);
    } catch (const UserError& error) {
        mistake = error;
    }
    if (message.isRetained)
        throw Refusal(kRetained, "it was retained, so that nobody knows when it was given (send it "
                                 "without the retain flag)");
    if (mistake)
        throw UserError(*mistake);
    if (!variable)
        throw Refusal(errorcode::kUnknownName, "no variable has this topic");
    sender.element = elementOf(content, *variable);
    if (message.expirySeconds && *message.expirySeconds == 0)
        throw Refusal(kExpired, "the expiry of the message is over");
    requireFresh(content);
    const Duration deadline = deadlineOf(message, content);
    if (m_needs.clock().now() > deadline)
        throw Refusal(kExpired, kReadTooLate);
    QByteArray identity;
    if (!content.id.is_null() && content.time)
        identity =
            QCryptographicHash::hash(topic + '\n' + message.payload, QCryptographicHash::Sha256);
    if (!identity.isEmpty() && isRepetition(identity, sender))
        return;
    if (m_waiting.size() >= kMostWaiting)
        throw Refusal(errorcode::kBusy, std::to_string(m_waiting.size()) + " orders wait already");
    if (!identity.isEmpty())
        remember(identity);
    m_waiting.push_back(
        {sender,
         {variable->line, variable->name, sender.element, content.value, 0, variable->station},
         identity,
         deadline});
    tick();
}

void Orders::requireFresh(const OrderContent& content) const
{
    if (!content.time)
        return;
    const qint64 now = m_needs.wallClock().now();
    const qint64 age = now - *content.time;
    const qint64 kEarliestPlausible = 100000000000; // in 1973; as seconds it would be in 5138
    const std::string times =
        " (its time is " + host::timeText(*content.time).toStdString() + ", here it is " +
        host::timeText(now).toStdString() +
        (*content.time < kEarliestPlausible ? ": is it in milliseconds since 1970?)" : ")");
    if (age > m_maximumAgeMs)
        throw Refusal(kExpired, "the order is " + secondsText(age) + " old, the limit is " +
                                    secondsText(m_maximumAgeMs) + times);
    if (age < -m_maximumAgeMs)
        throw Refusal(kExpired, "the order comes from the future: compare the clocks" + times);
}

Duration Orders::deadlineOf(const MqttMessage& message, const OrderContent& content) const
{
    Duration left = std::chrono::milliseconds(m_maximumAgeMs);
    if (message.expirySeconds)
        left = std::min<Duration>(left, std::chrono::seconds(*message.expirySeconds));
    left -= message.waited;
    if (content.time)
        left = std::min<Duration>(left, std::chrono::milliseconds(*content.time + m_maximumAgeMs -
                                                                  m_needs.wallClock().now()));
    return m_needs.clock().now() + left;
}

// A client that did not see its order arrive sends it again.
bool Orders::isRepetition(const QByteArray& identity, const Sender& sender)
{
    const auto found = m_remembered.find(identity);
    if (found == m_remembered.end())
        return false;
    if (!found->result.is_null())
        answer(sender, found->result);
    else if (found->others.size() < kMostSenders)
        found->others.append(sender);
    return true;
}

// An order that is older than the limit is refused anyway, so it need not be remembered longer. Its
// time may be ahead of ours.
void Orders::remember(const QByteArray& identity)
{
    while (m_rememberedOrder.size() >= kMostRemembered) {
        m_remembered.remove(m_rememberedOrder.front());
        m_rememberedOrder.pop_front();
    }
    Remembered remembered;
    remembered.until = m_needs.clock().now() + 2 * std::chrono::milliseconds(m_maximumAgeMs);
    m_remembered.insert(identity, remembered);
    m_rememberedOrder.push_back(identity);
}

void Orders::tick()
{
    const Duration now = m_needs.clock().now();
    while (!m_rememberedOrder.empty() && m_remembered.value(m_rememberedOrder.front()).until < now)
    {
        m_remembered.remove(m_rememberedOrder.front());
        m_rememberedOrder.pop_front();
    }
    std::deque<Waiting> all;
    all.swap(m_waiting);
    for (const Waiting& waiting : all) {
        if (now > waiting.deadline)
            refuse(waiting.sender, waiting.identity, kExpired, kWaitedTooLong);
        else if (m_underWay.value(waiting.order.line) < kMostUnderWay)
            pass(waiting);
        else
            m_waiting.push_back(waiting);
    }
}

void Orders::pass(const Waiting& waiting)
{
    const int number = ++m_lastPassed;
    m_passed.insert(number, waiting);
    ++m_underWay[waiting.order.line];
    Order order = waiting.order;
    order.withinMs =
        static_cast<int>(1 + wholeMilliseconds(waiting.deadline - m_needs.clock().now()));
    m_needs.write(order, [this, number, alive = std::weak_ptr<bool>(m_alive)](const Json& reply) {
        if (!alive.expired())
            takeReply(number, reply);
    });
}

void Orders::takeReply(int number, const Json& reply)
{
    const auto found = m_passed.find(number);
    if (found == m_passed.end())
        return;
    const Waiting passed = *found;
    m_passed.erase(found);
    if (--m_underWay[passed.order.line] <= 0)
        m_underWay.remove(passed.order.line);
    finish(passed.sender, passed.identity, resultOf(reply));
}

void Orders::end()
{
    for (const Waiting& waiting : std::exchange(m_waiting, {}))
        refuse(waiting.sender, waiting.identity, errorcode::kBusy, kEnds);
    for (const Waiting& passed : std::exchange(m_passed, {}))
        refuse(passed.sender, passed.identity, errorcode::kUnknownOutcome,
               "the gateway ends or its settings change before the line answered: read the value, "
               "or look into the journal of writes");
    m_underWay.clear();
}

void Orders::refuse(const Sender& sender, const QByteArray& identity, const char* code,
                    const std::string& text)
{
    finish(sender, identity, {{"outcome", code}, {"text", text}});
}

void Orders::finish(const Sender& sender, const QByteArray& identity, Json result)
{
    const QString outcome = QString::fromStdString(result.value("outcome", "refused"));
    ++m_outcomes[outcome];
    if (outcome != QLatin1String("written"))
        m_needs.warn("order: " + outcome, "an order to " + QString::fromUtf8(sender.topic) +
                                              " is not carried out: " +
                                              QString::fromStdString(result.value("text", "")));
    const auto found = m_remembered.find(identity);
    if (found != m_remembered.end()) {
        found->result = result;
        const QVector<Sender> others = std::exchange(found->others, {});
        for (const Sender& other : others)
            answer(other, result);
    }
    answer(sender, std::move(result));
}

// Only to the variable's own topic: a topic that the sender names could be that of an order.
void Orders::answer(const Sender& sender, Json result)
{
    result["element"] = sender.element;
    if (!sender.id.is_null())
        result["id"] = sender.id;
    result["time"] = host::timeText(m_needs.wallClock().now()).toStdString();
    MqttMessage message;
    message.topic = Topics::result(sender.topic);
    message.payload = textOf(result);
    message.correlation = sender.correlation;
    if (Topics::fits(sender.topic))
        m_send(message);
}

Json Orders::status() const
{
    Json outcomes = Json::object();
    for (auto outcome = m_outcomes.constBegin(); outcome != m_outcomes.constEnd(); ++outcome)
        outcomes[outcome.key().toStdString()] = outcome.value();
    return {{"received", m_received}, {"waiting", m_waiting.size()}, {"outcomes", outcomes}};
}

} // namespace micro850::gateway
