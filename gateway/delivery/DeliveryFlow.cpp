#include "DeliveryFlow.h"

#include <QtCore/QHash>
#include <QtCore/QPair>
#include <QtCore/QSet>

#include <algorithm>
#include <deque>
#include <limits>
#include <map>

namespace micro850::gateway {

namespace {

const std::chrono::milliseconds kCommitInterval(100);
// Live messages that waited for so long are history: what a variable shows would be old.
const std::chrono::seconds kMostBehind(10);
// So many are read from the queue at once.
const int kMostRead = 256;
// History leaves room for what comes.
const int kHistoryWindow = DeliveryFlow::kWindow / 2;
// At most what is due in this part of a second goes out at once.
const double kBurstSeconds = 0.25;

const qint64 kBeforeAll = std::numeric_limits<qint64>::min() / 2;

// Ids of what is not queued are greater than those of a queue ever are.
const qint64 kRemembered = qint64(1) << 60;

using Name = QPair<QString, QString>;

} // namespace

class DeliveryFlow::Private
{
public:
    Private(DeliveryQueue& queue, const DeliveryQueueSettings& settings, const Clock& clock);

    void begin(Outlet& outlet);
    void acknowledge(qint64 id, bool refused);
    void remember(QueuedMessage message);
    void commit();
    void tick();
    host::Json status() const;

    DeliveryQueue& m_queue;
    Outlet* m_outlet = nullptr;
    /// What was sent and is not acknowledged.
    struct Flight
    {
        Name name;
        bool isQueued = true; ///< the queue has it
    };
    QHash<qint64, Flight> m_inFlight; ///< by id

    /// The last committed message of each variable.
    struct Latest
    {
        QueuedMessage message;
        bool isQueued = true;
    };
    QHash<Name, Latest> m_latest;
    std::deque<Name> m_toShow; ///< whose latest message goes out first

private:
    void noteLatest(const QueuedMessage& message);
    void showLatest(qint64 after);
    void catchUp();
    bool isCommitDue() const;
    int room(int window) const;
    bool send(const QueuedMessage& message, Delivery delivery, bool isQueued);
    void sendLatest();
    void sendLive();
    void sendHistory();
    void earnHistory();

    const DeliveryQueueSettings m_settings;
    const Clock& m_clock;

    // Messages up to m_live were sent or are history. Of these, those up to m_history were sent, or
    // are in flight.
    qint64 m_live = 0;
    qint64 m_history = kBeforeAll;
    int m_generation = 0;
    /// By the last message of a commit: when it was done, as long as not all of it was sent.
    std::map<qint64, Duration> m_commits;
    Duration m_committedAt;
    double m_allowance = 0; ///< messages of history that may be sent now
    Duration m_earnedAt;

    qint64 m_remembered = kRemembered;
    qint64 m_sent = 0;
    qint64 m_acknowledged = 0;
    qint64 m_repeated = 0;
    qint64 m_asHistory = 0;
    qint64 m_refused = 0;
};

DeliveryFlow::Private::Private(DeliveryQueue& queue, const DeliveryQueueSettings& settings,
                               const Clock& clock)
    : m_queue(queue), m_settings(settings), m_clock(clock), m_generation(queue.generation()),
      m_committedAt(clock.now() - kCommitInterval), m_earnedAt(clock.now())
{
    for (const QueuedMessage& message : queue.latest())
        noteLatest(message);
}

void DeliveryFlow::Private::noteLatest(const QueuedMessage& message)
{
    if (!message.name.isEmpty())
        m_latest[Name(message.line, message.name)] = {message, true};
}

void DeliveryFlow::Private::remember(QueuedMessage message)
{
    const Name name(message.line, message.name);
    const auto known = m_latest.constFind(name);
    if (known != m_latest.constEnd() && known->message.time >= message.time)
        return;
    message.id = ++m_remembered;
    message.series = 0;
    message.sequence = 0;
    m_latest[name] = {message, false};
    if (m_outlet)
        m_toShow.push_back(name);
}

// ---- The connection -----------------------------------------------------------------------------

void DeliveryFlow::Private::begin(Outlet& outlet)
{
    m_outlet = &outlet;
    m_inFlight.clear();
    m_earnedAt = m_clock.now();
    m_allowance = 0;
    showLatest(kBeforeAll);
}

// Everything that waits is history but for the latest message of each variable after `after`.
void DeliveryFlow::Private::showLatest(qint64 after)
{
    m_live = m_queue.lastId();
    m_history = kBeforeAll;
    m_commits.clear();
    QSet<Name> already;
    for (const Name& name : m_toShow)
        already.insert(name);
    QVector<QPair<qint64, Name>> names;
    for (auto each = m_latest.constBegin(); each != m_latest.constEnd(); ++each) {
        const bool isWanted =
            after == kBeforeAll || (each->message.id > after && each->message.id < kRemembered);
        if (isWanted && !already.contains(each.key()))
            names.append(qMakePair(each->message.id, each.key()));
    }
    std::sort(names.begin(), names.end());
    for (const auto& each : names)
        m_toShow.push_back(each.second);
}

void DeliveryFlow::Private::acknowledge(qint64 id, bool refused)
{
    const auto found = m_inFlight.find(id);
    if (found == m_inFlight.end())
        return;
    const Flight flight = *found;
    m_inFlight.erase(found);
    ++(refused ? m_refused : m_acknowledged);
    if (flight.isQueued)
        m_queue.remove(id);
    const auto latest = m_latest.find(flight.name);
    if (latest == m_latest.end() || latest->message.id != id)
        return;
    if (refused)
        m_latest.erase(latest);
    else
        latest->isQueued = false;
}

// ---- Sending ------------------------------------------------------------------------------------

int DeliveryFlow::Private::room(int window) const
{
    return window - m_inFlight.size() - m_queue.removing();
}

// Also when it is acknowledged before it returns, and when the connection ends.
bool DeliveryFlow::Private::send(const QueuedMessage& message, Delivery delivery, bool isQueued)
{
    if (!m_outlet)
        return false;
    m_inFlight[message.id] = {Name(message.line, message.name), isQueued};
    if (!m_outlet->send(message, delivery)) {
        m_inFlight.remove(message.id);
        return false;
    }
    ++m_sent;
    m_repeated += delivery == Delivery::Repeated ? 1 : 0;
    m_asHistory += delivery == Delivery::History ? 1 : 0;
    return true;
}

void DeliveryFlow::Private::sendLatest()
{
    while (m_outlet && !m_toShow.empty() && room(kWindow) > 0) {
        const auto latest = m_latest.find(m_toShow.front());
        // A later one comes as live.
        const bool isWanted = latest != m_latest.end() &&
                              !m_inFlight.contains(latest->message.id) &&
                              (latest->message.id <= m_live || latest->message.id >= kRemembered);
        if (isWanted) {
            const Latest shown = *latest; // it may change while it is sent
            if (!send(shown.message, shown.isQueued ? Delivery::Live : Delivery::Repeated,
                      shown.isQueued))
                return;
        }
        if (m_toShow.empty())
            return; // the connection ended
        m_toShow.pop_front();
    }
}

void DeliveryFlow::Private::sendLive()
{
    while (m_outlet && m_toShow.empty() && room(kWindow) > 0) {
        const auto messages = m_queue.after(m_live, std::min(room(kWindow), kMostRead));
        if (messages.isEmpty() || m_generation != m_queue.generation())
            return;
        for (const QueuedMessage& message : messages) {
            if (!send(message, Delivery::Live, true))
                return;
            if (m_history == m_live)
                m_history = message.id;
            m_live = message.id;
        }
    }
}

void DeliveryFlow::Private::earnHistory()
{
    const double seconds = std::chrono::duration<double>(m_clock.now() - m_earnedAt).count();
    m_earnedAt = m_clock.now();
    const double most = std::max(1.0, m_settings.historyPerSecond * kBurstSeconds);
    m_allowance = std::min(most, m_allowance + seconds * m_settings.historyPerSecond);
}

void DeliveryFlow::Private::sendHistory()
{
    earnHistory();
    while (m_outlet && m_allowance >= 1 && m_history < m_live && room(kHistoryWindow) > 0) {
        const auto messages = m_queue.after(m_history, std::min(room(kHistoryWindow), kMostRead));
        if (m_generation != m_queue.generation())
            return;
        if (messages.isEmpty())
            m_history = m_live;
        for (const QueuedMessage& message : messages) {
            if (message.id > m_live) {
                m_history = m_live;
                return;
            }
            if (!m_inFlight.contains(message.id)) {
                if (m_allowance < 1 || !send(message, Delivery::History, true))
                    return;
                --m_allowance;
            }
            m_history = message.id;
        }
    }
}

// ---- The queue ----------------------------------------------------------------------------------

bool DeliveryFlow::Private::isCommitDue() const
{
    // A window that is full of what only has to be deleted does not wait.
    return m_clock.now() - m_committedAt >= kCommitInterval || m_queue.isFull() ||
           m_queue.removing() >= kWindow / 2;
}

void DeliveryFlow::Private::commit()
{
    m_committedAt = m_clock.now();
    const auto added = m_queue.commit();
    for (const QueuedMessage& message : added)
        noteLatest(message);
    if (m_outlet && !added.isEmpty())
        m_commits[added.last().id] = m_clock.now();
}

// A broker that is too slow gets the latest values, and what it did not take as history.
void DeliveryFlow::Private::catchUp()
{
    m_commits.erase(m_commits.begin(), m_commits.upper_bound(m_live));
    if (!m_commits.empty() && m_clock.now() - m_commits.begin()->second > kMostBehind)
        showLatest(m_live);
}

void DeliveryFlow::Private::tick()
{
    if (isCommitDue())
        commit();
    if (m_generation != m_queue.generation()) {
        m_generation = m_queue.generation();
        m_history = kBeforeAll;
    }
    sendLatest();
    sendLive();
    if (m_toShow.empty())
        sendHistory();
    catchUp();
}

host::Json DeliveryFlow::Private::status() const
{
    host::Json object = m_queue.status();
    object["sent"] = m_sent;
    object["acknowledged"] = m_acknowledged;
    object["repeated"] = m_repeated;
    object["history"] = m_asHistory;
    object["refused"] = m_refused;
    object["inFlight"] = m_inFlight.size();
    return object;
}

// ---- DeliveryFlow -------------------------------------------------------------------------------

DeliveryFlow::DeliveryFlow(DeliveryQueue& queue, const DeliveryQueueSettings& settings,
                           const Clock& clock)
    : m_private(new Private(queue, settings, clock))
{
}

DeliveryFlow::~DeliveryFlow() = default;

void DeliveryFlow::add(QueuedMessage message, const DeliveryQueue::Fed& fed)
{
    if (m_private->m_queue.isFull())
        m_private->commit();
    m_private->m_queue.add(std::move(message), fed);
}

void DeliveryFlow::skip(const DeliveryQueue::Fed& fed)
{
    m_private->m_queue.skip(fed);
}

void DeliveryFlow::remember(QueuedMessage message)
{
    m_private->remember(std::move(message));
}

void DeliveryFlow::visitLatest(const std::function<void(const QueuedMessage& message)>& visit) const
{
    for (const auto& latest : std::as_const(m_private->m_latest))
        visit(latest.message);
}

void DeliveryFlow::begin(Outlet& outlet)
{
    m_private->begin(outlet);
}

void DeliveryFlow::end()
{
    m_private->m_outlet = nullptr;
    m_private->m_inFlight.clear();
    m_private->m_toShow.clear();
}

void DeliveryFlow::acknowledge(qint64 id)
{
    m_private->acknowledge(id, false);
}

void DeliveryFlow::refuse(qint64 id)
{
    m_private->acknowledge(id, true);
}

void DeliveryFlow::forget(const QString& line, const QString& name)
{
    m_private->m_latest.remove({line, name});
}

DeliveryQueue::Fed DeliveryFlow::tick()
{
    m_private->tick();
    return m_private->m_queue.fed();
}

host::Json DeliveryFlow::status() const
{
    return m_private->status();
}

} // namespace micro850::gateway
