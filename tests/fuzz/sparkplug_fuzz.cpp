// What a peer of the broker sends to an edge node of Sparkplug B: the first byte tells whether it
// is a command for a device (d) or the state of the primary host (s). Whatever comes, only orders
// that the variables allow are passed on, all of a command or none.

#include "HostState.h"
#include "OrderDesk.h"
#include "UserError.h"
#include "fuzz_check.h"

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace {

using namespace micro850;
using namespace micro850::gateway;
using namespace micro850::gateway::sparkplug;
using host::Json;

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
    void warn(const QString& kind, const QString&) override { warnings.append(kind); }
    void note(const QString&) override {}

    QVector<Order> orders;
    QStringList warnings;

private:
    VirtualClock m_clock;
    SettableWallClock m_wallClock{1795352400000};
};

CatalogueVariable variable(const char* name, const char* type, int length = 1)
{
    CatalogueVariable variable;
    variable.line = QStringLiteral("press");
    variable.name = QString::fromUtf8(name);
    variable.type = &cipTypeNamed(type);
    variable.length = length;
    return variable;
}

NodeModel model()
{
    Catalogue catalogue;
    catalogue.lines = QStringList{QStringLiteral("press")};
    catalogue.variables = {
        variable("Byte", "SINT"), variable("Level", "INT"),   variable("Total", "ULINT"),
        variable("Heat", "REAL"), variable("Run", "BOOL"),    variable("Text", "SHORT_STRING"),
        variable("Day", "DATE"),  variable("List", "INT", 3), variable("Flags", "BOOL", 9)};
    catalogue.variables[7].minimum = 0;
    return NodeModel(catalogue);
}

bool isAllowed(const Order& order)
{
    const QString& name = order.name;
    const Json& value = order.value;
    if (name == QLatin1String("Byte"))
        return value.is_number_integer() && value >= -128 && value <= 127;
    if (name == QLatin1String("Level"))
        return value.is_number_integer() && value >= -32768 && value <= 32767;
    if (name == QLatin1String("Total"))
        return value.is_number_unsigned();
    if (name == QLatin1String("Heat"))
        return value.is_number() && std::isfinite(value.get<double>());
    if (name == QLatin1String("Run"))
        return value.is_boolean();
    if (name == QLatin1String("Text"))
        return value.is_string() && value.dump().size() >= 2; // throws for what is not UTF-8
    if (name == QLatin1String("Day"))
        return value.is_string() && value.get<std::string>().size() == 10;
    if (name == QLatin1String("List"))
        return value.is_number_integer() && value >= 0 && value <= 32767;
    return name == QLatin1String("Flags") && value.is_boolean();
}

void checkCommand(const QByteArray& bytes)
{
    static const NodeModel node = model();
    Needs needs;
    OrderDesk desk(needs, 10000);
    desk.take(node, *node.device(QByteArray("press-1")), bytes, Duration(0));
    FUZZ_CHECK(needs.warnings.size() <= 1);
    FUZZ_CHECK(needs.orders.isEmpty() != needs.warnings.isEmpty());
    for (const Order& order : needs.orders)
        FUZZ_CHECK(order.line == QLatin1String("press") && isAllowed(order));
    const auto payload = decoded(bytes);
    FUZZ_CHECK(payload || needs.orders.isEmpty());
    if (!payload)
        return;
    const QByteArray once = encoded(*payload);
    const auto again = decoded(once);
    FUZZ_CHECK(once.size() > kLongestCommand || (again && encoded(*again) == once));
}

void checkHost(const QByteArray& payload)
{
    HostState host(QStringLiteral("scada"));
    FUZZ_CHECK(host.take(R"({"online":true,"timestamp":1000})") == HostState::News::Online);
    const HostState::News news = host.take(payload);
    FUZZ_CHECK(host.isOnline() == (news != HostState::News::Offline));
    FUZZ_CHECK(news != HostState::News::Online);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(bytes), static_cast<int>(size));
    if (input.startsWith('s'))
        checkHost(input.mid(1));
    else if (input.startsWith('d'))
        checkCommand(input.mid(1));
    return 0;
}
