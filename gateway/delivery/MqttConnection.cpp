#include "MqttConnection.h"

#include "GrowingPause.h"
#include "Mailbox.h"
#include "MqttAttempt.h"
#include "WallClock.h"

#include <QtCore/QSysInfo>

#include <mosquitto.h>

#include <random>

namespace micro850::gateway {

namespace {

const std::chrono::seconds kFirstPause(1);
const std::chrono::seconds kLongestPause(60);
// A connection that lasted so long was good: the next pause is the first one again. Two clients
// with one client id take the connection from each other after their pauses.
const std::chrono::seconds kSteadyAfter = 2 * kLongestPause;
// After so many connections that the broker closed soon another client is likely to be the cause.
const int kManyClosed = 3;
// A thread that only waits for its sockets ends at once.
const std::chrono::milliseconds kTimeToEnd(500);
const qint64 kMostWaiting = qint64(2) * 1024 * 1024;

// Each pause is between half of it and all of it, so that clients that lost their broker together
// do not come back together.
Duration spread(Duration pause)
{
    static std::mt19937 random{std::random_device{}()};
    const auto half = pause.count() / 2;
    return Duration(half + std::uniform_int_distribution<std::int64_t>(0, half)(random));
}

/// The way from a thread to the event loop, which may be gone by then.
class Bell
{
public:
    explicit Bell(Mailbox* mailbox) : m_mailbox(mailbox) {}

    void ring(std::function<void()> letter)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_mailbox != nullptr)
            m_mailbox->post(std::move(letter));
    }
    void close()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_mailbox = nullptr;
    }

private:
    std::mutex m_mutex;
    Mailbox* m_mailbox;
};

} // namespace

QString machineClientId(const QString& kind)
{
    return QStringLiteral("micro850-%1-%2").arg(QSysInfo::machineHostName(), kind);
}

class MqttConnection::Private
{
public:
    enum class State { Stopped, Waiting, Connecting, Connected };

    Private(Owner& itsOwner, BrokerAddress itsAddress, const Clock& itsClock, Duration itsPatience);
    ~Private();

    void tick();
    void stop(Duration limit);
    void begin();
    void handleEvents();
    void handle(const MqttEvent& event);
    void handleEnd(const MqttEvent& event);
    void setState(State state);
    host::Json status() const;

    Owner& owner;
    BrokerAddress address;
    const Clock& clock;
    const Duration patience;
    Mailbox mailbox;
    std::shared_ptr<Bell> bell;
    std::shared_ptr<MqttAttempt> attempt;
    State state = State::Stopped;
    host::GrowingPause pause{kFirstPause, kLongestPause};
    Duration nextAttempt{0};
    Duration connectedAt{0};
    int closed = 0; ///< connections by the broker, one after the other, each soon
    bool isVersion5;
    bool retainsWill = true;
    bool isEnding = false; ///< reconnect() was called for the attempt
    int lastToken = 0;
    qint64 since = 0;
    qint64 attempts = 0;
    qint64 connections = 0;
    QString reason;
};

MqttConnection::Private::Private(Owner& itsOwner, BrokerAddress itsAddress, const Clock& itsClock,
                                 Duration itsPatience)
    : owner(itsOwner), address(std::move(itsAddress)), clock(itsClock), patience(itsPatience),
      bell(std::make_shared<Bell>(&mailbox)), isVersion5(address.isVersion5)
{
    static const int isInitialised = mosquitto_lib_init();
    Q_UNUSED(isInitialised)
    if (address.clientId.isEmpty())
        address.clientId = machineClientId(QStringLiteral("mqtt"));
    setState(State::Stopped);
}

MqttConnection::Private::~Private()
{
    bell->close();
    if (!attempt)
        return;
    attempt->end(QStringLiteral("the gateway ends"));
    attempt->waitForEnd(kTimeToEnd);
}

void MqttConnection::Private::setState(State newState)
{
    state = newState;
    since = SystemWallClock().now();
}

void MqttConnection::Private::tick()
{
    if (state == State::Waiting && clock.now() >= nextAttempt)
        begin();
    if (state == State::Connected && clock.now() - connectedAt >= kSteadyAfter) {
        pause.reset();
        closed = 0;
    }
}

void MqttConnection::Private::begin()
{
    MqttAttempt::Settings settings;
    settings.address = address;
    settings.patience = patience;
    settings.isVersion5 = isVersion5;
    settings.retainsWill = retainsWill;
    settings.will = owner.will();
    isEnding = false;
    ++attempts;
    setState(State::Connecting);
    const auto current = std::make_shared<std::weak_ptr<MqttAttempt>>();
    attempt = MqttAttempt::start(
        settings, [this, current = bell] { current->ring([this] { handleEvents(); }); });
}

void MqttConnection::Private::handleEvents()
{
    // What an event leads to may end the connection.
    const std::shared_ptr<MqttAttempt> kept = attempt;
    if (!kept)
        return;
    for (const MqttEvent& event : kept->takeEvents()) {
        if (attempt != kept)
            return;
        handle(event);
    }
}

void MqttConnection::Private::handle(const MqttEvent& event)
{
    if (event.kind == MqttEvent::Kind::Ended) {
        handleEnd(event);
        return;
    }
    if (isEnding)
        return;
    switch (event.kind) {
    case MqttEvent::Kind::Connected:
        setState(State::Connected);
        connectedAt = clock.now();
        ++connections;
        reason.clear();
        owner.handleConnected();
        break;
    case MqttEvent::Kind::Acknowledged:
        owner.handleAcknowledged(event.number);
        break;
    case MqttEvent::Kind::Refused:
        owner.handleRefused(event.number, event.reason);
        break;
    case MqttEvent::Kind::Message: {
        MqttMessage message = event.message;
        message.waited =
            std::chrono::duration_cast<Duration>(std::chrono::steady_clock::now() - event.came);
        owner.handleMessage(message);
        break;
    }
    case MqttEvent::Kind::Pong:
        owner.handlePong(event.number);
        break;
    case MqttEvent::Kind::Ended:
        break;
    }
}

void MqttConnection::Private::handleEnd(const MqttEvent& event)
{
    attempt.reset();
    reason = event.reason;
    if (state == State::Connected && event.isByBroker && ++closed >= kManyClosed)
        reason += QStringLiteral(" again and again (has another client the client id %1, too?)")
                      .arg(address.clientId);
    setState(State::Waiting);
    retainsWill = !event.refusesRetained;
    // A broker without MQTT 5 is asked again whether it has it by now, once that connection is
    // over.
    const bool triesOther = event.refusesVersion && isVersion5;
    isVersion5 = address.isVersion5 && !triesOther;
    nextAttempt = clock.now();
    if (!triesOther)
        nextAttempt += spread(pause.next());
    owner.handleDisconnected(reason);
}

// The events of an orderly end are handled here, since the event loop does not run meanwhile.
void MqttConnection::Private::stop(Duration limit)
{
    const std::shared_ptr<MqttAttempt> last = attempt;
    if (last) {
        last->finish();
        if (!last->waitForEnd(limit)) {
            last->end(QStringLiteral("the gateway ends"));
            last->waitForEnd(kTimeToEnd);
        }
        for (const MqttEvent& event : last->takeEvents()) {
            if (event.kind == MqttEvent::Kind::Acknowledged)
                owner.handleAcknowledged(event.number);
            else if (event.kind == MqttEvent::Kind::Pong)
                owner.handlePong(event.number);
        }
    }
    attempt.reset();
    setState(State::Stopped);
}

host::Json MqttConnection::Private::status() const
{
    const auto text = [this] {
        switch (state) {
        case State::Connected:
            return "connected";
        case State::Connecting:
            return "connecting";
        case State::Waiting:
            return "waiting";
        case State::Stopped:
            break;
        }
        return "stopped";
    };
    host::Json status;
    status["state"] = text();
    const bool isBare = address.host.contains(QLatin1Char(':'));
    status["broker"] = (isBare ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2"))
                           .arg(address.host)
                           .arg(address.port)
                           .toStdString();
    status["version"] = isVersion5 ? "5" : "3.1.1";
    status["since"] = since;
    status["attempts"] = attempts;
    status["connections"] = connections;
    if (!reason.isEmpty())
        status["reason"] = reason.toStdString();
    return status;
}

MqttConnection::MqttConnection(Owner& owner, const BrokerAddress& address, const Clock& clock,
                               Duration patience)
    : m_private(std::make_unique<Private>(owner, address, clock, patience))
{
}

MqttConnection::~MqttConnection() = default;

void MqttConnection::start()
{
    if (m_private->state != Private::State::Stopped)
        return;
    m_private->nextAttempt = m_private->clock.now();
    m_private->setState(Private::State::Waiting);
    m_private->tick();
}

void MqttConnection::reconnect(const QString& reason)
{
    if (!m_private->attempt)
        return;
    m_private->isEnding = true;
    m_private->attempt->end(reason);
}

void MqttConnection::stop(Duration limit)
{
    m_private->stop(limit);
}

void MqttConnection::tick()
{
    m_private->tick();
}

bool MqttConnection::isConnected() const
{
    return m_private->state == Private::State::Connected && !m_private->isEnding;
}

void MqttConnection::subscribe(const QByteArray& topic)
{
    if (!isConnected())
        return;
    MqttCommand command{MqttCommand::Kind::Subscribe};
    command.message.topic = topic;
    m_private->attempt->add(std::move(command));
}

int MqttConnection::publish(const MqttMessage& message)
{
    if (!isConnected() || isFull())
        return 0;
    m_private->lastToken = m_private->lastToken % std::numeric_limits<int>::max() + 1;
    MqttCommand command{MqttCommand::Kind::Publish, m_private->lastToken, message};
    m_private->attempt->add(std::move(command));
    return m_private->lastToken;
}

void MqttConnection::ping(int number)
{
    if (isConnected())
        m_private->attempt->add(MqttCommand(MqttCommand::Kind::Ping, number));
}

bool MqttConnection::isFull() const
{
    return m_private->attempt && m_private->attempt->waitingBytes() >= kMostWaiting;
}

host::Json MqttConnection::status() const
{
    return m_private->status();
}

} // namespace micro850::gateway
