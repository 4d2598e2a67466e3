#include "OrderDesk.h"

#include "UserError.h"
#include "VisibleText.h"

namespace micro850::gateway::sparkplug {

namespace {

using host::Json;

/// Why a command is refused.
struct Refusal
{
    const char* kind;
    std::string text;
};

std::string shownName(const Metric& metric)
{
    return metric.name.isEmpty() && metric.alias ? "alias " + std::to_string(*metric.alias)
                                                 : inQuotes(metric.name.toStdString());
}

// By its alias, by its name, or by both when they agree.
const VariableMetric& variableOf(const NodeModel& model, const Device& device, const Metric& metric)
{
    const VariableMetric* byName = model.metric(device, metric.name);
    const VariableMetric* byAlias = metric.alias ? model.metric(*metric.alias) : nullptr;
    const bool agree = metric.name.isEmpty() || !metric.alias || byName == byAlias;
    const VariableMetric* found = metric.alias ? byAlias : byName;
    if (!found || !agree || found->device != &device)
        throw Refusal{"an unknown metric", device.id.toStdString() + " has no metric " +
                                               shownName(metric) +
                                               (agree ? "" : " with the alias it came with")};
    if (!found->type)
        throw Refusal{"an unknown metric",
                      shownName(metric) + ": its type is not known before it was read once"};
    return *found;
}

void requireLimits(const VariableMetric& metric, const QVector<Json>& values)
{
    const CatalogueVariable& variable = metric.variable;
    for (const Json& value : values) {
        const double number = value.is_number() ? value.get<double>() : 0;
        if (value.is_number() && ((variable.minimum && number < *variable.minimum) ||
                                  (variable.maximum && number > *variable.maximum)))
            throw Refusal{"a value outside of its limits",
                          metric.name.toStdString() + ": " + value.dump() +
                              " is outside of its limits, so that no element is written"};
    }
}

void appendOrders(std::deque<Order>& orders, const VariableMetric& variable, const Metric& metric)
{
    QVector<Json> values;
    try {
        values =
            orderedValues(metric, variable.dataType(), *variable.type, variable.variable.length);
    } catch (const UserError& error) {
        throw Refusal{"a value of another type", variable.name.toStdString() + ": " + error.what()};
    }
    // The service sees one element at a time.
    if (values.size() > 1)
        requireLimits(variable, values);
    for (int i = 0; i < values.size(); ++i)
        orders.push_back({variable.variable.line, variable.variable.name, i, values.at(i)});
}

} // namespace

OrderDesk::OrderDesk(PublisherNeeds& needs, int maximumAgeMs)
    : m_needs(needs), m_maximumAge(std::chrono::milliseconds(maximumAgeMs)),
      m_self(std::make_shared<OrderDesk*>(this))
{
}

void OrderDesk::refuse(const QString& kind, const QString& text)
{
    ++m_state.refused;
    m_needs.warn(kind, QStringLiteral("a command is refused: ") + text);
}

std::deque<Order> OrderDesk::ordersOf(const NodeModel& model, const Device& device,
                                      const QByteArray& bytes) const
{
    const std::optional<Payload> payload = decoded(bytes);
    if (!payload)
        throw Refusal{"a malformed command",
                      bytes.size() > kLongestCommand
                          ? "its payload has " + std::to_string(bytes.size()) + " bytes (at most " +
                                std::to_string(kLongestCommand) + ")"
                          : "its payload is not one of Sparkplug B"};
    const qint64 ageMs = payload->timestamp
                             ? m_needs.wallClock().now() - static_cast<qint64>(*payload->timestamp)
                             : 0;
    if (ageMs > wholeMilliseconds(m_maximumAge))
        throw Refusal{"a late command", "it is " + std::to_string(ageMs) + " ms old (at most " +
                                            std::to_string(wholeMilliseconds(m_maximumAge)) +
                                            "; are the clocks of host and gateway set?)"};
    if (payload->metrics.isEmpty())
        throw Refusal{"a malformed command", "it has no metric"};
    std::deque<Order> orders;
    for (const Metric& metric : payload->metrics) {
        appendOrders(orders, variableOf(model, device, metric), metric);
        if (orders.size() > kMostOrders)
            throw Refusal{"a malformed command",
                          "it orders more than " + std::to_string(kMostOrders) + " values"};
    }
    return orders;
}

void OrderDesk::take(const NodeModel& model, const Device& device, const QByteArray& payload)
{
    try {
        if (m_state.commands.size() >= kMostCommands)
            throw Refusal{"too many commands",
                          std::to_string(kMostCommands) + " commands wait already"};
        Command command;
        command.orders = ordersOf(model, device, payload);
        command.came = m_needs.clock().now();
        const int number = ++m_state.lastNumber;
        m_state.commands.insert(number, command);
        proceed(number);
    } catch (const Refusal& refusal) {
        refuse(QString::fromLatin1(refusal.kind), QString::fromStdString(refusal.text));
    }
}

void OrderDesk::proceed(int number)
{
    Command& command = m_state.commands[number];
    if (command.orders.empty()) {
        m_state.commands.remove(number);
        return;
    }
    if (m_needs.clock().now() - command.came > m_maximumAge) {
        const std::size_t left = command.orders.size();
        m_state.commands.remove(number);
        refuse(QStringLiteral("a late command"),
               QStringLiteral("the orders before took too long, so that %1 values are not written")
                   .arg(left));
        return;
    }
    const Order order = command.orders.front();
    command.orders.pop_front();
    m_needs.write(order, [number, order, self = std::weak_ptr(m_self)](const Json& reply) {
        if (const auto desk = self.lock())
            (*desk)->handleReply(number, order, reply);
    });
}

void OrderDesk::handleReply(int number, const Order& order, const Json& reply)
{
    const auto error = reply.find("error");
    if (error == reply.end()) {
        ++m_state.written;
        proceed(number);
        return;
    }
    const std::size_t left = m_state.commands.take(number).orders.size();
    const auto text = error->is_object() ? error->find("text") : error->end();
    const std::string reason = error->is_object() && text != error->end() && text->is_string()
                                   ? text->get<std::string>()
                                   : error->dump();
    const QString rest = left == 0
                             ? QString()
                             : QStringLiteral(", and %1 values after it are not written").arg(left);
    refuse(QStringLiteral("a write that the service refuses"),
           order.line + QLatin1Char('/') + order.name + QStringLiteral(": ") +
               QString::fromStdString(reason) + rest);
}

Json OrderDesk::status() const
{
    return {{"written", m_state.written},
            {"refused", m_state.refused},
            {"waiting", m_state.commands.size()}};
}

} // namespace micro850::gateway::sparkplug
