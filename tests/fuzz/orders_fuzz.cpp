// What a peer of the broker sends as an order: a byte of flags, the name of the variable up to a
// line feed, the payload. Whatever comes, each order has one result, on the topic of its variable
// alone; what is passed on is what the payload says; and no order is carried out without reason.

#include "Orders.h"
#include "fuzz_check.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace {

using namespace micro850;
using namespace micro850::gateway;
using host::Json;

const qint64 kNow = 1795352400000; // 2026-11-22T13:00:00Z
const int kMaximumAgeMs = 10000;
const int kElements = 20;

enum Flag { kRetained = 1, kHasExpiry = 2, kIsOver = 4, kTwice = 8 };

class Needs : public PublisherNeeds
{
public:
    const Clock& clock() const override { return m_clock; }
    const WallClock& wallClock() const override { return m_wallClock; }
    DeliveryFlow& flow() override { fuzz::fail(__FILE__, __LINE__, "flow"); }
    DeliveryQueue& queue() override { fuzz::fail(__FILE__, __LINE__, "queue"); }
    void write(const Order& order, const std::function<void(const Json& reply)>& answer) override
    {
        orders.append(order);
        answer({{"outcome", "written"}});
    }
    void warn(const QString&, const QString&) override { ++warnings; }
    void note(const QString&) override {}

    QVector<Order> orders;
    int warnings = 0;

private:
    VirtualClock m_clock;
    SettableWallClock m_wallClock{kNow};
};

CatalogueVariable variable(const char* name, const char* type, int length = 1)
{
    CatalogueVariable variable;
    variable.line = QStringLiteral("press");
    variable.name = QString::fromUtf8(name);
    variable.station = 1;
    variable.type = type ? &cipTypeNamed(type) : nullptr;
    variable.length = length;
    return variable;
}

const CatalogueVariable* find(const QByteArray& topic)
{
    static const Topics topics(QStringLiteral("p"));
    static const std::array<CatalogueVariable, 4> all = {
        variable("Level", "INT"), variable("Text", "STRING"), variable("List", "REAL", kElements),
        variable("a/b", nullptr)};
    for (const CatalogueVariable& each : all) {
        if (topic == topics.value(each.line, each.station, each.name))
            return &each;
    }
    return nullptr;
}

// The same bytes, read by the parser alone.
OrderContent contentOf(const MqttMessage& message, const CatalogueVariable& variable)
{
    Json id;
    const bool isText = variable.type && variable.type->kind == CipKind::String;
    return OrderContent::parse(message.payload, isText, id);
}

bool isToldApart(const MqttMessage& message, const CatalogueVariable& variable)
{
    const OrderContent content = contentOf(message, variable);
    return !content.id.is_null() && content.time;
}

void checkOrder(const Order& order, const MqttMessage& message, const CatalogueVariable& variable)
{
    const OrderContent content = contentOf(message, variable);
    FUZZ_CHECK(order.name == variable.name && order.station == variable.station);
    FUZZ_CHECK(order.value == content.value);
    FUZZ_CHECK(order.element == content.element.value_or(0));
    FUZZ_CHECK(content.element || variable.length == 1);
    FUZZ_CHECK(!content.time ||
               (*content.time >= kNow - kMaximumAgeMs && *content.time <= kNow + kMaximumAgeMs));
    FUZZ_CHECK(order.withinMs >= 1 && order.withinMs <= kMaximumAgeMs + 1);
    FUZZ_CHECK(!message.isRetained && !(message.expirySeconds && *message.expirySeconds == 0));
}

void checkResult(const MqttMessage& result, const MqttMessage& order, const QByteArray& topic)
{
    FUZZ_CHECK(result.topic == topic + "/result" && topic + "/set" == order.topic);
    FUZZ_CHECK(result.correlation == order.correlation && !result.isRetained);
    const Json content = Json::parse(result.payload.toStdString(), nullptr, false);
    FUZZ_CHECK(content.is_object() && content.value("outcome", Json()).is_string());
}

void check(const MqttMessage& message, bool isTwice)
{
    Needs needs;
    std::vector<MqttMessage> results;
    Orders orders("p", kMaximumAgeMs, needs, find,
                  [&results](const MqttMessage& result) { results.push_back(result); });
    orders.handle(message);
    orders.tick();
    const QByteArray topic = Topics(QStringLiteral("p")).valueOfOrder(message.topic);
    const bool isNone = topic.isEmpty() || (message.isRetained && message.payload.isEmpty());
    FUZZ_CHECK(results.size() == (isNone || !Topics::fits(topic) ? 0U : 1U));
    FUZZ_CHECK(needs.orders.size() <= 1);
    FUZZ_CHECK(needs.orders.isEmpty() == (needs.warnings > 0) || isNone);
    for (const MqttMessage& result : results)
        checkResult(result, message, topic);
    const CatalogueVariable* const found = find(topic);
    FUZZ_CHECK(found || needs.orders.isEmpty());
    for (const Order& order : std::as_const(needs.orders))
        checkOrder(order, message, *found);
    if (!isTwice || isNone)
        return;
    // Answered in the same way; one that can be told apart is carried out once.
    const int before = needs.orders.size();
    orders.handle(message);
    FUZZ_CHECK(results.size() != 2 || results[0].payload == results[1].payload);
    if (before == 0)
        FUZZ_CHECK(needs.orders.isEmpty());
    else
        FUZZ_CHECK(needs.orders.size() == (isToldApart(message, *found) ? 1 : 2));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(bytes), static_cast<int>(size));
    const int end = input.indexOf('\n');
    if (end < 1)
        return 0;
    const auto flags = static_cast<unsigned char>(input.at(0));
    MqttMessage message;
    message.topic = input.mid(1, end - 1);
    if (!message.topic.contains('/'))
        message.topic = "p/press/1/" + message.topic + "/set";
    message.payload = input.mid(end + 1);
    message.correlation = "c";
    message.isRetained = (flags & kRetained) != 0;
    if ((flags & kHasExpiry) != 0)
        message.expirySeconds = (flags & kIsOver) != 0 ? 0 : 1;
    check(message, (flags & kTwice) != 0);
    return 0;
}
