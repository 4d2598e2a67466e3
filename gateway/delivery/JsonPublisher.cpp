#include "JsonPublisher.h"

#include "Discovery.h"
#include "JsonMessages.h"
#include "Orders.h"
#include "Protocol.h"
#include "RetainedTopics.h"

#include <QtCore/QHash>

#include <array>
#include <deque>
#include <map>
#include <random>
#include <utility>

namespace micro850::gateway {

namespace {

using host::Json;

const char kRetainedKey[] = "retained";
// After a birth of Home Assistant the next one is not obeyed sooner.
const std::chrono::seconds kBirthPause(10);
// Results that wait for a connection.
const std::size_t kMostResults = 1000;
// The list of topics is written as a whole: what is new waits for the others that are new.
const std::chrono::seconds kKeepPause(1);

// What is told of a line and is of use on its machine only: a whole plant reads what a broker has.
const std::array<const char*, 3> kMachineKeys = {"project", "memoryKb", "workerPid"};

using VariableKey = QPair<QString, QString>; ///< line and name
using Place = std::pair<QString, int>;       ///< line, and station or below 0

// Null when it is no JSON; what the queue holds comes from the service.
Json parsed(const QByteArray& body)
{
    return Json::parse(body.constData(), body.constData() + body.size(), nullptr, false);
}

// Whether both are announced in the same way.
bool isSame(const CatalogueVariable& a, const CatalogueVariable& b)
{
    return a.type == b.type && a.isScaled == b.isScaled && a.gain == b.gain &&
           a.offset == b.offset && a.length == b.length && a.unit == b.unit &&
           a.isWritable == b.isWritable && a.minimum == b.minimum && a.maximum == b.maximum;
}

} // namespace

/// After a connection: a random pause, then obsolete topics are cleared, then the status, the
/// announcements and the states go out as the connection takes them, then the values.
class JsonPublisher::Private : public MqttConnection::Owner, public Outlet
{
public:
    Private(const MqttSettings& settings, PublisherNeeds& needs, const MakeLink& makeLink);

    void setCatalogue(const Catalogue& catalogue);
    void handleEvent(const DeliveryEvent& event);
    void handleStatus(const Json& lines);
    void tick();
    void stop(Duration limit);
    Json status() const;

    bool send(const QueuedMessage& message, Delivery delivery) override;

    MqttMessage will() override;
    void handleConnected() override;
    void handleDisconnected(const QString& reason) override;
    void handleAcknowledged(int token) override;
    void handleRefused(int token, const QString& reason) override;
    void handleMessage(const MqttMessage& message) override;
    void handlePong(int) override {}

private:
    struct Variable
    {
        CatalogueVariable declared; ///< with the type that its values told
        QByteArray topic;
    };
    enum class Stage {
        Away,
        Waiting,    ///< connected, until m_announceAt
        Announcing, ///< until all jobs are done
        Flowing
    };
    enum class JobKind { Clear, Status, Configuration, State };
    struct Job
    {
        JobKind kind;
        QByteArray topic; ///< of Clear
        int variable = 0; ///< of Configuration
        Place place;      ///< of State
    };
    /// What a token stands for.
    struct Sent
    {
        QByteArray topic;
        bool isClear = false;
        std::optional<qint64> id; ///< of a message of the flow
        std::optional<MqttMessage> result;
    };

    void replaceVariables(const Catalogue& catalogue);
    void forgetMissing(const QHash<VariableKey, int>& before, const QVector<Variable>& old);
    void setUsedTopics();
    void keepTopics();
    void keepTopicsWhenDue();
    void useTopic(const QByteArray& topic);
    void announceAll();
    void announceVariables();
    void announceChanges(const QVector<Variable>& old);
    void clearObsolete();
    void work();
    bool perform(const Job& job);
    MqttMessage messageOf(const Job& job);
    bool publish(const MqttMessage& message, bool isClear = false,
                 std::optional<qint64> id = std::nullopt);
    void clear(const QByteArray& topic);
    void addDiscoveryTopics(const Variable& variable, QSet<QByteArray>& used) const;
    void addResult(const MqttMessage& result);
    void sendResults();
    bool sendResult();
    void takeResultsBack();
    void loseResult();
    void publishStatistics(const Json& lines);
    MqttMessage statistic(const QString& line, int station, Json content);
    void dropMissingStations(const QString& line, const Json& stations);
    void learnType(Variable& variable, const Json& value);
    bool isTooLong(const QByteArray& topic);
    MqttMessage eventToSend(const QueuedMessage& message, Delivery delivery) const;
    MqttMessage valueToSend(const QueuedMessage& message, Delivery delivery);
    Duration randomPause();
    bool isAnnounced() const { return m_stage == Stage::Flowing || m_stage == Stage::Announcing; }

    MqttSettings m_settings;
    PublisherNeeds& m_needs;
    Topics m_topics;
    Discovery m_discovery;
    RetainedTopics m_retained;
    bool m_hasTopicsToKeep = false;
    QSet<QByteArray> m_unkept; ///< nothing is retained there before they are kept
    Duration m_nextKeep{0};

    QVector<Variable> m_variables;
    QHash<VariableKey, int> m_numbers;
    QHash<QByteArray, int> m_byTopic;
    QSet<QString> m_lines;
    std::map<Place, DeliveryEvent> m_states;
    QSet<QPair<QString, int>> m_stations; ///< with variables or in the status

    Stage m_stage = Stage::Away;
    Duration m_announceAt{0};
    std::optional<Duration> m_birthAt; ///< when the variables are announced again
    Duration m_nextBirth{0};
    Duration m_nextStatistics{0};
    std::deque<Job> m_jobs;
    QSet<QByteArray> m_clearing; ///< by a job, or by a message that is not acknowledged
    QHash<int, Sent> m_sent;     ///< by token
    QVector<qint64> m_dropped;
    std::deque<MqttMessage> m_results;
    qint64 m_since;
    qint64 m_refused = 0;
    qint64 m_tooLong = 0;
    qint64 m_lostResults = 0;
    bool m_isStarted = false;
    std::mt19937 m_random{std::random_device{}()};
    Orders m_orders;
    std::unique_ptr<MqttLink> m_link; // the last, since it calls the others
};

JsonPublisher::Private::Private(const MqttSettings& settings, PublisherNeeds& needs,
                                const MakeLink& makeLink)
    : m_settings(settings), m_needs(needs), m_topics(settings.prefix),
      m_discovery(settings.discoveryPrefix, settings.prefix, settings.takesOrders),
      m_retained(needs.queue().kept(QString::fromLatin1(kRetainedKey))),
      m_since(needs.wallClock().now()),
      m_orders(
          settings.prefix, settings.maximumAgeMs, needs,
          [this](const QByteArray& topic) {
              const auto found = m_byTopic.constFind(topic);
              return found == m_byTopic.constEnd() ? nullptr : &m_variables.at(*found).declared;
          },
          [this](const MqttMessage& result) { addResult(result); }),
      m_link(makeLink ? makeLink(*this)
                      : std::make_unique<MqttConnection>(*this, m_settings.broker, needs.clock()))
{
}

void JsonPublisher::Private::setCatalogue(const Catalogue& catalogue)
{
    const QVector<Variable> old = m_variables;
    replaceVariables(catalogue);
    setUsedTopics();
    keepTopics();
    if (!std::exchange(m_isStarted, true))
        m_link->start();
    else if (isAnnounced())
        announceChanges(old);
}

// What is to be removed goes first: two announcements of one variable would be refused.
void JsonPublisher::Private::announceChanges(const QVector<Variable>& old)
{
    QHash<QByteArray, int> before;
    for (int i = 0; i < old.size(); ++i)
        before.insert(old.at(i).topic, i);
    QSet<QByteArray> waiting;
    std::deque<Job> others;
    for (const Job& job : std::exchange(m_jobs, {})) {
        if (job.kind == JobKind::Configuration)
            waiting.insert(old.at(job.variable).topic);
        else
            others.push_back(job);
    }
    m_jobs = std::move(others);
    clearObsolete();
    for (int i = 0; m_discovery.isWanted() && i < m_variables.size(); ++i) {
        const Variable& variable = m_variables.at(i);
        const auto known = before.constFind(variable.topic);
        if (known == before.constEnd() || waiting.contains(variable.topic) ||
            !isSame(variable.declared, old.at(*known).declared))
            m_jobs.push_back({JobKind::Configuration, QByteArray(), i, {}});
    }
}

void JsonPublisher::Private::replaceVariables(const Catalogue& catalogue)
{
    const QVector<Variable> old = std::exchange(m_variables, {});
    const QHash<VariableKey, int> before = std::exchange(m_numbers, {});
    m_byTopic.clear();
    m_lines = QSet<QString>(catalogue.lines.begin(), catalogue.lines.end());
    for (const CatalogueVariable& declared : catalogue.variables) {
        Variable variable;
        variable.declared = declared;
        variable.topic = m_topics.value(declared.line, declared.station, declared.name);
        const int number = m_variables.size();
        const auto known = before.constFind({declared.line, declared.name});
        if (!declared.type && known != before.constEnd())
            variable.declared.type = old.at(*known).declared.type;
        m_variables.append(variable);
        m_numbers.insert({declared.line, declared.name}, number);
        m_byTopic.insert(variable.topic, number);
    }
    forgetMissing(before, old);
}

void JsonPublisher::Private::forgetMissing(const QHash<VariableKey, int>& before,
                                           const QVector<Variable>& old)
{
    for (auto known = before.constBegin(); known != before.constEnd(); ++known) {
        const auto now = m_numbers.constFind(known.key());
        if (now == m_numbers.constEnd() ||
            m_variables.at(*now).topic != old.at(known.value()).topic)
            m_needs.flow().forget(known.key().first, known.key().second);
    }
}

// While the type of a variable is not known, what was announced before is not removed.
void JsonPublisher::Private::addDiscoveryTopics(const Variable& variable,
                                                QSet<QByteArray>& used) const
{
    if (variable.declared.type) {
        used.insert(m_discovery.entryOf(variable.declared).topic);
        return;
    }
    const QVector<QByteArray> topics = m_discovery.topicsOf(variable.declared);
    for (const QByteArray& topic : topics) {
        if (m_retained.isKnown(topic))
            used.insert(topic);
    }
}

void JsonPublisher::Private::setUsedTopics()
{
    QSet<QByteArray> used = {m_topics.status()};
    QSet<QPair<QString, int>> stations;
    for (const auto& station : qAsConst(m_stations)) {
        if (m_lines.contains(station.first))
            stations.insert(station);
    }
    for (const QString& line : qAsConst(m_lines))
        stations.insert({line, -1});
    for (const Variable& variable : qAsConst(m_variables)) {
        stations.insert({variable.declared.line, variable.declared.station});
        if (!Topics::fits(variable.topic))
            continue;
        used.insert(variable.topic);
        if (m_discovery.isWanted())
            addDiscoveryTopics(variable, used);
    }
    for (const auto& station : qAsConst(stations)) {
        used.insert(m_topics.of(station.first, station.second, "state"));
        used.insert(m_topics.of(station.first, station.second, "statistics"));
    }
    if (m_states.count({QString(), -1}) > 0)
        used.insert(m_topics.of(QString(), -1, "state"));
    m_stations = stations;
    for (auto state = m_states.begin(); state != m_states.end();)
        state = state->first.first.isEmpty() ||
                        m_stations.contains({state->first.first, state->first.second})
                    ? std::next(state)
                    : m_states.erase(state);
    m_retained.setUsed(used);
    m_hasTopicsToKeep = true;
}

// Before anything is published there, so that no topic is forgotten when the process is killed.
void JsonPublisher::Private::keepTopics()
{
    if (!std::exchange(m_hasTopicsToKeep, false))
        return;
    m_needs.queue().keep(QString::fromLatin1(kRetainedKey), m_retained.text());
    m_unkept.clear();
    m_nextKeep = m_needs.clock().now() + kKeepPause;
}

void JsonPublisher::Private::keepTopicsWhenDue()
{
    if (m_needs.clock().now() >= m_nextKeep)
        keepTopics();
}

void JsonPublisher::Private::useTopic(const QByteArray& topic)
{
    if (!m_retained.use(topic))
        return;
    m_hasTopicsToKeep = true;
    m_unkept.insert(topic);
}

void JsonPublisher::Private::handleEvent(const DeliveryEvent& event)
{
    if (event.isNotice)
        return;
    const Place place(event.line, event.station);
    if (!event.line.isEmpty() && !m_lines.contains(event.line))
        return;
    m_states[place] = event;
    useTopic(m_topics.of(event.line, event.station, "state"));
    if (!event.line.isEmpty())
        m_stations.insert({event.line, event.station});
    if (isAnnounced())
        m_jobs.push_back({JobKind::State, QByteArray(), 0, place});
}

void JsonPublisher::Private::handleStatus(const Json& lines)
{
    if (!lines.is_array() || m_stage != Stage::Flowing || m_needs.clock().now() < m_nextStatistics)
        return;
    m_nextStatistics = m_needs.clock().now() + std::chrono::seconds(m_settings.statisticsSeconds);
    publishStatistics(lines);
}

// One that the connection has no room for is left out; the next one is not far.
void JsonPublisher::Private::publishStatistics(const Json& lines)
{
    QVector<MqttMessage> messages;
    for (const Json& line : lines) {
        if (!line.is_object())
            continue;
        const QString name = QString::fromStdString(line.value("line", ""));
        if (!m_lines.contains(name))
            continue;
        Json content = line;
        const Json stations = line.value("stations", Json::array());
        content.erase("stations");
        for (const char* key : kMachineKeys)
            content.erase(key);
        messages.append(statistic(name, -1, content));
        for (const Json& station : stations) {
            const Json number = station.value("station", Json());
            if (number.is_number_integer())
                messages.append(statistic(name, number.get<int>(), station));
        }
        dropMissingStations(name, stations);
    }
    if (!m_unkept.isEmpty())
        keepTopics();
    for (const MqttMessage& message : qAsConst(messages)) {
        if (!isTooLong(message.topic))
            publish(message);
    }
}

MqttMessage JsonPublisher::Private::statistic(const QString& line, int station, Json content)
{
    MqttMessage message;
    message.topic = m_topics.of(line, station, "statistics");
    message.isRetained = true;
    content["time"] = host::timeText(m_needs.wallClock().now()).toStdString();
    message.payload = textOf(content);
    m_stations.insert({line, station});
    if (message.topic.size() <= kLongestTopic)
        useTopic(message.topic);
    return message;
}

// A station that has no variable and is not in the status any more.
void JsonPublisher::Private::dropMissingStations(const QString& line, const Json& stations)
{
    QSet<int> present = {-1};
    for (const Json& station : stations)
        present.insert(station.value("station", -1));
    for (const Variable& variable : qAsConst(m_variables)) {
        if (variable.declared.line == line)
            present.insert(variable.declared.station);
    }
    bool isMissing = false;
    for (auto station = m_stations.begin(); station != m_stations.end();) {
        const bool stays = station->first != line || present.contains(station->second);
        isMissing = isMissing || !stays;
        station = stays ? std::next(station) : m_stations.erase(station);
    }
    if (!isMissing)
        return;
    setUsedTopics();
    clearObsolete();
}

void JsonPublisher::Private::tick()
{
    m_link->tick();
    const Duration now = m_needs.clock().now();
    for (const qint64 id : std::exchange(m_dropped, {}))
        m_needs.flow().refuse(id);
    if (m_stage == Stage::Waiting && now >= m_announceAt) {
        m_stage = Stage::Announcing;
        announceAll();
    }
    if (isAnnounced() && m_birthAt && now >= *m_birthAt) {
        m_birthAt.reset();
        m_nextBirth = now + kBirthPause;
        announceVariables();
    }
    sendResults();
    work();
    m_orders.tick();
    keepTopicsWhenDue();
}

Duration JsonPublisher::Private::randomPause()
{
    std::uniform_int_distribution<int> milliseconds(0, m_settings.broker.spreadMs);
    return std::chrono::milliseconds(milliseconds(m_random));
}

void JsonPublisher::Private::announceAll()
{
    if (!m_unkept.isEmpty())
        keepTopics();
    m_jobs.clear();
    m_clearing.clear();
    clearObsolete();
    m_jobs.push_back({JobKind::Status, QByteArray(), 0, {}});
    announceVariables();
    for (const auto& state : m_states)
        m_jobs.push_back({JobKind::State, QByteArray(), 0, state.first});
    m_nextStatistics = Duration(0);
}

void JsonPublisher::Private::announceVariables()
{
    for (int i = 0; m_discovery.isWanted() && i < m_variables.size(); ++i)
        m_jobs.push_back({JobKind::Configuration, QByteArray(), i, {}});
}

void JsonPublisher::Private::clearObsolete()
{
    if (!isAnnounced())
        return;
    const QList<QByteArray> topics = m_retained.obsolete();
    for (const QByteArray& topic : topics)
        clear(topic);
}

void JsonPublisher::Private::clear(const QByteArray& topic)
{
    if (m_clearing.contains(topic))
        return;
    m_clearing.insert(topic);
    m_jobs.push_back({JobKind::Clear, topic, 0, {}});
}

void JsonPublisher::Private::work()
{
    while (isAnnounced() && !m_jobs.empty() && perform(m_jobs.front()))
        m_jobs.pop_front();
    if (m_stage == Stage::Announcing && m_jobs.empty()) {
        m_stage = Stage::Flowing;
        m_needs.flow().begin(*this);
    }
}

// False when the connection takes no more now, or its topic is not kept.
bool JsonPublisher::Private::perform(const Job& job)
{
    if (m_link->isFull())
        return false;
    const MqttMessage message = messageOf(job);
    if (message.topic.isEmpty() || isTooLong(message.topic))
        return true;
    if (job.kind != JobKind::Clear && m_unkept.contains(message.topic)) {
        keepTopicsWhenDue();
        if (m_unkept.contains(message.topic))
            return false;
    }
    return publish(message, job.kind == JobKind::Clear);
}

// Without a topic when there is nothing to do.
MqttMessage JsonPublisher::Private::messageOf(const Job& job)
{
    MqttMessage message;
    message.isRetained = true;
    if (job.kind == JobKind::Clear) {
        if (!m_retained.isUsed(job.topic))
            message.topic = job.topic;
    } else if (job.kind == JobKind::Status) {
        message.topic = m_topics.status();
        message.payload = textOf({{"state", "online"},
                                  {"version", MICRO850_VERSION},
                                  {"since", host::timeText(m_since).toStdString()}});
    } else if (job.kind == JobKind::State) {
        const auto state = m_states.find(job.place);
        if (state == m_states.end())
            return message;
        message.topic = m_topics.of(job.place.first, job.place.second, "state");
        message.payload = textOf(stateMessage(state->second));
        useTopic(message.topic);
    } else {
        const Variable& variable = m_variables.at(job.variable);
        if (!variable.declared.type || !Topics::fits(variable.topic))
            return message;
        const DiscoveryEntry entry = m_discovery.entryOf(variable.declared);
        message.topic = entry.topic;
        message.payload = textOf(entry.configuration);
        useTopic(message.topic);
    }
    return message;
}

bool JsonPublisher::Private::publish(const MqttMessage& message, bool isClear,
                                     std::optional<qint64> id)
{
    const int token = m_link->publish(message);
    if (token <= 0)
        return false;
    m_sent.insert(token, {message.topic, isClear, id, std::nullopt});
    return true;
}

bool JsonPublisher::Private::isTooLong(const QByteArray& topic)
{
    if (topic.size() <= kLongestTopic)
        return false;
    ++m_tooLong;
    m_needs.warn(QStringLiteral("long topic"), "a topic has " + QString::number(topic.size()) +
                                                   " bytes, which is more than MQTT can carry: " +
                                                   QString::fromUtf8(topic.left(100)) +
                                                   "... (choose a shorter prefix)");
    return true;
}

void JsonPublisher::Private::addResult(const MqttMessage& result)
{
    if (m_results.size() >= kMostResults) {
        m_results.pop_front();
        loseResult();
    }
    m_results.push_back(result);
    sendResults();
}

void JsonPublisher::Private::loseResult()
{
    ++m_lostResults;
    m_needs.warn(QStringLiteral("order: result"),
                 QStringLiteral("results of orders are lost: the broker did not take them"));
}

void JsonPublisher::Private::sendResults()
{
    while (m_link->isConnected() && !m_link->isFull() && sendResult())
        ;
}

// False when there is none, or when the connection takes no more.
bool JsonPublisher::Private::sendResult()
{
    if (m_results.empty())
        return false;
    const int token = m_link->publish(m_results.front());
    if (token <= 0)
        return false;
    Sent sent;
    sent.topic = m_results.front().topic;
    sent.result = m_results.front();
    m_sent.insert(token, sent);
    m_results.pop_front();
    return true;
}

// Those that the broker did not acknowledge are sent once more with the next connection.
void JsonPublisher::Private::takeResultsBack()
{
    std::map<int, MqttMessage> results; // tokens grow
    for (auto sent = m_sent.constBegin(); sent != m_sent.constEnd(); ++sent) {
        if (sent->result)
            results.emplace(sent.key(), *sent->result);
    }
    m_sent.clear();
    for (auto result = results.rbegin(); result != results.rend(); ++result)
        m_results.push_front(result->second);
    for (; m_results.size() > kMostResults; m_results.pop_front())
        loseResult();
}

bool JsonPublisher::Private::send(const QueuedMessage& message, Delivery delivery)
{
    if (m_stage != Stage::Flowing || m_link->isFull())
        return false;
    const MqttMessage out =
        message.name.isEmpty() ? eventToSend(message, delivery) : valueToSend(message, delivery);
    if (isTooLong(out.topic)) {
        m_dropped.append(message.id); // not from within the flow
        return true;
    }
    return publish(out, false, message.id);
}

MqttMessage JsonPublisher::Private::eventToSend(const QueuedMessage& message,
                                                Delivery delivery) const
{
    MqttMessage out;
    out.topic = m_topics.of(message.line, message.station, "events");
    out.payload = textOf(eventMessage(parsed(message.body), message, delivery));
    return out;
}

// A variable that is gone has no latest value any more, only a history.
MqttMessage JsonPublisher::Private::valueToSend(const QueuedMessage& message, Delivery delivery)
{
    const Json value = parsed(message.body);
    MqttMessage out;
    const QByteArray topic = m_topics.value(message.line, message.station, message.name);
    const auto known = m_byTopic.constFind(topic);
    if (known == m_byTopic.constEnd())
        delivery = Delivery::History;
    else
        learnType(m_variables[*known], value);
    out.isRetained = delivery != Delivery::History;
    out.topic = out.isRetained ? topic : Topics::history(topic);
    if (!Topics::fits(topic)) // all or none of a variable's topics
        out.topic = Topics::history(topic);
    out.payload = textOf(valueMessage(value, message, delivery));
    return out;
}

void JsonPublisher::Private::learnType(Variable& variable, const Json& value)
{
    const auto found = value.find("type");
    if (found == value.end() || !found->is_string())
        return;
    const std::string name = found->get<std::string>();
    if (variable.declared.type && name == variable.declared.type->name)
        return;
    for (const CipType& type : cipTypes()) {
        if (name == type.name)
            variable.declared.type = &type;
    }
    if (!m_discovery.isWanted() || !variable.declared.type || !Topics::fits(variable.topic))
        return;
    const QByteArray current = m_discovery.entryOf(variable.declared).topic;
    const QVector<QByteArray> topics = m_discovery.topicsOf(variable.declared);
    for (const QByteArray& topic : topics) {
        if (topic == current || !m_retained.isKnown(topic))
            continue;
        m_retained.stopUsing(topic);
        clear(topic);
    }
    useTopic(current);
    const auto number = static_cast<int>(&variable - m_variables.constData());
    m_jobs.push_back({JobKind::Configuration, QByteArray(), number, {}});
}

MqttMessage JsonPublisher::Private::will()
{
    MqttMessage message;
    message.topic = m_topics.status();
    message.payload = textOf({{"state", "offline"}});
    message.isRetained = true;
    return message;
}

void JsonPublisher::Private::handleConnected()
{
    takeResultsBack();
    m_stage = Stage::Waiting;
    m_announceAt = m_needs.clock().now() + randomPause();
    m_birthAt.reset();
    if (m_settings.takesOrders)
        m_link->subscribe(m_topics.orders());
    if (m_discovery.isWanted())
        m_link->subscribe(m_discovery.birthTopic());
}

void JsonPublisher::Private::handleDisconnected(const QString&)
{
    if (std::exchange(m_stage, Stage::Away) == Stage::Flowing)
        m_needs.flow().end();
    takeResultsBack();
    m_jobs.clear();
    m_clearing.clear();
}

void JsonPublisher::Private::handleAcknowledged(int token)
{
    const Sent sent = m_sent.take(token);
    if (sent.topic.isEmpty())
        return;
    if (sent.isClear) {
        m_clearing.remove(sent.topic);
        m_retained.remove(sent.topic);
        m_hasTopicsToKeep = true;
    }
    if (sent.id)
        m_needs.flow().acknowledge(*sent.id);
}

// It would be refused again and again: what the broker does not want is not kept for it.
void JsonPublisher::Private::handleRefused(int token, const QString& reason)
{
    const Sent sent = m_sent.take(token);
    ++m_refused;
    m_needs.warn(QStringLiteral("refused by the broker"),
                 sent.topic.isEmpty() ? reason
                                      : QString::fromUtf8(sent.topic.left(200)) + ": " + reason);
    if (sent.id)
        m_needs.flow().refuse(*sent.id);
}

void JsonPublisher::Private::handleMessage(const MqttMessage& message)
{
    if (m_discovery.isWanted() && message.topic == m_discovery.birthTopic()) {
        // One that comes before everything is announced anyway may be a retained one.
        if (message.payload != "online" || m_stage != Stage::Flowing || m_birthAt)
            return;
        m_birthAt = std::max(m_needs.clock().now() + randomPause(), m_nextBirth);
        return;
    }
    if (m_settings.takesOrders)
        m_orders.handle(message);
}

// Who gave an order gets its result before the status that says that the rest is of the past. A
// connection that does not take the status ends without a farewell: the broker tells it instead.
void JsonPublisher::Private::stop(Duration limit)
{
    keepTopics();
    m_orders.end();
    while (sendResult())
        ;
    if (!m_link->isConnected() || m_link->publish(will()) > 0)
        m_link->stop(limit);
    takeResultsBack();
    for (; !m_results.empty(); m_results.pop_front())
        loseResult();
}

Json JsonPublisher::Private::status() const
{
    Json object = {{"connection", m_link->status()}, {"refusedByBroker", m_refused}};
    if (m_tooLong > 0)
        object["topicsTooLong"] = m_tooLong;
    if (m_lostResults > 0)
        object["resultsLost"] = m_lostResults;
    if (m_settings.takesOrders)
        object["orders"] = m_orders.status();
    return object;
}

JsonPublisher::JsonPublisher(const MqttSettings& settings, PublisherNeeds& needs)
    : JsonPublisher(settings, needs, MakeLink())
{
}

JsonPublisher::JsonPublisher(const MqttSettings& settings, PublisherNeeds& needs,
                             const MakeLink& makeLink)
    : m_private(std::make_unique<Private>(settings, needs, makeLink))
{
}

JsonPublisher::~JsonPublisher() = default;

void JsonPublisher::setCatalogue(const Catalogue& catalogue)
{
    m_private->setCatalogue(catalogue);
}

void JsonPublisher::handleEvent(const DeliveryEvent& event)
{
    m_private->handleEvent(event);
}

void JsonPublisher::handleStatus(const Json& lines)
{
    m_private->handleStatus(lines);
}

void JsonPublisher::tick()
{
    m_private->tick();
}

void JsonPublisher::stop(Duration limit)
{
    m_private->stop(limit);
}

Json JsonPublisher::status() const
{
    return m_private->status();
}

} // namespace micro850::gateway
