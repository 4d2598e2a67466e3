#include "RemotePlant.h"

#include <QtCore/QDateTime>

#include <algorithm>
#include <poll.h>

namespace micro850::host {

namespace {

const std::chrono::milliseconds kStep(20);
const std::chrono::seconds kStatusInterval(1);
// Ages come once a second.
const std::chrono::milliseconds kAgeTolerance(1500);
// For each attempt to reach a gateway that went away: the caller stays responsive.
const std::chrono::milliseconds kRetryPatience(300);
const int kMostNamesBytes = 60000;

// How long ago that was by the wall clock, which gateway and clients share.
Duration timeSince(const GatewayValue& value)
{
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    return std::chrono::milliseconds(std::max<qint64>(0, now - value.time.value_or(now)));
}

} // namespace

RemotePlant::RemotePlant(const GatewayPlace& place, const Project& project, const Clock& clock)
    : m_place(place), m_project(project), m_clock(clock), m_values(project),
      m_sourcesOf(project.variables.size()), m_fresh(project, m_values)
{
    for (int i = 0; i < project.variables.size(); ++i) {
        const Variable& variable = project.variables.at(i);
        if (isDisabled(variable))
            m_values.setError(
                i, QStringLiteral("station %1 is disabled in the project").arg(variable.station));
    }
    m_gateway = std::make_unique<GatewayClient>(m_place.path, m_place.client, m_clock);
    connect();
}

RemotePlant::~RemotePlant() = default;

void RemotePlant::setInterrupt(const std::function<bool()>& interrupt)
{
    m_interrupt = interrupt;
    if (m_gateway)
        m_gateway->setInterrupt(interrupt);
}

// The gateway must be new.
void RemotePlant::connect()
{
    m_gateway->setInterrupt(m_interrupt);
    m_gateway->setEventHandler([this](const JsonNode& event) { handleEvent(event); });
    m_subscription.reset();
    m_statusRequest.reset();
    subscribe();
    takeStatus(m_gateway->ask({{"request", "status"}}));
    m_nextStatus = m_clock.now() + kStatusInterval;
    m_pause.reset();
}

void RemotePlant::subscribe()
{
    m_isReloaded = false;
    if (m_subscription)
        m_gateway->ask({{"request", "unsubscribe"}, {"subscription", *m_subscription}});
    m_subscription.reset();
    findSources();
    if (m_sources.isEmpty())
        return;
    Json names = Json::array();
    int bytes = 0;
    for (auto source = m_sources.constBegin(); source != m_sources.constEnd(); ++source) {
        names.push_back(source.key().toStdString());
        // A character needs at most six, as an escape.
        bytes += 6 * source.key().size() + 3;
    }
    Json request = {{"request", "subscribe"}, {"line", m_place.line.toStdString()}, {"ages", true}};
    if (bytes < kMostNamesBytes)
        request["names"] = names;
    m_subscription = m_gateway->ask(request).first().at("subscription").integer(0, INT64_MAX);
}

void RemotePlant::findSources()
{
    m_sources.clear();
    m_sourcesOf.fill(QStringList());
    QHash<TagKey, QVector<int>> asked;
    QVector<QBitArray> found;
    for (int i = 0; i < m_project.variables.size(); ++i) {
        const Variable& variable = m_project.variables.at(i);
        found.append(QBitArray(variable.length));
        if (!isDisabled(variable))
            asked[{variable.station, variable.tag}] += i;
    }
    for (const Variable& variable : variablesOf(*m_gateway, m_place.line))
        addSource(variable, asked, found);
    QVector<int> others;
    for (int i = 0; i < found.size(); ++i) {
        if (found.at(i).count(true) == found.at(i).size())
            continue;
        m_sourcesOf[i].clear();
        if (!isDisabled(m_project.variables.at(i)))
            others += i;
    }
    m_fresh.begin(others);
}

void RemotePlant::addSource(const Variable& variable,
                            const QHash<TagKey, QVector<int>>& variablesOf,
                            QVector<QBitArray>& found)
{
    Source source;
    source.tag = {variable.station, variable.tag};
    source.element = variable.element;
    source.length = variable.length;
    for (const int index : variablesOf.value(source.tag)) {
        const Variable& shown = m_project.variables.at(index);
        const int first = std::max(variable.element, shown.element);
        const int end = std::min(variable.element + variable.length, shown.element + shown.length);
        if (first >= end)
            continue;
        found[index].fill(true, first - shown.element, end - shown.element);
        m_sourcesOf[index] += variable.name;
        source.variables += index;
    }
    if (!source.variables.isEmpty())
        m_sources.insert(variable.name, source);
}

bool RemotePlant::isDisabled(const Variable& variable) const
{
    return std::any_of(m_project.stations.begin(), m_project.stations.end(),
                       [&variable](const StationSettings& station) {
                           return station.number == variable.station && !station.enabled;
                       });
}

void RemotePlant::handleEvent(const JsonNode& event)
{
    const std::string name = event.at("event").text();
    if (name == "values")
        handleValues(event.at("values"));
    else if (name == "ages")
        handleAges(event.at("ages"));
    else if (name == "state")
        m_nextStatus = Duration(0);
    else if (name == "reloaded")
        m_isReloaded = true;
}

void RemotePlant::handleValues(const JsonNode& values)
{
    for (const JsonNode& each : values.elements()) {
        const GatewayValue value = gatewayValueOf(each.value());
        const auto found = m_sources.find(value.name);
        if (found == m_sources.end() || value.line != m_place.line)
            continue;
        Source& source = *found;
        const bool isWhole = value.type && (value.type->kind == CipKind::String ||
                                            value.bytes.size() == source.length * value.type->size);
        const bool isGood = value.quality == Quality::Good;
        const bool isFirst = source.bytes.isEmpty();
        // One that became stale is as old as before.
        const bool isRead = isGood || source.bytes != value.bytes;
        source.quality = value.quality;
        if (isWhole && isRead) {
            source.type = value.type;
            source.bytes = value.bytes;
            // The latest one may be old; a change has just been read.
            store(source, isFirst || !isGood ? firstAge(value) : Duration(0));
        }
        for (const int variable : qAsConst(source.variables)) {
            if (!value.error.isEmpty() && !m_sourcesOf.at(variable).isEmpty())
                m_values.setError(variable, value.error);
        }
    }
}

// The gateway's word that a value is good counts more than a wall clock that may have been stepped;
// the exact age comes within a second.
Duration RemotePlant::firstAge(const GatewayValue& value) const
{
    const Duration longest = std::chrono::milliseconds(m_project.staleAfterMs);
    const Duration age = timeSince(value);
    return value.quality == Quality::Good ? std::min(age, longest) : age;
}

void RemotePlant::store(const Source& source, Duration age)
{
    m_values.store(source.tag, source.element, *source.type, source.bytes, m_clock.now() - age);
    requireTypes(source);
}

// The gateway may not have a type of its own for a tag, or another one than this project.
void RemotePlant::requireTypes(const Source& source)
{
    for (const int variable : source.variables) {
        const QString problem = typeProblem(m_project.variables.at(variable), *source.type);
        if (!problem.isEmpty())
            m_values.setError(variable, problem);
    }
}

void RemotePlant::handleAges(const JsonNode& ages)
{
    const std::int64_t kMostAge = std::int64_t(1) << 40;
    for (const JsonNode& each : ages.elements()) {
        const auto found = m_sources.constFind(QString::fromStdString(each.at("name").text()));
        const JsonNode age = each.at("ageMs");
        if (found == m_sources.constEnd() || !found->type || age.value().is_null() ||
            found->quality != Quality::Good)
            continue;
        store(*found, std::chrono::milliseconds(age.integer(0, kMostAge)));
    }
}

Quality RemotePlant::quality(int variable) const
{
    const Quality own = m_values.quality(variable, m_clock.now() - kAgeTolerance, Duration::min());
    if (own != Quality::Good)
        return own;
    const auto isGood = [this](const QString& name) {
        return m_sources.value(name).quality == Quality::Good;
    };
    const QStringList& sources = m_sourcesOf.at(variable);
    return m_gateway && std::all_of(sources.begin(), sources.end(), isGood) ? Quality::Good
                                                                            : Quality::Stale;
}

void RemotePlant::step()
{
    try {
        if (m_gateway)
            work();
        else
            retry();
    } catch (const Interrupted&) {
        return; // the caller asked for it, and knows
    } catch (const UserError& error) {
        handleLoss(QString::fromStdString(error.what()));
    }
}

void RemotePlant::work()
{
    m_gateway->wait(kStep);
    if (m_isReloaded)
        subscribe();
    const Duration now = m_clock.now();
    askForStatus(now);
    m_fresh.work(*m_gateway, m_place.line, now);
}

void RemotePlant::askForStatus(Duration now)
{
    if (m_statusRequest && m_gateway->isAnswered(*m_statusRequest)) {
        const qint64 id = *m_statusRequest;
        m_statusRequest.reset();
        takeStatus(m_gateway->takeReply(id));
    }
    if (m_statusRequest || now < m_nextStatus)
        return;
    m_nextStatus = now + kStatusInterval;
    m_statusRequest = m_gateway->post({{"request", "status"}});
}

void RemotePlant::takeStatus(const GatewayClient::Reply& reply)
{
    for (const JsonNode& part : reply) {
        for (const JsonNode& line : part.at("lines").elements()) {
            if (line.at("line").text() != m_place.line.toStdString())
                continue;
            m_status = lineStatusOf(line, m_clock.now());
            return;
        }
    }
    throw UserError(m_place.path.toStdString() + ": the gateway has no line " +
                        m_place.line.toStdString() + " any more",
                    kExitRefused);
}

void RemotePlant::handleLoss(const QString& why)
{
    m_gateway.reset();
    m_nextTry = m_clock.now() + m_pause.next();
    m_status.line.isUp = false;
    m_status.line.error = m_status.line.reportedError = why;
    for (StationView& station : m_status.stations) {
        if (station.state == QStringLiteral("disabled"))
            continue;
        station.state = QStringLiteral("line down");
        station.problem = why;
        station.isConnected = false;
    }
    for (int i = 0; i < m_values.size(); ++i) {
        if (!isDisabled(m_project.variables.at(i)))
            m_values.setError(i, why);
    }
}

void RemotePlant::retry()
{
    if (m_clock.now() < m_nextTry) {
        ::poll(nullptr, 0, static_cast<int>(kStep.count()));
        return;
    }
    m_gateway =
        std::make_unique<GatewayClient>(m_place.path, m_place.client, m_clock, kRetryPatience);
    connect();
}

void RemotePlant::finish()
{
    if (!m_gateway)
        return;
    try {
        // The caller wants to end, and this is how.
        m_gateway->setInterrupt(nullptr);
        takeStatus(m_gateway->ask({{"request", "status"}}));
    } catch (const UserError&) {
        // The last status was the one before.
    }
}

} // namespace micro850::host
