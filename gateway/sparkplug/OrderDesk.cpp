#include "OrderDesk.h"

#include "UserError.h"
#include "VisibleText.h"
#include "Writable.h"

#include <QtCore/QSet>

#include <algorithm>

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

void requireWritable(const VariableMetric& metric)
{
    if (!metric.variable.isWritable || !host::isWritable(*metric.type))
        throw Refusal{"a metric that is not writable",
                      metric.name.toStdString() + " is not writable, so that nothing is written"};
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
                              " is outside of its limits, so that nothing is written"};
    }
}

// The service sees one value at a time: what it would refuse of a later one is looked for before
// the first one is written.
void appendOrders(std::deque<Order>& orders, const VariableMetric& variable, const Metric& metric)
{
    if (metric.isHistorical)
        throw Refusal{"a historical value",
                      variable.name.toStdString() + ": a value of the past orders nothing"};
    requireWritable(variable);
    QVector<Json> values;
    try {
        values =
            orderedValues(metric, variable.dataType(), *variable.type, variable.variable.length);
    } catch (const UserError& error) {
        throw Refusal{"a value of another type", variable.name.toStdString() + ": " + error.what()};
    }
    requireLimits(variable, values);
    for (int i = 0; i < values.size(); ++i)
        orders.push_back({variable.variable.line, variable.variable.name, i, values.at(i), 0,
                          variable.variable.station});
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

OrderDesk::Command OrderDesk::commandOf(const NodeModel& model, const Device& device,
                                        const QByteArray& bytes) const
{
    const std::optional<Payload> payload = decoded(bytes);
    if (!payload)
        throw Refusal{"a malformed command",
                      bytes.size() > kLongestCommand
                          ? "its payload has " + std::to_string(bytes.size()) + " bytes (at most " +
                                std::to_string(kLongestCommand) + ")"
                          : "its payload is not one of Sparkplug B"};
    Command command;
    command.came = m_needs.clock().now() - ageOf(*payload);
    if (payload->metrics.isEmpty())
        throw Refusal{"a malformed command", "it has no metric"};
    QSet<const VariableMetric*> variables;
    for (const Metric& metric : payload->metrics) {
        const VariableMetric& variable = variableOf(model, device, metric);
        if (variables.contains(&variable))
            throw Refusal{"a malformed command",
                          variable.name.toStdString() +
                              " is in it twice, so that nobody knows which value is meant"};
        variables.insert(&variable);
        appendOrders(command.orders, variable, metric);
        if (command.orders.size() > kMostOrders)
            throw Refusal{"a malformed command",
                          "it orders more than " + std::to_string(kMostOrders) + " values"};
    }
    return command;
}

// Any number may come as the time.
Duration OrderDesk::ageOf(const Payload& payload) const
{
    std::optional<quint64> told = payload.timestamp;
    for (const Metric& metric : payload.metrics) {
        if (!payload.timestamp && metric.timestamp)
            told = told ? std::min(*told, *metric.timestamp) : *metric.timestamp;
    }
    if (!told)
        return Duration(0);
    const auto now = static_cast<quint64>(m_needs.wallClock().now());
    const auto most = static_cast<quint64>(wholeMilliseconds(m_maximumAge));
    const bool isAhead = *told > now;
    const quint64 differenceMs = isAhead ? *told - now : now - *told;
    if (differenceMs > most)
        throw Refusal{isAhead ? "a command of the future" : "a late command",
                      "its time is " + std::to_string(differenceMs) +
                          (isAhead ? " ms ahead" : " ms ago") + " (at most " +
                          std::to_string(most) + "; are the clocks of host and gateway set?)"};
    return isAhead ? Duration(0) : std::chrono::milliseconds(differenceMs);
}

void OrderDesk::take(const NodeModel& model, const Device& device, const QByteArray& payload,
                     Duration waited)
{
    try {
        if (m_state.commands.size() >= kMostCommands)
            throw Refusal{"too many commands",
                          std::to_string(kMostCommands) + " commands wait already"};
        Command command = commandOf(model, device, payload);
        command.came = std::min(command.came, m_needs.clock().now() - waited);
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
    const Duration age = m_needs.clock().now() - command.came;
    if (age > m_maximumAge) {
        const std::size_t count = command.orders.size();
        m_state.commands.remove(number);
        refuse(QStringLiteral("a late command"),
               QStringLiteral("it, or the orders before, waited too long, so that %1 values are "
                              "not written")
                   .arg(count));
        return;
    }
    Order order = command.orders.front();
    command.orders.pop_front();
    // Never 0, which is no limit.
    order.withinMs = static_cast<int>(wholeMilliseconds(m_maximumAge - age)) + 1;
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
