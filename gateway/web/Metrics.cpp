#include "Metrics.h"

#include "ProcessNumbers.h"
#include "RoundTripHistogram.h"

#include <QtCore/QTimer>

#include <algorithm>
#include <utility>

namespace micro850::gateway {

namespace {

using Labels = MetricsText::Labels;
using host::RoundTripHistogram;

const char kRoundTrips[] = "micro850_line_round_trip_seconds";
const char kServer[] = "server";

// By the order of the text. docs/monitoring.md describes the same.
const QVector<MetricFamily>& allFamilies()
{
    static const QVector<MetricFamily> families = {
        {"micro850_build_info", "gauge", "The version of the gateway; always 1."},
        {"micro850_line_up", "gauge", "1 while the line is open and its worker runs."},
        {"micro850_line_usage_ratio", "gauge",
         "Share of the last ten seconds in which bytes were on the line."},
        {"micro850_line_demand_ratio", "gauge",
         "Share of the line's time that the intervals of its variables ask for."},
        {"micro850_line_overloaded", "gauge", "1 while the line cannot hold its intervals."},
        {"micro850_line_reopened_total", "counter", "How often the line was opened again."},
        {kRoundTrips, "histogram", "Time from a request to its answer."},
        {"micro850_line_oldest_value_age_seconds", "gauge",
         "Age of the oldest value that is read again and again."},
        {"micro850_line_waiting_requests", "gauge",
         "Requests of clients that wait for the worker of the line."},
        {"micro850_variables", "gauge", "Variables by the quality of their values."},
        {"micro850_value_changes_total", "counter",
         "Values that were told to clients, the history and brokers: changes and heartbeats."},
        {"micro850_writes_total", "counter", "Writes by their outcome, refused ones too."},
        {"micro850_worker_up", "gauge", "1 while the worker of the line runs."},
        {"micro850_worker_starts_total", "counter", "How often a worker was started."},
        {"micro850_worker_resident_memory_bytes", "gauge", "Memory of the worker."},
        {"micro850_station_info", "gauge", "The name of the station; always 1."},
        {"micro850_station_connected", "gauge", "1 while the controller has a connection."},
        {"micro850_station_disabled", "gauge", "1 for a station that the project disables."},
        {"micro850_station_requests_total", "counter", "Requests sent, repetitions too."},
        {"micro850_station_transactions_total", "counter", "Transactions by their outcome."},
        {"micro850_station_retries_total", "counter",
         "Requests sent again, and replies asked for again."},
        {"micro850_station_corrupt_frames_total", "counter", "Frames with a wrong check sum."},
        {"micro850_station_late_replies_total", "counter", "Replies to an earlier request."},
        {"micro850_station_rejected_requests_total", "counter",
         "Requests that the controller's link layer rejected."},
        {"micro850_station_reconnects_total", "counter",
         "Connections to the controller that were set up again."},
        {"micro850_station_error_replies_total", "counter",
         "Answers with an error, by its status."},
        {"micro850_station_sent_bytes_total", "counter", "Bytes sent to the station."},
        {"micro850_station_received_bytes_total", "counter", "Bytes received from the station."},
        {"micro850_history_recording", "gauge", "1 while the history records, 0 when it stopped."},
        {"micro850_history_file_bytes", "gauge", "Size of the history."},
        {"micro850_history_rows_total", "counter", "Rows recorded."},
        {"micro850_history_left_out_rows_total", "counter", "Rows that could not be recorded."},
        {"micro850_history_waiting_rows", "gauge", "Rows that wait to be recorded."},
        {"micro850_delivery_up", "gauge", "1 while the process that delivers runs."},
        {"micro850_delivery_connected", "gauge", "1 while the broker is connected."},
        {"micro850_delivery_starts_total", "counter",
         "How often a process that delivers was started."},
        {"micro850_delivery_resident_memory_bytes", "gauge",
         "Memory of the process that delivers."},
        {"micro850_delivery_connections_total", "counter", "Connections to the broker."},
        {"micro850_delivery_connection_attempts_total", "counter",
         "Attempts to connect to the broker."},
        {"micro850_delivery_held_messages", "gauge",
         "Values and events that the process has not taken over yet."},
        {"micro850_delivery_left_out_total", "counter",
         "Values and events for which the service had no room."},
        {"micro850_delivery_queue_messages", "gauge", "Messages that wait for the broker."},
        {"micro850_delivery_queue_bytes", "gauge", "Size of the file of the queue."},
        {"micro850_delivery_queue_on_disk", "gauge", "1 while the queue is in its file."},
        {"micro850_delivery_queue_oldest_timestamp_seconds", "gauge",
         "When the oldest message that waits came, in Unix time."},
        {"micro850_delivery_in_flight_messages", "gauge",
         "Messages sent that the broker has not acknowledged yet."},
        {"micro850_delivery_sent_messages_total", "counter", "Messages sent."},
        {"micro850_delivery_acknowledged_messages_total", "counter",
         "Messages that the broker acknowledged."},
        {"micro850_delivery_repeated_messages_total", "counter", "Messages sent again."},
        {"micro850_delivery_refused_messages_total", "counter",
         "Messages that the broker refused."},
        {"micro850_delivery_lost_messages_total", "counter",
         "Messages for which the queue had no room."},
        {"micro850_delivery_warnings_total", "counter", "What was refused, by kind."},
        {"micro850_orders_total", "counter", "Orders from a broker to write, by outcome."},
        {"micro850_clients", "gauge", "Clients at the Unix socket."},
        {"micro850_http_connections", "gauge", "Connections to the web server."},
        {"micro850_http_event_readers", "gauge", "Readers of the stream of events."},
        {"micro850_http_accepted_connections_total", "counter", "Connections accepted."},
        {"micro850_http_refused_connections_total", "counter",
         "Connections refused: too many, all in all or of one address."},
        {"micro850_http_timed_out_connections_total", "counter",
         "Connections closed because headers or a body did not come."},
        {"micro850_http_requests_total", "counter", "Requests to the web server."},
        {"micro850_http_responses_total", "counter", "Responses by their status."},
        {"micro850_http_refused_logins_total", "counter",
         "Wrong tokens, typed or sent, and those that came too soon after them."},
        {"micro850_http_refused_changes_total", "counter",
         "Requests refused that would change something, without the right to."},
        {"process_resident_memory_bytes", "gauge", "Memory of the service without its workers."},
        {"process_virtual_memory_bytes", "gauge", "Address space of the service."},
        {"process_cpu_seconds_total", "counter", "Processor time of the service."},
        {"process_open_fds", "gauge", "Open file descriptors of the service."},
        {"process_max_fds", "gauge", "How many file descriptors the service can open."},
        {"process_start_time_seconds", "gauge", "When the service started, in Unix time."},
    };
    return families;
}

struct NumberIn
{
    const char* key;
    const char* family;
};

const NumberIn kStationCounters[] = {
    {"sent", "micro850_station_requests_total"},
    {"retries", "micro850_station_retries_total"},
    {"corrupt", "micro850_station_corrupt_frames_total"},
    {"late", "micro850_station_late_replies_total"},
    {"refusedByPeer", "micro850_station_rejected_requests_total"},
    {"reconnects", "micro850_station_reconnects_total"},
    {"bytesSent", "micro850_station_sent_bytes_total"},
    {"bytesReceived", "micro850_station_received_bytes_total"},
};

const NumberIn kFlowCounters[] = {
    {"sent", "micro850_delivery_sent_messages_total"},
    {"acknowledged", "micro850_delivery_acknowledged_messages_total"},
    {"repeated", "micro850_delivery_repeated_messages_total"},
    {"refused", "micro850_delivery_refused_messages_total"},
    {"lost", "micro850_delivery_lost_messages_total"},
};

// What processes tell is used as far as it is what they tell: a missing number is no number.
const Json& part(const Json& object, const char* key)
{
    static const Json kNothing = Json::object();
    if (!object.is_object())
        return kNothing;
    const auto found = object.find(key);
    return found == object.end() ? kNothing : *found;
}

std::optional<double> numberOf(const Json& object, const char* key)
{
    const Json& value = part(object, key);
    if (value.is_boolean())
        return value.get<bool>() ? 1 : 0;
    return value.is_number() ? std::make_optional(value.get<double>()) : std::nullopt;
}

QString textOf(const Json& object, const char* key)
{
    const Json& value = part(object, key);
    return value.is_string() ? QString::fromStdString(value.get_ref<const std::string&>())
                             : QString();
}

void addCounter(MetricNumbers& counts, const char* family, const Labels& labels,
                std::optional<double> value)
{
    if (value)
        counts[{family, MetricsText::labels(labels)}] = *value;
}

void addByKind(MetricNumbers& counts, const char* family, Labels labels, const char* kind,
               const Json& numbers)
{
    labels.append({kind, QString()});
    for (const auto& number : numbers.items()) {
        labels.last().second = QString::fromStdString(number.key());
        addCounter(counts, family, labels, numberOf(numbers, number.key().c_str()));
    }
}

void addHistogram(MetricNumbers& counts, const Labels& labels, const Json& roundTrips)
{
    const Json& numbers = part(roundTrips, "counts");
    const std::optional<double> sumMs = numberOf(roundTrips, "sumMs");
    if (!sumMs || !numbers.is_array() || numbers.size() != RoundTripHistogram().counts.size())
        return;
    const double kMillisecond = 1000;
    MetricKey key = {kRoundTrips, MetricsText::labels(labels)};
    double upToHere = 0;
    for (const Json& number : numbers) {
        upToHere += number.is_number() ? number.get<double>() : 0;
        ++key.bucket;
        counts[key] = upToHere;
    }
    key.bucket = MetricsText::kSum;
    counts[key] = *sumMs / kMillisecond;
    key.bucket = MetricsText::kCount;
    counts[key] = upToHere;
}

void addStation(MetricNumbers& counts, const QString& line, const Json& station)
{
    const Labels labels = {{"line", line},
                           {"station", QString::number(numberOf(station, "station").value_or(0))}};
    for (const NumberIn& counter : kStationCounters)
        addCounter(counts, counter.family, labels, numberOf(station, counter.key));
    const char* const kTransactions = "micro850_station_transactions_total";
    addCounter(counts, kTransactions, labels + Labels{{"outcome", QStringLiteral("answered")}},
               numberOf(station, "answered"));
    addCounter(counts, kTransactions, labels + Labels{{"outcome", QStringLiteral("timed_out")}},
               numberOf(station, "timedOut"));
    addByKind(counts, "micro850_station_error_replies_total", labels, "status",
              part(station, "errors"));
}

// What a worker has counted.
MetricNumbers workerCounters(const QString& line, const Json& status)
{
    MetricNumbers counts;
    addCounter(counts, "micro850_line_reopened_total", {{"line", line}},
               numberOf(status, "reopened"));
    addHistogram(counts, {{"line", line}}, part(status, "roundTrips"));
    for (const Json& station : part(status, "stations"))
        addStation(counts, line, station);
    return counts;
}

// What a process that delivers has counted.
MetricNumbers deliveryCounters(const Labels& labels, const Json& status)
{
    MetricNumbers counts;
    for (const NumberIn& counter : kFlowCounters)
        addCounter(counts, counter.family, labels, numberOf(part(status, "flow"), counter.key));
    const Json& connection = part(status, "connection");
    addCounter(counts, "micro850_delivery_connections_total", labels,
               numberOf(connection, "connections"));
    addCounter(counts, "micro850_delivery_connection_attempts_total", labels,
               numberOf(connection, "attempts"));
    addByKind(counts, "micro850_delivery_warnings_total", labels, "kind", part(status, "warnings"));
    const char* const kOrders = "micro850_orders_total";
    addByKind(counts, kOrders, labels, "outcome", part(part(status, "orders"), "outcomes"));
    for (const char* const outcome : {"written", "refused"})
        addCounter(counts, kOrders, labels + Labels{{"outcome", QLatin1String(outcome)}},
                   numberOf(part(status, "node"), outcome));
    return counts;
}

void addIf(MetricsText& text, const char* family, const Labels& labels, std::optional<double> value,
           double unit = 1)
{
    if (value)
        text.add(family, labels, *value * unit);
}

const double kMilli = 0.001;
const double kPercent = 0.01;
const double kKilobyte = 1024;

void addStationState(MetricsText& text, const QString& line, const Json& station)
{
    const Labels labels = {{"line", line},
                           {"station", QString::number(numberOf(station, "station").value_or(0))}};
    const QString name = textOf(station, "name");
    if (!name.isEmpty())
        text.add("micro850_station_info", labels + Labels{{"name", name}}, 1);
    text.add("micro850_station_connected", labels, numberOf(station, "connected").value_or(0));
    text.add("micro850_station_disabled", labels,
             textOf(station, "state") == QLatin1String("disabled") ? 1 : 0);
}

void addLineState(MetricsText& text, const QString& line, const Json& status)
{
    const Labels labels = {{"line", line}};
    text.add("micro850_line_up", labels, numberOf(status, "up").value_or(0));
    addIf(text, "micro850_line_oldest_value_age_seconds", labels, numberOf(status, "oldestMs"),
          kMilli);
    addIf(text, "micro850_line_waiting_requests", labels, numberOf(status, "waitingRequests"));
    text.add("micro850_worker_up", labels, numberOf(status, "workerPid") ? 1 : 0);
    for (const Json& station : part(status, "stations"))
        addStationState(text, line, station);
    // The rest is of a worker that tells, not of one that has ended.
    const std::optional<double> memory = numberOf(status, "memoryKb");
    if (!memory)
        return;
    addIf(text, "micro850_worker_resident_memory_bytes", labels, memory, kKilobyte);
    addIf(text, "micro850_line_usage_ratio", labels, numberOf(status, "percentInUse"), kPercent);
    addIf(text, "micro850_line_demand_ratio", labels, numberOf(status, "percentAsked"), kPercent);
    text.add("micro850_line_overloaded", labels, textOf(status, "overload").isEmpty() ? 0 : 1);
}

void addHistory(MetricsText& text, const Json& history)
{
    const QString state = textOf(history, "state");
    if (state.isEmpty() || state == QLatin1String("off"))
        return;
    text.add("micro850_history_recording", {}, state == QLatin1String("recording") ? 1 : 0);
    addIf(text, "micro850_history_file_bytes", {}, numberOf(history, "bytes"));
    addIf(text, "micro850_history_waiting_rows", {}, numberOf(history, "waiting"));
}

void addDelivery(MetricsText& text, const Labels& labels, const Json& status)
{
    const bool runs = numberOf(status, "pid").has_value();
    text.add("micro850_delivery_up", labels, runs ? 1 : 0);
    const bool isConnected =
        textOf(part(status, "connection"), "state") == QLatin1String("connected");
    text.add("micro850_delivery_connected", labels, runs && isConnected ? 1 : 0);
    addIf(text, "micro850_delivery_held_messages", labels, numberOf(status, "held"));
    const std::optional<double> memory = numberOf(status, "memoryKb");
    if (!memory)
        return;
    addIf(text, "micro850_delivery_resident_memory_bytes", labels, memory, kKilobyte);
    const Json& flow = part(status, "flow");
    addIf(text, "micro850_delivery_queue_messages", labels, numberOf(flow, "waiting"));
    addIf(text, "micro850_delivery_queue_bytes", labels, numberOf(flow, "bytes"));
    text.add("micro850_delivery_queue_on_disk", labels,
             textOf(flow, "state") == QLatin1String("on disk") ? 1 : 0);
    addIf(text, "micro850_delivery_queue_oldest_timestamp_seconds", labels,
          numberOf(flow, "oldest"), kMilli);
    addIf(text, "micro850_delivery_in_flight_messages", labels, numberOf(flow, "inFlight"));
}

MetricNumbers serverCounters(const HttpCounters& server)
{
    MetricNumbers counts;
    const auto add = [&counts](const char* family, const Labels& labels, qint64 count) {
        addCounter(counts, family, labels, static_cast<double>(count));
    };
    add("micro850_http_accepted_connections_total", {}, server.accepted);
    add("micro850_http_refused_connections_total", {}, server.refused);
    add("micro850_http_timed_out_connections_total", {}, server.tooSlow);
    add("micro850_http_requests_total", {}, server.requests);
    for (auto count = server.responses.constBegin(); count != server.responses.constEnd(); ++count)
        add("micro850_http_responses_total", {{"status", QString::number(count.key())}}, *count);
    return counts;
}

void addProcess(MetricsText& text)
{
    const ProcessNumbers process = processNumbers();
    text.add("process_resident_memory_bytes", {}, process.residentBytes);
    text.add("process_virtual_memory_bytes", {}, process.virtualBytes);
    text.add("process_cpu_seconds_total", {}, process.processorSeconds);
    text.add("process_open_fds", {}, process.openDescriptors);
    addIf(text, "process_max_fds", {}, process.mostDescriptors);
    text.add("process_start_time_seconds", {}, process.startedAt);
}

QVector<QByteArray> limitTexts()
{
    QVector<QByteArray> texts;
    for (const int limit : RoundTripHistogram::kLimitsMs)
        texts.append(QByteArray::number(limit * kMilli));
    return texts;
}

HttpResponse plainText(int status, const char* type, const QByteArray& body)
{
    HttpResponse response;
    response.status = status;
    response.type = type;
    response.body = body;
    response.headers.append(HttpHeader{"Cache-Control", "no-store"});
    return response;
}

} // namespace

class Metrics::Private final : public LineListener
{
public:
    explicit Private(MetricsNeeds needs);
    ~Private() override { m_needs.lines.removeListener(*this); }

    Json sample();
    QByteArray text();
    int unheardLines() const;

    void handleValue(int line, int variable) override;
    void handleWrite(const JournalEntry& entry) override;
    void handleReload() override { nameLines(); }

private:
    struct LineCounts
    {
        qint64 changes = 0;
        QMap<QString, qint64> writes; ///< by outcome
    };
    void nameLines();
    MetricNumbers ownCounters() const;
    void take(const QByteArray& group, const MetricNumbers& counts);
    void takeLine(int line);
    void takeDelivery(const QString& kind, const Json& status);
    void addQualities(MetricsText& text) const;

    MetricsNeeds m_needs;
    CounterLedger m_ledger;
    QSet<QByteArray> m_groups; ///< of the last sample
    QVector<QString> m_names;  ///< of the lines
    QVector<LineCounts> m_counts;
    QMap<QString, qint64> m_otherWrites; ///< to no line, by outcome
    QTimer m_samples;
};

Metrics::Private::Private(MetricsNeeds needs) : m_needs(std::move(needs))
{
    m_needs.lines.addListener(*this);
    nameLines();
    QObject::connect(&m_samples, &QTimer::timeout, &m_samples, [this] { sample(); });
    m_samples.start(std::chrono::seconds(1));
}

void Metrics::Private::handleValue(int line, int)
{
    ++m_counts[line].changes;
}

// A client can name a line that there is not.
void Metrics::Private::handleWrite(const JournalEntry& entry)
{
    const int line = m_names.indexOf(entry.line);
    ++(line < 0 ? m_otherWrites : m_counts[line].writes)[entry.outcome];
}

// Lines that stay go on with their counts.
void Metrics::Private::nameLines()
{
    QMap<QString, LineCounts> old;
    for (int i = 0; i < m_names.size(); ++i)
        old.insert(m_names.at(i), m_counts.at(i));
    m_names.clear();
    m_counts.clear();
    for (int i = 0; i < m_needs.lines.size(); ++i) {
        m_names.append(m_needs.lines.line(i).name);
        m_counts.append(old.value(m_names.last()));
    }
}

void Metrics::Private::take(const QByteArray& group, const MetricNumbers& counts)
{
    m_groups.insert(group);
    m_ledger.take(group, counts);
}

// Counted by the service, and by the worker: each can begin again without the other.
void Metrics::Private::takeLine(int line)
{
    const QString name = m_needs.lines.line(line).name;
    const Json status = m_needs.lines.status(line);
    MetricNumbers starts;
    addCounter(starts, "micro850_worker_starts_total", {{"line", name}},
               numberOf(status, "workerStarts"));
    take("line starts " + name.toUtf8(), starts);
    // Before a new worker of a changed line tells, nobody knows anything new.
    if (status.contains("roundTrips"))
        m_ledger.take("line worker " + name.toUtf8(), workerCounters(name, status));
    m_groups.insert("line worker " + name.toUtf8());
}

void Metrics::Private::takeDelivery(const QString& kind, const Json& status)
{
    const Labels labels = {{"delivery", kind}};
    MetricNumbers counts;
    addCounter(counts, "micro850_delivery_starts_total", labels, numberOf(status, "starts"));
    addCounter(counts, "micro850_delivery_left_out_total", labels, numberOf(status, "leftOut"));
    take("delivery starts " + kind.toUtf8(), counts);
    if (status.contains("flow"))
        m_ledger.take("delivery process " + kind.toUtf8(), deliveryCounters(labels, status));
    m_groups.insert("delivery process " + kind.toUtf8());
}

Json Metrics::Private::sample()
{
    const Json status = m_needs.status();
    m_groups.clear();
    for (int line = 0; line < m_needs.lines.size(); ++line)
        takeLine(line);
    for (const auto& delivery : part(status, "delivery").items())
        takeDelivery(QString::fromStdString(delivery.key()), delivery.value());
    const Json& history = part(status, "history");
    if (textOf(history, "state") != QLatin1String("off")) {
        MetricNumbers rows;
        addCounter(rows, "micro850_history_rows_total", {}, numberOf(history, "rows"));
        addCounter(rows, "micro850_history_left_out_rows_total", {}, numberOf(history, "leftOut"));
        take("history", rows);
    }
    take(kServer, serverCounters(m_needs.server()));
    m_ledger.keepOnly(m_groups);
    return status;
}

MetricNumbers Metrics::Private::ownCounters() const
{
    MetricNumbers counts;
    const auto addWrites = [&counts](const QString& line, const QMap<QString, qint64>& writes) {
        for (auto count = writes.constBegin(); count != writes.constEnd(); ++count)
            addCounter(counts, "micro850_writes_total", {{"line", line}, {"outcome", count.key()}},
                       static_cast<double>(*count));
    };
    const GuardCounters refused = m_needs.guard ? m_needs.guard() : GuardCounters();
    addCounter(counts, "micro850_http_refused_logins_total", {},
               static_cast<double>(refused.logins));
    addCounter(counts, "micro850_http_refused_changes_total", {},
               static_cast<double>(refused.changes));
    for (int line = 0; line < m_names.size(); ++line) {
        addCounter(counts, "micro850_value_changes_total", {{"line", m_names.at(line)}},
                   static_cast<double>(m_counts.at(line).changes));
        addWrites(m_names.at(line), m_counts.at(line).writes);
    }
    addWrites(QString(), m_otherWrites);
    return counts;
}

void Metrics::Private::addQualities(MetricsText& text) const
{
    using host::Quality;
    const std::pair<Quality, const char*> kQualities[] = {
        {Quality::Good, "good"}, {Quality::Stale, "stale"}, {Quality::Never, "never"}};
    for (int line = 0; line < m_needs.lines.size(); ++line) {
        QMap<Quality, int> counts;
        const int variables = m_needs.lines.line(line).project.variables.size();
        for (int variable = 0; variable < variables; ++variable)
            ++counts[m_needs.lines.latest(line, variable).quality];
        for (const auto& [quality, name] : kQualities)
            text.add("micro850_variables",
                     {{"line", m_needs.lines.line(line).name}, {"quality", QLatin1String(name)}},
                     counts.value(quality));
    }
}

QByteArray Metrics::Private::text()
{
    const Json status = sample();
    MetricsText text(allFamilies(), limitTexts());
    text.add("micro850_build_info", {{"version", QStringLiteral(MICRO850_VERSION)}}, 1);
    for (int line = 0; line < m_needs.lines.size(); ++line)
        addLineState(text, m_needs.lines.line(line).name, m_needs.lines.status(line));
    addQualities(text);
    addHistory(text, part(status, "history"));
    for (const auto& delivery : part(status, "delivery").items())
        addDelivery(text, {{"delivery", QString::fromStdString(delivery.key())}}, delivery.value());
    addIf(text, "micro850_clients", {}, numberOf(status, "clients"));
    text.add("micro850_http_connections", {}, static_cast<double>(m_needs.server().connections));
    if (m_needs.eventReaders)
        text.add("micro850_http_event_readers", {}, m_needs.eventReaders());
    addProcess(text);
    text.add(ownCounters());
    for (const QByteArray& group : std::as_const(m_groups))
        text.add(m_ledger.totals(group));
    return text.text();
}

// A worker tells of its stations with its first status.
int Metrics::Private::unheardLines() const
{
    int unheard = 0;
    for (int line = 0; line < m_needs.lines.size(); ++line)
        unheard += m_needs.lines.status(line).contains("stations") ? 0 : 1;
    return unheard;
}

Metrics::Metrics(MetricsNeeds needs) : m_private(std::make_unique<Private>(std::move(needs))) {}

Metrics::~Metrics() = default;

// No name of the plant is in the answers of "/healthz" and "/readyz": they are open to all.
void Metrics::addRoutes(Router& router)
{
    const char* const kPlain = "text/plain; charset=utf-8";
    router.add("GET", "/metrics", [this](const HttpExchangePointer& exchange, const Caller&) {
        exchange->answer(plainText(200, "text/plain; version=0.0.4; charset=utf-8", text()));
    });
    router.add("GET", "/healthz", [kPlain](const HttpExchangePointer& exchange, const Caller&) {
        exchange->answer(plainText(200, kPlain, "ok\n"));
    });
    router.add(
        "GET", "/readyz", [this, kPlain](const HttpExchangePointer& exchange, const Caller&) {
            const int unheard = unheardLines();
            const QByteArray why = QByteArray::number(unheard) + " of the lines not heard of yet\n";
            exchange->answer(unheard == 0 ? plainText(200, kPlain, "ready\n")
                                          : plainText(503, kPlain, why));
        });
}

QByteArray Metrics::text()
{
    return m_private->text();
}

int Metrics::unheardLines() const
{
    return m_private->unheardLines();
}

void Metrics::sample()
{
    m_private->sample();
}

QVector<MetricFamily> Metrics::families()
{
    return allFamilies();
}

} // namespace micro850::gateway
