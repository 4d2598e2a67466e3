#include "MqttAttempt.h"

#include "UserError.h"
#include "VisibleText.h"

#include <mosquitto.h>
#include <mqtt_protocol.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace micro850::gateway {

namespace {

const std::chrono::milliseconds kCareInterval(500);
// The broker reads the last packet and closes the connection.
const std::chrono::milliseconds kFinishLimit(1000);
// More stays with the library, or in the socket.
const int kMostToBroker = 256 * 1024;
// Further events wait in the network.
const qint64 kMostEventBytes = qint64(1024) * 1024;
const qint64 kEventSize = 200;
const int kTransferSize = 16 * 1024;
// After that a message may have waited for this thread, which stood still or had no room.
const std::chrono::seconds kStoodStill(1);
// Messages of QoS 1 that the broker has not acknowledged; MQTT 5 brokers say themselves how many
// they take.
const int kMostInFlight = 200;
// A broker of MQTT 5 sends no longer message to this client. What is longer than IncomingPackets
// keeps and shorter than this is answered as too long.
const uint32_t kMostIncoming = 16 * 1024 * 1024;
const size_t kLongestReason = 300;
// No client subscribes it.
const char* const kPingTopic = "micro850/ping";

enum Refusal {
    kOldUnacceptableVersion = 1,
    kOldBadIdentifier = 2,
    kOldUnavailable = 3,
    kOldBadUser = 4,
    kOldNotAuthorised = 5
};

void closeDescriptor(int& descriptor)
{
    if (descriptor >= 0)
        ::close(descriptor);
    descriptor = -1;
}

QString reasonText(const mosquitto_property* properties)
{
    char* text = nullptr;
    if (mosquitto_property_read_string(properties, MQTT_PROP_REASON_STRING, &text, false) ==
        nullptr)
        return {};
    const std::string shown = inQuotes(shortened(text, kLongestReason));
    std::free(text);
    return QString::fromStdString(shown);
}

QByteArray correlationOf(const mosquitto_property* properties)
{
    void* bytes = nullptr;
    uint16_t size = 0;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &bytes, &size,
                                       false) == nullptr)
        return {};
    const QByteArray correlation(static_cast<const char*>(bytes), size);
    std::free(bytes);
    return correlation;
}

QString withText(const QString& reason, const QString& text)
{
    return text.isEmpty() ? reason : reason + QStringLiteral(": ") + text;
}

/// Properties of MQTT 5 for one call.
class Properties
{
public:
    Properties() = default;
    ~Properties() { mosquitto_property_free_all(&m_list); }
    Properties(const Properties&) = delete;
    Properties& operator=(const Properties&) = delete;

    mosquitto_property** out() { return &m_list; }
    const mosquitto_property* list() const { return m_list; }

private:
    mosquitto_property* m_list = nullptr;
};

// The library only connects to an address. So it connects to a listener of this process first, and
// then gets the end of the pair in place of that connection.
class LocalListener
{
public:
    LocalListener() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        if (m_socket < 0 || ::bind(m_socket, generic, size) != 0 || ::listen(m_socket, 1) != 0 ||
            ::getsockname(m_socket, generic, &size) != 0)
        {
            const int error = errno;
            closeDescriptor(m_socket);
            throw UserError(std::string("a socket on the loop-back address: ") +
                                std::strerror(error),
                            kExitRefused);
        }
        m_port = ntohs(address.sin_port);
    }
    ~LocalListener() { closeDescriptor(m_socket); }
    LocalListener(const LocalListener&) = delete;
    LocalListener& operator=(const LocalListener&) = delete;

    int port() const { return m_port; }

private:
    int m_socket;
    int m_port = 0;
};

} // namespace

// The library calls them on the thread of the connection.
struct MqttAttempt::Callbacks
{
    static MqttAttempt& of(void* object) { return *static_cast<MqttAttempt*>(object); }

    static void connected(mosquitto* /*client*/, void* object, int code, int /*flags*/,
                          const mosquitto_property* properties)
    {
        MqttAttempt& attempt = of(object);
        if (code == 0) {
            attempt.m_isConnected = true;
            attempt.tell(MqttEvent(MqttEvent::Kind::Connected));
            return;
        }
        attempt.m_refusesVersion =
            code == kOldUnacceptableVersion || code == MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION;
        attempt.m_refusesRetained = code == MQTT_RC_RETAIN_NOT_SUPPORTED;
        attempt.m_reason = attempt.refusalText(code, reasonText(properties));
    }

    static void disconnected(mosquitto* /*client*/, void* object, int code,
                             const mosquitto_property* properties)
    {
        MqttAttempt& attempt = of(object);
        // Below are errors of the library, which the caller of its functions sees.
        if (code == MQTT_RC_SESSION_TAKEN_OVER && attempt.m_reason.isEmpty())
            attempt.m_reason = withText(
                QStringLiteral("another client came with the client id %1: each needs its own")
                    .arg(attempt.m_settings.address.clientId),
                reasonText(properties));
        if (code >= MQTT_RC_UNSPECIFIED && attempt.m_reason.isEmpty())
            attempt.m_reason = withText(QStringLiteral("the broker ends the connection: %1")
                                            .arg(QLatin1String(mosquitto_reason_string(code))),
                                        reasonText(properties));
    }

    static void published(mosquitto* /*client*/, void* object, int identifier, int code,
                          const mosquitto_property* properties)
    {
        QString refusal;
        if (code >= MQTT_RC_UNSPECIFIED)
            refusal = withText(QStringLiteral("the broker refuses the message: %1")
                                   .arg(QLatin1String(mosquitto_reason_string(code))),
                               reasonText(properties));
        of(object).settle(identifier, refusal);
    }

    static void subscribed(mosquitto* /*client*/, void* object, int identifier, int count,
                           const int* granted, const mosquitto_property* properties)
    {
        MqttAttempt& attempt = of(object);
        const auto found = attempt.m_subscriptions.find(identifier);
        if (found == attempt.m_subscriptions.end())
            return;
        if (count < 1 || granted[0] >= MQTT_RC_UNSPECIFIED) {
            MqttEvent event{MqttEvent::Kind::Refused};
            const QString topic = QString::fromStdString(inQuotes(found->second.toStdString()));
            event.reason =
                withText(QStringLiteral("the broker refuses the subscription of %1").arg(topic),
                         reasonText(properties));
            attempt.tell(std::move(event));
        }
        attempt.m_subscriptions.erase(found);
    }

    static void unsubscribed(mosquitto* /*client*/, void* object, int identifier,
                             const mosquitto_property* /*properties*/)
    {
        MqttAttempt& attempt = of(object);
        const auto found = attempt.m_pings.find(identifier);
        if (found == attempt.m_pings.end())
            return;
        MqttEvent event{MqttEvent::Kind::Pong};
        event.number = found->second;
        attempt.m_pings.erase(found);
        attempt.tell(std::move(event));
    }

    static void message(mosquitto* /*client*/, void* object, const mosquitto_message* message,
                        const mosquitto_property* properties)
    {
        MqttEvent event{MqttEvent::Kind::Message};
        event.message.topic = message->topic;
        event.message.payload =
            QByteArray(static_cast<const char*>(message->payload), message->payloadlen);
        event.message.qos = message->qos;
        event.message.isRetained = message->retain;
        event.message.isCut = of(object).m_incoming.takeIsCut();
        event.message.correlation = correlationOf(properties);
        uint32_t expiry = 0;
        if (mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &expiry,
                                          false) != nullptr)
            event.message.expirySeconds = expiry;
        event.came = of(object).m_came;
        of(object).tell(std::move(event));
    }
};

std::shared_ptr<MqttAttempt> MqttAttempt::start(Settings settings, std::function<void()> notify)
{
    const std::shared_ptr<MqttAttempt> attempt(
        new MqttAttempt(std::move(settings), std::move(notify)));
    // Signals are for the thread of the event loop; writing to a closed socket ends nothing.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread([attempt] { attempt->run(); }).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return attempt;
}

MqttAttempt::MqttAttempt(Settings settings, std::function<void()> notify)
    : m_settings(std::move(settings)), m_notify(std::move(notify)),
      m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), m_incoming(m_settings.isVersion5)
{
}

MqttAttempt::~MqttAttempt()
{
    closeDescriptor(m_wake);
}

void MqttAttempt::wake()
{
    ::eventfd_write(m_wake, 1);
}

void MqttAttempt::add(MqttCommand command)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (command.kind == MqttCommand::Kind::Publish)
            m_waitingBytes += command.message.topic.size() + command.message.payload.size();
        m_commands.push_back(std::move(command));
    }
    wake();
}

std::vector<MqttEvent> MqttAttempt::takeEvents()
{
    std::vector<MqttEvent> events;
    bool wasMuch = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isTold = false;
        events.swap(m_events);
        wasMuch = m_eventBytes >= kMostEventBytes;
        m_eventBytes = 0;
    }
    if (wasMuch)
        wake();
    return events;
}

qint64 MqttAttempt::waitingBytes() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_waitingBytes;
}

void MqttAttempt::end(const QString& reason)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_endReason)
            m_endReason = reason;
    }
    wake();
}

void MqttAttempt::finish()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_isFinishing = true;
    }
    wake();
}

bool MqttAttempt::waitForEnd(Duration limit)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_ended.wait_for(lock, limit, [this] { return m_isOver; });
}

void MqttAttempt::tell(MqttEvent event)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_eventBytes += kEventSize + event.message.topic.size() + event.message.payload.size() +
                        event.message.correlation.size() + event.reason.size();
        m_events.push_back(std::move(event));
        if (m_isTold)
            return;
        m_isTold = true;
    }
    m_notify();
}

void MqttAttempt::run()
{
    MqttEvent event{MqttEvent::Kind::Ended};
    try {
        event.reason = runConnection();
    } catch (const std::exception& error) {
        event.reason = QString::fromUtf8(error.what());
    }
    m_broker.reset();
    if (m_client != nullptr)
        mosquitto_destroy(m_client);
    m_client = nullptr;
    closeDescriptor(m_ourEnd);
    event.isByBroker = m_isByBroker;
    event.refusesVersion = m_refusesVersion;
    event.refusesRetained = m_refusesRetained;
    tell(std::move(event));
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_isOver = true;
    m_ended.notify_all();
}

QString MqttAttempt::runConnection()
{
    makeClient();
    m_broker = std::make_unique<BrokerSocket>(m_settings.address, m_settings.patience, m_wake);
    m_broker->connect();
    connectClient();
    return pump();
}

void MqttAttempt::makeClient()
{
    const BrokerAddress& address = m_settings.address;
    m_client = mosquitto_new(address.clientId.toUtf8().constData(), true, this);
    if (m_client == nullptr)
        throw UserError("no client for " + address.clientId.toStdString());
    // It only queues what it is told; pump() sends.
    mosquitto_threaded_set(m_client, true);
    mosquitto_int_option(m_client, MOSQ_OPT_PROTOCOL_VERSION,
                         m_settings.isVersion5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311);
    mosquitto_int_option(m_client, MOSQ_OPT_SEND_MAXIMUM, kMostInFlight);
    mosquitto_connect_v5_callback_set(m_client, Callbacks::connected);
    mosquitto_disconnect_v5_callback_set(m_client, Callbacks::disconnected);
    mosquitto_publish_v5_callback_set(m_client, Callbacks::published);
    mosquitto_subscribe_v5_callback_set(m_client, Callbacks::subscribed);
    mosquitto_unsubscribe_v5_callback_set(m_client, Callbacks::unsubscribed);
    mosquitto_message_v5_callback_set(m_client, Callbacks::message);
    const MqttMessage& will = m_settings.will;
    if (!will.topic.isEmpty()) {
        const int error = mosquitto_will_set_v5(
            m_client, will.topic.constData(), will.payload.size(), will.payload.constData(),
            will.qos, will.isRetained && m_settings.retainsWill, nullptr);
        if (error != MOSQ_ERR_SUCCESS)
            throw UserError(std::string("the Will: ") + mosquitto_strerror(error));
    }
    if (!address.credentialsFile.isEmpty()) {
        const BrokerCredentials credentials = readCredentials(address.credentialsFile);
        mosquitto_username_pw_set(m_client, credentials.user.c_str(), credentials.password.c_str());
    }
}

void MqttAttempt::connectClient()
{
    Properties properties;
    if (m_settings.isVersion5)
        mosquitto_property_add_int32(properties.out(), MQTT_PROP_MAXIMUM_PACKET_SIZE,
                                     kMostIncoming);
    const LocalListener listener;
    const int error =
        mosquitto_connect_bind_v5(m_client, "127.0.0.1", listener.port(),
                                  m_settings.address.keepAliveSeconds, nullptr, properties.list());
    if (error != MOSQ_ERR_SUCCESS)
        throw UserError(mosquitto_strerror(error), kExitRefused);
    std::array<int, 2> ends = {-1, -1};
    m_clientEnd = mosquitto_socket(m_client);
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends.data()) != 0)
        throw UserError(std::string("a pair of sockets: ") + std::strerror(errno), kExitRefused);
    m_ourEnd = ends[1];
    ::dup3(ends[0], m_clientEnd, O_CLOEXEC);
    ::close(ends[0]);
    m_emptyAt = std::chrono::steady_clock::now();
    m_answerLimit = m_emptyAt + m_settings.patience;
}

QString MqttAttempt::pump()
{
    QString reason;
    while (!isEnding(reason)) {
        if (!passToBroker() || !passFromBroker() || !passToBroker() || !careForTime())
            return m_reason;
        if (isReadyToFinish()) {
            finishConnection();
            return QStringLiteral("the gateway ends");
        }
        waitForWork();
    }
    return reason;
}

bool MqttAttempt::isEnding(QString& reason)
{
    std::vector<MqttCommand> commands;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (m_endReason) {
            reason = *m_endReason;
            return true;
        }
        m_isPaused = m_eventBytes >= kMostEventBytes;
        commands.swap(m_commands);
    }
    for (const MqttCommand& command : commands)
        carryOut(command);
    return false;
}

bool MqttAttempt::isReadyToFinish() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_isFinishing &&
           (!m_isConnected || (m_commands.empty() && m_sent.empty() && m_pings.empty()));
}

void MqttAttempt::finishConnection()
{
    if (!m_isConnected)
        return;
    mosquitto_disconnect_v5(m_client, 0, nullptr);
    mosquitto_loop_write(m_client, 1);
    takeFromClient();
    const auto end = std::chrono::steady_clock::now() + kFinishLimit;
    while (m_broker->write(m_toBroker) && !m_toBroker.isEmpty() &&
           std::chrono::steady_clock::now() < end)
    {
        pollfd room = {m_broker->descriptor(), POLLOUT, 0};
        ::poll(&room, 1, static_cast<int>(kFinishLimit.count()));
    }
    if (m_toBroker.isEmpty())
        m_broker->finish(kFinishLimit);
}

void MqttAttempt::waitForWork()
{
    const bool isRoom = m_toBroker.size() < kMostToBroker;
    if ((isRoom && mosquitto_want_write(m_client)) || (!m_isPaused && m_broker->hasMore()))
        return;
    short events = m_isPaused ? short(0) : short(POLLIN);
    if (!m_toBroker.isEmpty() || m_broker->wantsToWrite())
        events |= POLLOUT;
    std::array<pollfd, 2> polled = {{{m_broker->descriptor(), events, 0}, {m_wake, POLLIN, 0}}};
    const auto now = std::chrono::steady_clock::now();
    ::poll(polled.data(), polled.size(), 0);
    if (!m_isPaused && (polled[0].revents & POLLIN) == 0)
        m_emptyAt = now;
    ::poll(polled.data(), polled.size(), static_cast<int>(kCareInterval.count()));
    eventfd_t ignored = 0;
    ::eventfd_read(m_wake, &ignored);
}

bool MqttAttempt::fail(const QString& reason)
{
    if (m_reason.isEmpty())
        m_reason = reason;
    return false;
}

// The library's own words, unless the broker has said why.
bool MqttAttempt::failClient(int error)
{
    switch (error) {
    case MOSQ_ERR_KEEPALIVE:
        return fail(QStringLiteral("the broker does not answer any more"));
    case MOSQ_ERR_PROTOCOL:
    case MOSQ_ERR_MALFORMED_PACKET:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_DUPLICATE_PROPERTY:
        return fail(QStringLiteral("the broker sent a packet that is not MQTT's (%1)")
                        .arg(QLatin1String(mosquitto_strerror(error))));
    case MOSQ_ERR_CONN_LOST:
        return fail(QStringLiteral("the broker closed the connection"));
    default:
        return fail(QString::fromLatin1(mosquitto_strerror(error)));
    }
}

bool MqttAttempt::passToBroker()
{
    while (m_toBroker.size() < kMostToBroker && mosquitto_want_write(m_client)) {
        const int error = mosquitto_loop_write(m_client, 1);
        takeFromClient();
        if (error != MOSQ_ERR_SUCCESS)
            return failClient(error);
    }
    return m_toBroker.isEmpty() || m_broker->write(m_toBroker) || fail(m_broker->reason());
}

void MqttAttempt::takeFromClient()
{
    std::array<char, kTransferSize> buffer;
    ssize_t got = 0;
    while ((got = ::recv(m_ourEnd, buffer.data(), buffer.size(), MSG_DONTWAIT)) > 0)
        m_toBroker.append(buffer.data(), static_cast<int>(got));
}

bool MqttAttempt::passFromBroker()
{
    if (m_isPaused)
        return true;
    QByteArray came;
    const bool isOpen = m_broker->read(came);
    const auto now = std::chrono::steady_clock::now();
    m_came = now - m_emptyAt > kStoodStill ? m_emptyAt : now;
    QByteArray passed;
    const bool isGood = m_incoming.add(came, passed);
    if (!giveToClient(passed))
        return false;
    if (!isGood)
        return fail(m_incoming.reason());
    m_isByBroker = !isOpen;
    return isOpen || fail(m_broker->reason());
}

// In pieces that the pair always holds; the library reads each before the next.
bool MqttAttempt::giveToClient(const QByteArray& bytes)
{
    for (int at = 0; at < bytes.size();) {
        const int count = std::min(bytes.size() - at, kTransferSize);
        const ssize_t given =
            ::send(m_ourEnd, bytes.constData() + at, static_cast<size_t>(count), MSG_NOSIGNAL);
        if (given <= 0)
            return fail(QStringLiteral("the library closed the connection"));
        at += static_cast<int>(given);
        int left = 1;
        while (left > 0) {
            const int error = mosquitto_loop_read(m_client, 1);
            if (error != MOSQ_ERR_SUCCESS)
                return failClient(error);
            if (mosquitto_socket(m_client) < 0 || ::ioctl(m_clientEnd, FIONREAD, &left) != 0)
                return fail(QStringLiteral("the broker ends the connection"));
        }
    }
    return true;
}

bool MqttAttempt::careForTime()
{
    const auto now = std::chrono::steady_clock::now();
    if (!m_isConnected && now >= m_answerLimit)
        return fail(QStringLiteral("the broker does not answer"));
    if (now < m_nextCare)
        return true;
    m_nextCare = now + kCareInterval;
    const int error = mosquitto_loop_misc(m_client);
    return error == MOSQ_ERR_SUCCESS || failClient(error);
}

void MqttAttempt::carryOut(const MqttCommand& command)
{
    int identifier = 0;
    switch (command.kind) {
    case MqttCommand::Kind::Publish:
        publish(command);
        return;
    case MqttCommand::Kind::Subscribe:
        if (subscribe(command.message.topic, identifier)) {
            m_subscriptions[identifier] = command.message.topic;
        } else {
            MqttEvent event{MqttEvent::Kind::Refused};
            event.reason =
                QStringLiteral("%1 is no topic to subscribe")
                    .arg(QString::fromStdString(inQuotes(command.message.topic.toStdString())));
            tell(std::move(event));
        }
        return;
    case MqttCommand::Kind::Ping:
        if (mosquitto_unsubscribe(m_client, &identifier, kPingTopic) == MOSQ_ERR_SUCCESS)
            m_pings[identifier] = command.number;
        return;
    }
}

// With MQTT 5 what is retained is marked so also when it comes at once.
bool MqttAttempt::subscribe(const QByteArray& topic, int& identifier)
{
    const int options = m_settings.isVersion5 ? MQTT_SUB_OPT_RETAIN_AS_PUBLISHED : 0;
    return mosquitto_subscribe_v5(m_client, &identifier, topic.constData(), 1, options, nullptr) ==
           MOSQ_ERR_SUCCESS;
}

void MqttAttempt::publish(const MqttCommand& command)
{
    const MqttMessage& message = command.message;
    Properties properties;
    if (m_settings.isVersion5) {
        if (!message.correlation.isEmpty())
            mosquitto_property_add_binary(properties.out(), MQTT_PROP_CORRELATION_DATA,
                                          message.correlation.constData(),
                                          static_cast<uint16_t>(message.correlation.size()));
        if (message.expirySeconds)
            mosquitto_property_add_int32(properties.out(), MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                         *message.expirySeconds);
    }
    int identifier = 0;
    const auto send = [&](bool isRetained) {
        return mosquitto_publish_v5(m_client, &identifier, message.topic.constData(),
                                    message.payload.size(), message.payload.constData(),
                                    message.qos, isRetained, properties.list());
    };
    int error = send(message.isRetained);
    // A broker that keeps nothing passes it on all the same.
    if (error == MOSQ_ERR_RETAIN_NOT_SUPPORTED)
        error = send(false);
    const qint64 bytes = message.topic.size() + message.payload.size();
    if (error == MOSQ_ERR_SUCCESS) {
        m_sent[identifier] = {command.number, bytes};
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_waitingBytes -= bytes;
    }
    // The end of the connection is told by others.
    if (error == MOSQ_ERR_NO_CONN || error == MOSQ_ERR_CONN_LOST)
        return;
    MqttEvent event{MqttEvent::Kind::Refused, command.number};
    event.reason = QStringLiteral("%1: %2").arg(
        QString::fromStdString(inQuotes(shortened(message.topic.toStdString(), kLongestReason))),
        QLatin1String(mosquitto_strerror(error)));
    tell(std::move(event));
}

// A broker that acknowledges what was not sent is not listened to.
void MqttAttempt::settle(int identifier, const QString& refusal)
{
    const auto found = m_sent.find(identifier);
    if (found == m_sent.end())
        return;
    MqttEvent event{refusal.isEmpty() ? MqttEvent::Kind::Acknowledged : MqttEvent::Kind::Refused,
                    found->second.token, refusal};
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_waitingBytes -= found->second.bytes;
    }
    m_sent.erase(found);
    tell(std::move(event));
}

QString MqttAttempt::refusalText(int code, const QString& text) const
{
    const bool isOld = code < MQTT_RC_UNSPECIFIED;
    QString why =
        QString::fromLatin1(isOld ? mosquitto_connack_string(code) : mosquitto_reason_string(code));
    switch (code) {
    case kOldUnacceptableVersion:
    case MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION:
        why = QStringLiteral("it does not speak MQTT %1")
                  .arg(QLatin1String(m_settings.isVersion5 ? "5" : "3.1.1"));
        break;
    case kOldBadIdentifier:
    case MQTT_RC_CLIENTID_NOT_VALID:
        why = QStringLiteral("it does not take the client id %1").arg(m_settings.address.clientId);
        break;
    case kOldUnavailable:
        why = QStringLiteral("it is not available");
        break;
    case kOldBadUser:
    case kOldNotAuthorised:
    case MQTT_RC_NOT_AUTHORIZED:
    case MQTT_RC_BAD_USERNAME_OR_PASSWORD:
        why = m_settings.address.credentialsFile.isEmpty()
                  ? QStringLiteral("not authorised: it may want a user: set \"credentials\"")
                  : QStringLiteral("not authorised: look at the user and the password in %1")
                        .arg(m_settings.address.credentialsFile);
        break;
    default:
        break;
    }
    return withText(QStringLiteral("the broker refuses the connection: %1").arg(why), text);
}

} // namespace micro850::gateway
