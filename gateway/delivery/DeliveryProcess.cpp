#include "DeliveryProcess.h"

#include "BrokerSecurity.h"
#include "Channel.h"
#include "ChildProcess.h"
#include "ConnectionLog.h"
#include "LossNotice.h"
#include "MachineTime.h"
#include "Memory.h"
#include "Message.h"
#include "Protocol.h"
#include "UserError.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QSet>
#include <QtCore/QSocketNotifier>
#include <QtCore/QTimer>

#include <algorithm>
#include <map>
#include <poll.h>

namespace micro850::gateway {

namespace {

using host::Json;

// The catalogue of all variables of a gateway.
const int kLongestLine = 512 * 1024 * 1024;
const qint64 kMostWaiting = qint64(64) * 1024 * 1024;
// Beyond it the service gets no status: it does not read.
const qint64 kEnoughWaiting = qint64(128) * 1024;
const std::chrono::milliseconds kTick(50);
const std::chrono::seconds kHeartbeat(1);
// A damaged queue of many megabytes is looked through.
const std::chrono::seconds kOpeningTime(120);
const std::chrono::seconds kTimeToSayGoodbye(2);
const int kMostKinds = 100;
const int kLongestText = 500;
// More orders of a broker do not wait.
const std::size_t kMostOrders = 1000;
const std::int64_t kMostNumber = std::int64_t(1) << 53;
const std::int64_t kMostTime = std::int64_t(1) << 45;

DeliveryQueueSettings queueSettingsOf(const QString& kind, const Json& settings)
{
    return kind == QLatin1String("mqtt") ? mqttSettingsOf(settings).queue
                                         : sparkplugSettingsOf(settings).queue;
}

BrokerAddress brokerOf(const QString& kind, const Json& settings)
{
    return kind == QLatin1String("mqtt") ? mqttSettingsOf(settings).broker
                                         : sparkplugSettingsOf(settings).broker;
}

QString textOf(const JsonNode& message, const char* key)
{
    return QString::fromStdString(message.text(key, ""));
}

QByteArray bytesOf(const Json& object)
{
    return QByteArray::fromStdString(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

DeliveryEvent eventOf(const JsonNode& message)
{
    DeliveryEvent event;
    event.time = message.at("time").integer(0, kMostTime);
    event.line = textOf(message, "line");
    event.station = static_cast<int>(message.integer("station", -1, 65535, -1));
    event.state = textOf(message, "state");
    event.text = textOf(message, "text");
    event.isNotice = message.text("event", "") == "notice";
    return event;
}

QueuedMessage messageOf(const DeliveryEvent& event)
{
    Json body = {{"time", host::timeText(event.time).toStdString()},
                 {"state", event.state.toStdString()},
                 {"text", event.text.toStdString()}};
    if (event.isNotice)
        body["notice"] = true;
    QueuedMessage message;
    message.line = event.line;
    message.station = event.station;
    message.time = event.time;
    message.body = bytesOf(body);
    return message;
}

// A good value has the time when it was read. Others are told when they became so.
QueuedMessage messageOf(const JsonNode& value, std::optional<qint64> told, qint64 now)
{
    QueuedMessage message;
    message.line = textOf(value, "line");
    message.name = QString::fromStdString(value.at("name").text());
    message.station = static_cast<int>(value.integer("station", 0, 65535, 1));
    const std::optional<qint64> read =
        value.has("time") && value.at("time").isText() && value.text("quality", "") == "good"
            ? host::timeOf(textOf(value, "time"))
            : std::nullopt;
    message.time = told ? *told : read.value_or(now);
    message.body = bytesOf(host::jsonOf(value));
    return message;
}

/// The process: the queue, the flow out of it, and the publisher.
class Process : public PublisherNeeds
{
public:
    Process(int descriptor, MakePublisher makePublisher);
    int run();

    const Clock& clock() const override { return m_clock; }
    const WallClock& wallClock() const override { return m_wallClock; }
    DeliveryFlow& flow() override { return *m_flow; }
    DeliveryQueue& queue() override { return *m_queue; }
    void write(const Order& order, const std::function<void(const Json& reply)>& answer) override;
    void warn(const QString& kind, const QString& text) override;
    void note(const QString& text) override { log("note", text); }

private:
    void receive();
    bool takeInput();
    void takeRest();
    void handleLine(const host::LineReader::Line& line);
    void handleMessage(const JsonNode& message);
    void handleEvent(const JsonNode& message);
    void open(const JsonNode& message);
    void takeCatalogue(const JsonNode& message);
    void takeCurrent(const JsonNode& message);
    void takeValues(const JsonNode& message);
    void takeState(const JsonNode& message);
    void takeReply(const JsonNode& message);
    bool isNext(qint64 number);
    void tick();
    void tellKept(const DeliveryQueue::Fed& fed);
    void beat();
    void tellLosses();
    void tellDisk(const Json& queue);
    Json status() const;
    void grant(Duration patience);
    void log(const char* priority, const QString& text);
    bool send(const Json& message);
    void end();
    void fail(const std::exception& error);

    host::Channel m_channel;
    const MakePublisher m_makePublisher;
    SystemClock m_clock;
    SystemWallClock m_wallClock;
    QSocketNotifier m_input;
    QSocketNotifier m_room;
    QTimer m_ticks;
    QString m_run;
    std::unique_ptr<DeliveryQueue> m_queue;
    std::unique_ptr<DeliveryFlow> m_flow;
    std::unique_ptr<Publisher> m_publisher;
    Catalogue m_catalogue;
    qint64 m_taken = 0; ///< the number of what came last
    qint64 m_kept = 0;  ///< the number that the service was told last
    std::map<qint64, std::function<void(const Json&)>> m_orders; ///< that wait for their replies
    qint64 m_lastOrder = 0;
    std::map<QString, qint64> m_warnings; ///< how often, by kind
    ConnectionLog m_connectionLog;
    LossNotice m_lossNotice{0};
    QString m_setAside; ///< told last
    QString m_disk;     ///< why the disk refuses, as it was told last; empty: it does not
    Duration m_nextBeat{0};
    bool m_isOver = false;
    int m_status = kExitDone;
};

Process::Process(int descriptor, MakePublisher makePublisher)
    : m_channel(descriptor, kLongestLine, kMostWaiting), m_makePublisher(std::move(makePublisher)),
      m_input(descriptor, QSocketNotifier::Read), m_room(descriptor, QSocketNotifier::Write)
{
    m_room.setEnabled(false);
    QObject::connect(&m_input, &QSocketNotifier::activated, [this] { receive(); });
    QObject::connect(&m_room, &QSocketNotifier::activated, [this] {
        m_channel.flush();
        m_room.setEnabled(m_channel.hasOutput());
    });
    QObject::connect(&m_ticks, &QTimer::timeout, [this] { tick(); });
    m_ticks.start(kTick);
}

int Process::run()
{
    return QCoreApplication::exec() == 0 ? m_status : kExitRefused;
}

// An exception must not pass through the event loop.
void Process::receive()
{
    if (m_isOver)
        return;
    try {
        if (!takeInput())
            end();
    } catch (const std::exception& error) {
        fail(error);
    }
}

// False at the end of what the service sends.
bool Process::takeInput()
{
    const bool isOpen = m_channel.receive();
    while (!m_isOver) {
        const std::optional<host::LineReader::Line> line = m_channel.next();
        if (!line)
            break;
        handleLine(*line);
    }
    if (m_publisher && !m_isOver)
        tellKept(m_flow->tick());
    return isOpen;
}

// Nobody else has what the service sent before it was gone.
void Process::takeRest()
{
    pollfd input = {m_channel.descriptor(), POLLIN, 0};
    while (!m_isOver && ::poll(&input, 1, 0) > 0) {
        if (!takeInput())
            return;
    }
}

void Process::handleLine(const host::LineReader::Line& line)
{
    if (line.tooLong)
        throw UserError("the service sent a line that is too long", kExitRefused);
    const JsonNode message = host::messageIn(line.text, "message of the service");
    if (!m_publisher)
        open(message);
    else
        handleMessage(message);
}

void Process::open(const JsonNode& message)
{
    grant(kOpeningTime);
    const QString kind = QString::fromStdString(message.at("kind").text());
    const Json settings = host::jsonOf(message.at("settings"));
    m_run = QString::fromStdString(message.at("run").text());
    m_queue =
        std::make_unique<DeliveryQueue>(queueSettingsOf(kind, settings), m_clock, m_wallClock);
    m_flow = std::make_unique<DeliveryFlow>(*m_queue, queueSettingsOf(kind, settings), m_clock);
    m_lossNotice = LossNotice(m_queue->lost());
    const BrokerAddress broker = brokerOf(kind, settings);
    if (!broker.credentialsFile.isEmpty() || !broker.keyFile.isEmpty())
        keepMemoryPrivate();
    m_publisher = m_makePublisher(kind, settings, *this);
    const DeliveryQueue::Fed fed = m_queue->fed();
    m_taken = m_kept = fed.run == m_run ? fed.number : 0;
    send({{"event", "opened"}, {"run", fed.run.toStdString()}, {"number", fed.number}});
    beat();
}

void Process::handleMessage(const JsonNode& message)
{
    if (message.has("event"))
        return handleEvent(message);
    if (message.has("reply"))
        return takeReply(message);
    if (message.text("request", "") == "stop")
        return end();
    message.fail("is no message of the service");
}

void Process::handleEvent(const JsonNode& message)
{
    const std::string event = message.at("event").text();
    if (event == "values")
        takeValues(message);
    else if (event == "state" || event == "notice")
        takeState(message);
    else if (event == "current")
        takeCurrent(message);
    else if (event == "status")
        m_publisher->handleStatus(host::jsonOf(message.at("lines")));
    else if (event == "catalogue")
        takeCatalogue(message);
    else
        message.at("event").fail("is no event of the service");
}

// The publisher knows the new variables before the values of those that went are forgotten.
void Process::takeCatalogue(const JsonNode& message)
{
    Catalogue next = Catalogue::of(host::jsonOf(message));
    QSet<QPair<QString, QString>> names;
    for (const CatalogueVariable& variable : std::as_const(next.variables))
        names.insert({variable.line, variable.name});
    const Catalogue before = std::exchange(m_catalogue, std::move(next));
    m_publisher->setCatalogue(m_catalogue);
    for (const CatalogueVariable& variable : before.variables) {
        if (!names.contains({variable.line, variable.name}))
            m_flow->forget(variable.line, variable.name);
    }
}

void Process::takeCurrent(const JsonNode& message)
{
    if (!message.has("values"))
        return m_publisher->handleEvent(eventOf(message));
    for (const JsonNode& value : message.at("values").elements())
        m_flow->remember(messageOf(value, std::nullopt, m_wallClock.now()));
}

// What the queue has already is not taken twice. A gap is what the service had no room for.
bool Process::isNext(qint64 number)
{
    if (number <= m_taken)
        return false;
    m_taken = number;
    return true;
}

void Process::takeValues(const JsonNode& message)
{
    qint64 number = message.at("first").integer(1, kMostNumber);
    const JsonNode::Elements values = message.at("values").elements();
    const std::optional<JsonNode::Elements> times =
        message.has("times") ? std::make_optional(message.at("times").elements()) : std::nullopt;
    if (times && times->size() != values.size())
        message.fail("has not as many times as values");
    const qint64 now = m_wallClock.now();
    for (std::size_t i = 0; i < values.size(); ++i, ++number) {
        const std::optional<qint64> told =
            times ? std::make_optional<qint64>((*times)[i].integer(0, kMostTime)) : std::nullopt;
        if (isNext(number))
            m_flow->add(messageOf(values[i], told, now), {m_run, number});
    }
}

void Process::takeState(const JsonNode& message)
{
    const qint64 number = message.at("number").integer(1, kMostNumber);
    if (!isNext(number))
        return;
    const DeliveryEvent event = eventOf(message);
    m_flow->add(messageOf(event), {m_run, number});
    m_publisher->handleEvent(event);
}

void Process::write(const Order& order, const std::function<void(const Json& reply)>& answer)
{
    const auto refuse = [&answer](const char* text) {
        answer({{"error", {{"code", host::errorcode::kBusy}, {"text", text}}}});
    };
    if (m_isOver)
        return refuse("the gateway ends");
    if (m_orders.size() >= kMostOrders)
        return refuse("too many orders wait");
    const qint64 id = ++m_lastOrder;
    Json request = {{"request", "write"},
                    {"id", id},
                    {"line", order.line.toStdString()},
                    {"name", order.name.toStdString()},
                    {"station", order.station},
                    {"element", order.element},
                    {"value", order.value}};
    if (order.withinMs > 0)
        request["deadline"] = machineMilliseconds() + order.withinMs;
    if (!send(request))
        return refuse("the service takes no orders at the moment");
    m_orders[id] = answer;
}

void Process::takeReply(const JsonNode& message)
{
    const auto found = m_orders.find(message.at("id").integer(1, kMostNumber));
    if (found == m_orders.end())
        return;
    const std::function<void(const Json&)> answer = std::move(found->second);
    m_orders.erase(found);
    answer(host::jsonOf(message.at("reply")));
}

void Process::tick()
{
    if (m_isOver)
        return;
    try {
        if (serviceIsGone()) {
            takeRest();
            return end();
        }
        if (!m_publisher)
            return;
        m_publisher->tick();
        tellKept(m_flow->tick());
        if (m_clock.now() >= m_nextBeat)
            beat();
    } catch (const std::exception& error) {
        fail(error);
    }
}

void Process::tellKept(const DeliveryQueue::Fed& fed)
{
    if (fed.run == m_run && fed.number > m_kept &&
        send({{"event", "kept"}, {"number", fed.number}}))
        m_kept = fed.number;
}

void Process::beat()
{
    m_nextBeat = m_clock.now() + kHeartbeat;
    tellLosses();
    const Json status = this->status();
    for (const auto& line :
         m_connectionLog.take(status.value("connection", Json::object()), m_clock.now()))
        log(line.isWarning ? "warning" : "note", line.text);
    if (m_channel.output().size() < kEnoughWaiting)
        send({{"event", "status"}, {"status", status}});
}

void Process::tellLosses()
{
    const Json queue = m_queue->status();
    tellDisk(queue);
    const qint64 lost = m_queue->lost();
    switch (m_lossNotice.take(lost, m_clock.now())) {
    case LossNotice::News::Begun:
        log("warning",
            QStringLiteral("the queue is full: the oldest messages are deleted, %1 so far")
                .arg(lost));
        break;
    case LossNotice::News::Over:
        log("note", QStringLiteral("the queue has room again; %1 messages were deleted so far, the "
                                   "oldest")
                        .arg(lost));
        break;
    case LossNotice::News::None:
        break;
    }
}

void Process::tellDisk(const Json& queue)
{
    const QString setAside = QString::fromStdString(queue.value("setAside", ""));
    if (setAside != m_setAside) {
        m_setAside = setAside;
        log("warning", QStringLiteral("the queue's file was damaged: it was renamed to %1; the "
                                      "messages in it are not delivered, a new queue begins")
                           .arg(setAside));
    }
    const bool isOnDisk = queue.value("state", "") == "on disk";
    const QString reason =
        isOnDisk ? QString()
                 : QStringLiteral("the queue is kept in memory: ") +
                       QString::fromStdString(queue.value("reason", "the disk refuses"));
    if (reason == m_disk)
        return;
    m_disk = reason;
    if (isOnDisk)
        log("note", QStringLiteral("the queue is on disk again"));
    else
        log("warning", reason);
}

Json Process::status() const
{
    Json status = m_publisher->status();
    status["flow"] = m_flow->status();
    status["memoryKb"] = memoryKb();
    if (!m_warnings.empty()) {
        Json& warnings = status["warnings"] = Json::object();
        for (const auto& [kind, count] : m_warnings)
            warnings[kind.toStdString()] = count;
    }
    return status;
}

void Process::warn(const QString& kind, const QString& text)
{
    if (m_warnings.size() >= kMostKinds && m_warnings.find(kind) == m_warnings.end())
        return;
    if (++m_warnings[kind] == 1)
        log("warning", text);
}

void Process::log(const char* priority, const QString& text)
{
    send({{"event", "log"},
          {"priority", priority},
          {"text", text.left(kLongestText).toStdString()}});
}

void Process::grant(Duration patience)
{
    send({{"event", "opening"}, {"patienceMs", wholeMilliseconds(patience)}});
}

// A service that is gone is noticed by the input.
bool Process::send(const Json& message)
{
    const bool sent = m_channel.send(host::lineOf(message));
    m_room.setEnabled(m_channel.hasOutput());
    return sent;
}

// What came is on disk before anything that can take time.
void Process::end()
{
    if (m_isOver)
        return;
    m_isOver = true;
    limitTimeToEnd();
    if (m_publisher) {
        m_queue->retry();
        m_queue->commit();
        tellKept(m_queue->fed());
        m_publisher->stop(kTimeToSayGoodbye);
        m_queue->retry();
        m_queue->commit();
    }
    m_publisher.reset();
    QCoreApplication::quit();
}

void Process::fail(const std::exception& error)
{
    m_isOver = true;
    limitTimeToEnd();
    m_status = kExitRefused;
    send({{"event", "failed"}, {"text", error.what()}});
    m_publisher.reset();
    QCoreApplication::quit();
}

} // namespace

int runDelivery(int descriptor, const MakePublisher& makePublisher)
{
    setChildSignals();
    Process delivery(descriptor, makePublisher);
    return delivery.run();
}

} // namespace micro850::gateway
