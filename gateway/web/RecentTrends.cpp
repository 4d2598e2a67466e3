#include "RecentTrends.h"

#include "JsonList.h"
#include "Problem.h"
#include "RequestKeys.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace micro850::gateway {

namespace {

const float kNone = std::numeric_limits<float>::quiet_NaN();
const int kDigits = 7; // of a float

// Nothing without a good number.
std::optional<double> numberOf(const GatewayValue& value)
{
    if (value.quality != host::Quality::Good)
        return std::nullopt;
    if (value.value.is_boolean())
        return value.value.get<bool>() ? 1 : 0;
    if (!value.value.is_number())
        return std::nullopt;
    return value.value.get<double>();
}

} // namespace

RecentTrends::RecentTrends(WebContext& context)
    : m_context(context), m_partEnds(context.clock.now() + std::chrono::milliseconds(kStepMs))
{
    const int kTickMs = 500;
    m_timer.setInterval(kTickMs);
    QObject::connect(&m_timer, &QTimer::timeout, [this] { proceed(); });
    m_timer.start();
    for (int number = 0; number < m_context.index.size(); ++number)
        addValue(number);
}

void RecentTrends::addRoutes(Router& router)
{
    router.add("GET", "/api/v1/trends",
               [this](const HttpExchangePointer& exchange, const Caller&) { answer(exchange); });
}

void RecentTrends::take(Part& part, double value)
{
    const auto number = static_cast<float>(value);
    part.least = std::isnan(part.least) ? number : std::min(part.least, number);
    part.greatest = std::isnan(part.greatest) ? number : std::max(part.greatest, number);
}

void RecentTrends::addValue(int number)
{
    proceed();
    const std::optional<double> value = numberOf(m_context.index.latest(number));
    const quint64 identity = m_context.index.identity(number);
    auto trend = m_trends.find(identity);
    if (trend == m_trends.end()) {
        if (!value)
            return;
        trend = m_trends.emplace(identity, Trend()).first;
        trend->second.number = number;
        trend->second.parts.fill({kNone, kNone});
    }
    trend->second.last = value;
    if (value)
        take(trend->second.parts[static_cast<std::size_t>(m_current)], *value);
}

void RecentTrends::proceed()
{
    const Duration now = m_context.clock.now();
    // After a long pause of the whole process, one turn is as good as many.
    for (int i = 0; i < kPoints && now >= m_partEnds; ++i) {
        beginPart();
        m_partEnds += std::chrono::milliseconds(kStepMs);
    }
    if (now >= m_partEnds)
        m_partEnds = now + std::chrono::milliseconds(kStepMs);
}

// A value that did not change goes on.
void RecentTrends::beginPart()
{
    m_current = (m_current + 1) % kPoints;
    for (auto& [identity, trend] : m_trends) {
        Part& part = trend.parts[static_cast<std::size_t>(m_current)];
        part = {kNone, kNone};
        if (trend.last)
            take(part, *trend.last);
    }
}

void RecentTrends::handleReload()
{
    std::map<quint64, Trend> old = std::exchange(m_trends, {});
    for (int number = 0; number < m_context.index.size(); ++number) {
        const auto same = old.find(m_context.index.identity(number));
        if (same == old.end())
            continue;
        same->second.number = number;
        m_trends.insert(*same);
    }
}

QByteArray RecentTrends::textOf(const Trend& trend) const
{
    const GatewayValue& latest = m_context.index.latest(trend.number);
    QByteArray text =
        jsonText({{"line", latest.line.toStdString()}, {"name", latest.name.toStdString()}});
    text.chop(1); // the brace
    text += R"(,"points":[)";
    for (int i = 1; i <= kPoints; ++i) {
        const Part& part = trend.parts[static_cast<std::size_t>((m_current + i) % kPoints)];
        if (i > 1)
            text += ',';
        text += std::isfinite(part.least) && std::isfinite(part.greatest)
                    ? '[' + QByteArray::number(part.least, 'g', kDigits) + ',' +
                          QByteArray::number(part.greatest, 'g', kDigits) + ']'
                    : QByteArray("null");
    }
    return text + "]}";
}

void RecentTrends::answer(const HttpExchangePointer& exchange)
{
    expectKeys(exchange->request(), {});
    proceed();
    std::vector<std::pair<int, quint64>> wanted;
    for (const auto& [identity, trend] : m_trends)
        wanted.emplace_back(trend.number, identity);
    std::sort(wanted.begin(), wanted.end());
    JsonList list;
    const qint64 end =
        m_context.wallClock.now() + wholeMilliseconds(m_partEnds - m_context.clock.now());
    list.begin = R"({"end":)" + QByteArray::number(end) + R"(,"stepMs":)" +
                 QByteArray::number(kStepMs) + R"(,"trends":[)";
    list.size = static_cast<int>(wanted.size());
    list.item = [this, wanted](int i) {
        return textOf(m_trends.at(wanted[static_cast<std::size_t>(i)].second));
    };
    list.isValid = [&context = m_context, generation = m_context.generation] {
        return generation == context.generation;
    };
    exchange->answer(listResponse(std::move(list)));
}

} // namespace micro850::gateway
