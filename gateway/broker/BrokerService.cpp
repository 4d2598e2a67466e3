#include "BrokerService.h"

#include "BrokerFeed.h"
#include "Catalogue.h"
#include "MachineTime.h"
#include "Message.h"
#include "TagAddress.h"

#include <QtCore/QTimer>

#include <array>
#include <limits>
#include <map>
#include <utility>
#include <vector>

namespace micro850::gateway {

namespace {

using Subject = BrokerFeed::Subject;

const int kTickMs = 100;
const std::chrono::seconds kStatusInterval(1);
const int kLineItself = -1;
// States of stations.
const char kDisabled[] = "disabled";
const char kLineDown[] = "line down";

Subject subjectOf(const GatewayValue& value)
{
    return {value.line, value.name};
}

// No variable has a name that begins so.
Subject subjectOf(const LineEvent& event)
{
    return {event.line, QStringLiteral("\n%1").arg(event.station)};
}

using Sections = std::array<std::pair<const char*, std::optional<Json>>, 2>;

Sections sectionsOf(const BrokerSettings& settings)
{
    Sections sections = {{{"mqtt", std::nullopt}, {"sparkplug", std::nullopt}}};
    if (settings.mqtt)
        sections[0].second = gateway::jsonOf(*settings.mqtt);
    if (settings.sparkplug)
        sections[1].second = gateway::jsonOf(*settings.sparkplug);
    return sections;
}

Json jsonOf(const LineEvent& event)
{
    Json object = {{"time", event.time}, {"line", event.line.toStdString()}};
    if (event.station != kLineItself)
        object["station"] = event.station;
    object["state"] = event.state.toStdString();
    object["text"] = event.text.toStdString();
    return object;
}

std::optional<double> limitOf(const std::optional<CipValue>& limit)
{
    return limit ? std::make_optional(limit->number()) : std::nullopt;
}

CatalogueVariable catalogueVariableOf(const host::Variable& variable, const GatewayValue& latest)
{
    CatalogueVariable entry;
    entry.line = latest.line;
    entry.name = variable.name;
    entry.station = variable.station;
    entry.tag = variable.tag;
    entry.element = variable.element;
    entry.length = variable.length;
    entry.type = latest.type ? latest.type : variable.type;
    entry.isScaled = variable.isScaled() && !variable.raw;
    if (entry.isScaled) {
        entry.gain = variable.gain;
        entry.offset = variable.offset;
    }
    entry.unit = variable.raw ? QString() : variable.unit;
    entry.isWritable = variable.writable;
    entry.minimum = limitOf(variable.minimum);
    entry.maximum = limitOf(variable.maximum);
    return entry;
}

} // namespace

class BrokerService::Private : private BrokerFeed::Owner
{
public:
    Private(LineService& lines, WriteRules& writes, const Clock& clock, const WallClock& wallClock,
            const SupervisionSettings& supervision, Alarm alarm);

    void change(const BrokerSettings& settings);
    QStringList changesTo(const BrokerSettings& settings) const;
    void tick();
    void stop();
    bool haveEnded() const;
    Json status() const;
    int size() const { return static_cast<int>(m_feeds.size()); }
    int connected() const;
    void addValue(int line, int variable);
    void addEvent(const LineEvent& event);
    void addNotice(const LineEvent& event);
    void handleReload();
    LineService& lines() { return m_lines; }

private:
    using FeedList = std::vector<std::unique_ptr<BrokerFeed>>;
    using Name = QPair<QString, QString>; ///< of a variable, with its line
    void changeFeed(const char* kind, const std::optional<Json>& settings);
    QString removalText(const BrokerFeed& feed) const;
    BrokerFeed* feedOf(const QString& kind) const;
    void noteType(const GatewayValue& value);
    void takeState(const LineEvent& event);
    QSet<int> stationsOf(const QString& line) const;
    void tellEvery(Duration interval);
    void addValueTo(BrokerFeed& feed, const GatewayValue& value) const;
    bool isPeriodic(const BrokerFeed& feed) const;

    Json catalogue() override;
    void visitCurrent(BrokerFeed& feed) override;
    void order(const BrokerFeed& feed, const Json& order,
               const std::function<void(const Json& reply)>& answer) override;
    void tell(const QString& state, const QString& text) override;

    LineService& m_lines;
    WriteRules& m_writes;
    const Clock& m_clock;
    const WallClock& m_wallClock;
    const SupervisionSettings m_supervision;
    const Alarm m_alarm;
    BrokerSettings m_settings;
    FeedList m_feeds;
    FeedList m_leaving; ///< of sections that are gone, until their processes have ended
    QHash<Name, const CipType*> m_types;                  ///< as the catalogue has them
    QHash<Name, int> m_stations;                          ///< likewise
    std::map<QString, std::map<int, LineEvent>> m_states; ///< by line and station
    QTimer m_ticks;
    Duration m_nextStatus{0};
    Duration m_nextTelling{0};
    bool m_stopped = false;
};

BrokerService::Private::Private(LineService& lines, WriteRules& writes, const Clock& clock,
                                const WallClock& wallClock, const SupervisionSettings& supervision,
                                Alarm alarm)
    : m_lines(lines), m_writes(writes), m_clock(clock), m_wallClock(wallClock),
      m_supervision(supervision), m_alarm(std::move(alarm))
{
    QObject::connect(&m_ticks, &QTimer::timeout, &m_ticks, [this] { tick(); });
    m_ticks.start(kTickMs);
}

BrokerFeed* BrokerService::Private::feedOf(const QString& kind) const
{
    for (const auto& feed : m_feeds) {
        if (feed->kind() == kind)
            return feed.get();
    }
    return nullptr;
}

void BrokerService::Private::change(const BrokerSettings& settings)
{
    const int before = m_settings.mqtt ? m_settings.mqtt->intervalMs : 0;
    m_settings = settings;
    if (settings.mqtt && settings.mqtt->intervalMs != before)
        m_nextTelling = m_clock.now() + std::chrono::milliseconds(settings.mqtt->intervalMs);
    for (const auto& [kind, section] : sectionsOf(settings))
        changeFeed(kind, section);
}

QStringList BrokerService::Private::changesTo(const BrokerSettings& settings) const
{
    QStringList changes;
    for (const auto& [kind, section] : sectionsOf(settings)) {
        const QString name = QString::fromLatin1(kind);
        const BrokerFeed* const feed = feedOf(name);
        if (!feed && section)
            changes += name + QStringLiteral(" added");
        else if (feed && !section)
            changes += removalText(*feed);
        else if (feed && feed->settings() != *section)
            changes += name + QStringLiteral(" changed");
    }
    return changes;
}

// What waits is delivered when the section comes back.
QString BrokerService::Private::removalText(const BrokerFeed& feed) const
{
    const DeliveryQueueSettings& queue =
        feed.kind() == QLatin1String("mqtt") ? m_settings.mqtt->queue : m_settings.sparkplug->queue;
    const Json status = feed.status();
    const qint64 waiting = status.value("held", qint64(0)) +
                           status.value("flow", Json::object()).value("waiting", qint64(0));
    QString text = feed.kind() + QStringLiteral(" removed");
    if (waiting > 0)
        text += QStringLiteral(", messages that stay in %1: %2").arg(queue.file).arg(waiting);
    return text;
}

void BrokerService::Private::changeFeed(const char* kind, const std::optional<Json>& settings)
{
    const QString name = QString::fromLatin1(kind);
    BrokerFeed* const feed = feedOf(name);
    if (feed && settings) {
        if (feed->settings() != *settings)
            feed->change(*settings);
        return;
    }
    if (settings) {
        BrokerFeed::Owner& owner = *this;
        m_feeds.push_back(
            std::make_unique<BrokerFeed>(owner, name, *settings, m_clock, m_supervision));
    } else if (feed) {
        feed->stop();
        const auto found =
            std::find_if(m_feeds.begin(), m_feeds.end(),
                         [feed](const auto& candidate) { return candidate.get() == feed; });
        m_leaving.push_back(std::move(*found));
        m_feeds.erase(found);
    }
}

// A process waits for one that ends: it may need the same file.
void BrokerService::Private::tick()
{
    for (const auto& feed : m_leaving)
        feed->tick();
    m_leaving.erase(std::remove_if(m_leaving.begin(), m_leaving.end(),
                                   [](const auto& feed) { return feed->hasEnded(); }),
                    m_leaving.end());
    if (!m_leaving.empty() && !m_stopped)
        return;
    if (m_settings.mqtt && m_settings.mqtt->intervalMs > 0)
        tellEvery(std::chrono::milliseconds(m_settings.mqtt->intervalMs));
    for (const auto& feed : m_feeds)
        feed->tick();
    if (m_feeds.empty() || m_clock.now() < m_nextStatus)
        return;
    m_nextStatus = m_clock.now() + kStatusInterval;
    Json lines = Json::array();
    for (int line = 0; line < m_lines.size(); ++line)
        lines.push_back(m_lines.status(line));
    for (const auto& feed : m_feeds)
        feed->sendStatus(lines);
}

// Intervals that were missed are not made up for.
void BrokerService::Private::tellEvery(Duration interval)
{
    const Duration now = m_clock.now();
    BrokerFeed* const feed = feedOf(QStringLiteral("mqtt"));
    if (now < m_nextTelling || !feed || m_stopped)
        return;
    m_nextTelling = std::max(m_nextTelling + interval, now);
    for (int line = 0; line < m_lines.size(); ++line) {
        for (int i = 0; i < m_lines.line(line).project.variables.size(); ++i) {
            const GatewayValue& value = m_lines.latest(line, i);
            if (value.quality != host::Quality::Never || !value.error.isEmpty())
                addValueTo(*feed, value);
        }
    }
}

void BrokerService::Private::stop()
{
    m_stopped = true;
    for (const auto& feed : m_feeds)
        feed->stop();
}

bool BrokerService::Private::haveEnded() const
{
    return m_leaving.empty() && std::all_of(m_feeds.begin(), m_feeds.end(),
                                            [](const auto& feed) { return feed->hasEnded(); });
}

Json BrokerService::Private::status() const
{
    Json status = Json::object();
    for (const auto& feed : m_feeds)
        status[feed->kind().toStdString()] = feed->status();
    return status;
}

int BrokerService::Private::connected() const
{
    return static_cast<int>(std::count_if(m_feeds.begin(), m_feeds.end(),
                                          [](const auto& feed) { return feed->isConnected(); }));
}

bool BrokerService::Private::isPeriodic(const BrokerFeed& feed) const
{
    return feed.kind() == QLatin1String("mqtt") && m_settings.mqtt &&
           m_settings.mqtt->intervalMs > 0;
}

void BrokerService::Private::addValue(int line, int variable)
{
    if (m_feeds.empty() || m_stopped)
        return;
    const GatewayValue& value = m_lines.latest(line, variable);
    noteType(value);
    for (const auto& feed : m_feeds) {
        if (!isPeriodic(*feed))
            addValueTo(*feed, value);
    }
}

// A good value has the time when it was read; one that became stale has that of the change.
void BrokerService::Private::addValueTo(BrokerFeed& feed, const GatewayValue& value) const
{
    const qint64 now = m_wallClock.now();
    const qint64 time = value.quality == host::Quality::Good ? value.time.value_or(now) : now;
    feed.addValue(subjectOf(value), host::encoded(value), time);
}

void BrokerService::Private::noteType(const GatewayValue& value)
{
    const auto known = m_types.find({value.line, value.name});
    if (known == m_types.end() || !value.type || *known == value.type)
        return;
    *known = value.type;
    for (const auto& feed : m_feeds)
        feed->noteType();
}

// While a line is not up, its stations are not told. What a broker keeps of them, maybe since
// before the service started, holds no more.
void BrokerService::Private::addEvent(const LineEvent& event)
{
    auto& states = m_states[event.line];
    std::map<int, LineEvent> before;
    if (event.station == kLineItself)
        before = std::exchange(states, {}); // it is news how the stations are then
    takeState(event);
    if (event.station != kLineItself || event.state == QLatin1String("up"))
        return;
    QSet<int> stations = stationsOf(event.line);
    for (const auto& [station, state] : before) {
        stations.remove(station);
        if (station == kLineItself)
            continue;
        if (state.state == QLatin1String(kDisabled) || state.state == QLatin1String(kLineDown))
            states[station] = state;
        else
            stations.insert(station);
    }
    LineEvent down = event;
    down.state = QLatin1String(kLineDown);
    for (const int station : qAsConst(stations)) {
        down.station = station;
        takeState(down);
    }
}

// Those that variables name, without those that the line says are disabled.
QSet<int> BrokerService::Private::stationsOf(const QString& line) const
{
    QSet<int> stations;
    for (int i = 0; i < m_lines.size(); ++i) {
        if (m_lines.line(i).name != line)
            continue;
        for (const host::Variable& variable : m_lines.line(i).project.variables)
            stations.insert(variable.station);
        const Json status = m_lines.status(i);
        for (const Json& station : status.value("stations", Json::array())) {
            if (station.value("state", "") == kDisabled)
                stations.remove(station.value("station", kLineItself));
        }
    }
    return stations;
}

void BrokerService::Private::takeState(const LineEvent& event)
{
    m_states[event.line][event.station] = event;
    if (m_stopped)
        return;
    for (const auto& feed : m_feeds)
        feed->addEvent("state", subjectOf(event), jsonOf(event));
}

void BrokerService::Private::addNotice(const LineEvent& event)
{
    if (m_stopped)
        return;
    for (const auto& feed : m_feeds)
        feed->addEvent("notice", {event.line, QStringLiteral("\nnotice")}, jsonOf(event));
}

void BrokerService::Private::handleReload()
{
    QSet<QString> lines;
    m_types.clear();
    m_stations.clear();
    catalogue();
    for (int line = 0; line < m_lines.size(); ++line)
        lines.insert(m_lines.line(line).name);
    for (auto state = m_states.begin(); state != m_states.end();)
        state = lines.contains(state->first) ? std::next(state) : m_states.erase(state);
    for (const auto& feed : m_feeds) {
        feed->noteCatalogue();
        feed->forget([&](const Subject& subject) {
            return subject.second.startsWith('\n') ? !lines.contains(subject.first)
                                                   : !m_types.contains(subject);
        });
    }
}

Json BrokerService::Private::catalogue()
{
    Catalogue catalogue;
    for (int line = 0; line < m_lines.size(); ++line) {
        const LineSettings& settings = m_lines.line(line);
        catalogue.lines.append(settings.name);
        for (int i = 0; i < settings.project.variables.size(); ++i) {
            catalogue.variables.append(
                catalogueVariableOf(settings.project.variables.at(i), m_lines.latest(line, i)));
            const CatalogueVariable& entry = catalogue.variables.last();
            m_types[{entry.line, entry.name}] = entry.type;
            m_stations[{entry.line, entry.name}] = entry.station;
        }
    }
    return gateway::jsonOf(catalogue);
}

void BrokerService::Private::visitCurrent(BrokerFeed& feed)
{
    for (const auto& [line, states] : m_states) {
        for (const auto& [station, event] : states)
            feed.addCurrentState(subjectOf(event), jsonOf(event));
    }
    for (int line = 0; line < m_lines.size(); ++line) {
        for (int i = 0; i < m_lines.line(line).project.variables.size(); ++i) {
            const GatewayValue& value = m_lines.latest(line, i);
            if (value.quality != host::Quality::Never)
                feed.addCurrentValue(subjectOf(value), host::encoded(value));
        }
    }
}

void BrokerService::Private::order(const BrokerFeed& feed, const Json& order,
                                   const std::function<void(const Json& reply)>& answer)
{
    const auto refuse = [&answer](const char* code, const std::string& text) {
        answer({{"error", {{"code", code}, {"text", text}}}});
    };
    const JsonNode message = JsonNode::fromText(host::lineOf(order).toStdString(), "order");
    const bool isAllowed = feed.settings().value("takesOrders", false);
    Writer writer;
    writer.client = feed.kind() == QLatin1String("mqtt")
                        ? QStringLiteral("mqtt ") +
                              (m_settings.mqtt ? m_settings.mqtt->broker.clientId : QString())
                        : QStringLiteral("sparkplug ") +
                              (m_settings.sparkplug ? m_settings.sparkplug->node : QString());
    WriteRequest request;
    request.line = QString::fromStdString(message.at("line").text());
    request.name = QString::fromStdString(message.at("name").text());
    request.element = static_cast<int>(message.integer("element", 0, host::kLargestElement, 0));
    request.value = host::jsonOf(message.at("value"));
    if (!isAllowed || m_stopped)
        return refuse(host::errorcode::kNotAllowed,
                      m_stopped ? "the gateway ends"
                                : "orders are not taken (the configuration allows none)");
    if (request.name.isEmpty())
        return refuse(host::errorcode::kUnknownName, "the order names no variable");
    // Who gave it may not know yet that the variable is at another station now.
    const auto station = m_stations.constFind({request.line, request.name});
    if (station != m_stations.constEnd() && *station != message.integer("station", 0, 65535, 1))
        return refuse(host::errorcode::kUnknownName,
                      "the variable is at station " + std::to_string(*station) + " now");
    const bool hasDeadline = message.has("deadline");
    const qint64 left =
        message.integer("deadline", 0, std::numeric_limits<std::int64_t>::max(), 0) -
        machineMilliseconds();
    if (hasDeadline && left <= 0)
        return refuse(host::errorcode::kCancelled, "it came too late");
    const qint64 number = m_writes.write(writer, request, answer);
    // No effect on what is sent or answered by then.
    if (hasDeadline)
        QTimer::singleShot(std::chrono::milliseconds(left), &m_ticks,
                           [this, number] { m_writes.cancel(number); });
}

void BrokerService::Private::tell(const QString& state, const QString& text)
{
    LineEvent event;
    event.time = m_wallClock.now();
    event.state = state;
    event.text = text;
    if (m_alarm)
        m_alarm(event);
}

BrokerService::BrokerService(LineService& lines, WriteRules& writes, const BrokerSettings& settings,
                             const Clock& clock, const WallClock& wallClock,
                             const SupervisionSettings& supervision, Alarm alarm)
    : m_private(
          std::make_unique<Private>(lines, writes, clock, wallClock, supervision, std::move(alarm)))
{
    lines.addListener(*this);
    m_private->handleReload();
    m_private->change(settings);
}

BrokerService::~BrokerService()
{
    m_private->lines().removeListener(*this);
}

QStringList BrokerService::changesTo(const BrokerSettings& settings) const
{
    return m_private->changesTo(settings);
}

void BrokerService::change(const BrokerSettings& settings)
{
    m_private->change(settings);
}

void BrokerService::tick()
{
    m_private->tick();
}

void BrokerService::stop()
{
    m_private->stop();
}

bool BrokerService::haveEnded() const
{
    return m_private->haveEnded();
}

Json BrokerService::status() const
{
    return m_private->status();
}

int BrokerService::size() const
{
    return m_private->size();
}

int BrokerService::connected() const
{
    return m_private->connected();
}

void BrokerService::handleValue(int line, int variable)
{
    m_private->addValue(line, variable);
}

void BrokerService::handleEvent(const LineEvent& event)
{
    m_private->addEvent(event);
}

void BrokerService::handleNotice(const LineEvent& event)
{
    m_private->addNotice(event);
}

void BrokerService::handleReload()
{
    m_private->handleReload();
}

} // namespace micro850::gateway
