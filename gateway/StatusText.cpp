#include "StatusText.h"

#include "Counted.h"
#include "LineStatus.h"
#include "LocalTime.h"
#include "Visible.h"

#include <QtCore/QStringList>

#include <array>

namespace micro850::gateway {

namespace {

// Of processes that deliver to brokers.
const std::array<const char*, 2> kKinds = {"mqtt", "sparkplug"};
const std::int64_t kMostCount = std::int64_t(1) << 45;

QString shown(const JsonNode& object, const char* key)
{
    return host::visible(QString::fromStdString(object.text(key, "")));
}

// Null stands for a number that is not known yet.
std::optional<qint64> numberIn(const JsonNode& object, const char* key)
{
    if (!object.has(key) || object.at(key).value().is_null())
        return std::nullopt;
    return object.at(key).integer(0, kMostCount);
}

QString timeText(qint64 milliseconds)
{
    return QString::fromStdString(localTimeText(milliseconds));
}

QString megabytesText(qint64 bytes)
{
    const double kMegabyte = 1e6;
    return QString::number(double(bytes) / kMegabyte, 'f', 1) + QStringLiteral(" MB");
}

// The service and its workers together.
qint64 memoryOf(const JsonNode& reply)
{
    const int kKilobyte = 1024;
    qint64 kilobytes = reply.at("memoryKb").integer(0, kMostCount);
    for (const JsonNode& line : reply.at("lines").elements())
        kilobytes += numberIn(line, "memoryKb").value_or(0);
    for (const char* kind : kKinds) {
        if (reply.has("delivery") && reply.at("delivery").has(kind))
            kilobytes += numberIn(reply.at("delivery").at(kind), "memoryKb").value_or(0);
    }
    return kilobytes * kKilobyte;
}

QString secondsText(qint64 milliseconds)
{
    const double kSecond = 1000;
    return QString::number(double(milliseconds) / kSecond, 'f', 1) + QStringLiteral(" s");
}

// "3 d 04:05:06", without days below one.
QString uptimeText(qint64 seconds)
{
    const int kMinute = 60;
    const int kHour = 60 * kMinute;
    const int kDay = 24 * kHour;
    const auto two = [](qint64 number) {
        return QStringLiteral("%1").arg(number, 2, 10, QLatin1Char('0'));
    };
    const QString days =
        seconds < kDay ? QString() : QString::number(seconds / kDay) + QStringLiteral(" d ");
    return days + two(seconds % kDay / kHour) + ':' + two(seconds % kHour / kMinute) + ':' +
           two(seconds % kMinute);
}

QString historyText(const JsonNode& history)
{
    QStringList parts(shown(history, "state"));
    if (history.has("file"))
        parts.append(shown(history, "file"));
    if (const std::optional<qint64> bytes = numberIn(history, "bytes"))
        parts.append(megabytesText(*bytes));
    if (const qint64 leftOut = numberIn(history, "leftOut").value_or(0))
        parts.append(QStringLiteral("%1 left out").arg(leftOut));
    if (history.has("reason"))
        parts.append(shown(history, "reason"));
    return QStringLiteral("history: ") + parts.join(QStringLiteral(", "));
}

// "page: http://127.0.0.1:8850/, 3 connections".
QString webText(const JsonNode& web)
{
    QStringList parts(shown(web, "address"));
    if (web.has("problem"))
        parts.append(QStringLiteral("cannot listen (%1)").arg(shown(web, "problem")));
    parts.append(counted(numberIn(web, "connections").value_or(0), "connection"));
    if (const qint64 logins = numberIn(web, "refusedLogins").value_or(0))
        parts.append(counted(logins, "login") + QStringLiteral(" refused"));
    if (const qint64 changes = numberIn(web, "refusedChanges").value_or(0))
        parts.append(counted(changes, "change") + QStringLiteral(" refused"));
    return QStringLiteral("page: ") + parts.join(QStringLiteral(", "));
}

// "10.0.0.7:1883, connected with MQTT 5", or why there is no connection.
QString connectionText(const JsonNode& connection)
{
    QString text = shown(connection, "broker") + QStringLiteral(", ");
    if (connection.text("state", "") == "connected")
        return text + QStringLiteral("connected with MQTT ") + shown(connection, "version");
    if (connection.text("state", "") == "connecting" && !connection.has("reason"))
        return text + QStringLiteral("connecting");
    text += QStringLiteral("not connected");
    if (connection.has("reason"))
        text += QStringLiteral(" (%1)").arg(shown(connection, "reason"));
    return text;
}

// "34 waiting, the oldest for 00:12:30".
QString waitingText(qint64 waiting, std::optional<qint64> oldest, qint64 now)
{
    QString text = QStringLiteral("%1 waiting").arg(waiting);
    const int kSecond = 1000;
    if (waiting > 0 && oldest && now >= *oldest)
        text += QStringLiteral(", the oldest for ") + uptimeText((now - *oldest) / kSecond);
    return text;
}

// "orders: 7 written, 31 not written". Counters are of one process, by outcome or in all.
QString ordersText(const JsonNode& orders)
{
    const char* const kWritten = "written";
    qint64 written = 0;
    qint64 others = 0;
    if (orders.has("outcomes")) {
        const JsonNode outcomes = orders.at("outcomes");
        for (const auto& outcome : outcomes.value().items()) {
            const qint64 count = numberIn(outcomes, outcome.key().c_str()).value_or(0);
            (outcome.key() == kWritten ? written : others) += count;
        }
    } else {
        written = numberIn(orders, kWritten).value_or(0);
        others = numberIn(orders, "refused").value_or(0);
    }
    return QStringLiteral("orders: %1 written, %2 not written").arg(written).arg(others);
}

// A broker whose access list refuses everything looks well otherwise.
void addRefused(QStringList& parts, const JsonNode& delivery)
{
    if (const qint64 refused = numberIn(delivery, "refusedByBroker").value_or(0))
        parts.append(QStringLiteral("%1 refused by the broker (see its access list)").arg(refused));
}

QString deliveryText(const char* kind, const JsonNode& delivery, qint64 now)
{
    QStringList parts;
    if (delivery.has("problem"))
        parts.append(shown(delivery, "problem"));
    else if (delivery.has("connection"))
        parts.append(connectionText(delivery.at("connection")));
    if (delivery.text("state", "") == "waiting for the primary host")
        parts.append(shown(delivery, "state"));
    qint64 waiting = numberIn(delivery, "held").value_or(0);
    std::optional<qint64> oldest;
    qint64 lost = numberIn(delivery, "leftOut").value_or(0);
    if (delivery.has("flow")) {
        const JsonNode flow = delivery.at("flow");
        parts.append(counted(numberIn(flow, "acknowledged").value_or(0), "message") +
                     QStringLiteral(" delivered"));
        waiting += numberIn(flow, "waiting").value_or(0);
        lost += numberIn(flow, "lost").value_or(0);
        oldest = numberIn(flow, "oldest");
        if (flow.text("state", "") == "in memory")
            parts.append(QStringLiteral("the queue is in memory"));
    }
    addRefused(parts, delivery);
    parts.append(waitingText(waiting, oldest, now));
    if (lost > 0)
        parts.append(QStringLiteral("%1 lost").arg(lost));
    if (delivery.has("orders"))
        parts.append(ordersText(delivery.at("orders")));
    return QLatin1String(kind) + QStringLiteral(": ") + parts.join(QStringLiteral(", "));
}

QString stationText(const host::StationView& station, qint64 now)
{
    QString text = QStringLiteral("  station %1").arg(station.number);
    if (!station.name.isEmpty())
        text += QStringLiteral(" (%1)").arg(host::visible(station.name));
    text += QStringLiteral(": ") + host::visible(station.state);
    if (!station.problem.isEmpty())
        text += QStringLiteral(" (%1)").arg(host::visible(station.problem));
    text += QStringLiteral(", %1, %2 answered, %3 timed out")
                .arg(counted(station.counters.sent, "request"))
                .arg(station.counters.answered)
                .arg(station.counters.timedOut);
    if (!station.isConnected && station.lastAnswer) {
        // The status was parsed as of time 0.
        const qint64 ago = -wholeMilliseconds(*station.lastAnswer);
        text += QStringLiteral(", last answer ") + timeText(now - ago);
    }
    return text + '\n';
}

QString workerText(const JsonNode& line)
{
    const std::optional<qint64> process = numberIn(line, "workerPid");
    if (!process)
        return QStringLiteral("  no worker runs\n");
    const int kKilobyte = 1024;
    QString text = QStringLiteral("  worker %1").arg(*process);
    if (const std::optional<qint64> memory = numberIn(line, "memoryKb"))
        text += QStringLiteral(", ") + megabytesText(*memory * kKilobyte);
    const qint64 starts = numberIn(line, "workerStarts").value_or(1);
    if (starts > 1)
        text += QStringLiteral(", started %1 times").arg(starts);
    return text + '\n';
}

QString lineText(const JsonNode& line, qint64 now)
{
    const host::LineStatus status = host::lineStatusOf(line, Duration(0));
    // In one go: a text may have a % of its own.
    QString text =
        QStringLiteral("line %1: %2, %3, %4\n")
            .arg(shown(line, "line"),
                 host::visible(status.line.text.isEmpty() ? status.line.device : status.line.text),
                 counted(numberIn(line, "variables").value_or(0), "variable"),
                 status.line.isUp ? QStringLiteral("up") : QStringLiteral("down"));
    if (!status.line.error.isEmpty())
        text += QStringLiteral("  %1\n").arg(host::visible(status.line.error));
    const std::optional<qint64> oldest = numberIn(line, "oldestMs");
    text += QStringLiteral("  %1 transactions/s, %2 % of the line in use, oldest value %3\n")
                .arg(status.figures.transactionsPerSecond, 0, 'f', 1)
                .arg(status.figures.percentInUse, 0, 'f', 0)
                .arg(oldest ? secondsText(*oldest) : QStringLiteral("never read"));
    text += workerText(line);
    if (line.has("overload"))
        text += QStringLiteral("  %1\n").arg(shown(line, "overload"));
    for (const host::StationView& station : status.stations)
        text += stationText(station, now);
    return text;
}

} // namespace

QString statusText(const JsonNode& reply, qint64 now)
{
    const qint64 uptime = reply.at("uptimeS").integer(0, kMostCount);
    const int kSecond = 1000;
    QString text = QStringLiteral("%1, up %2 since %3, %4 with its workers, %5\n")
                       .arg(shown(reply, "program"), uptimeText(uptime),
                            timeText(now - uptime * kSecond), megabytesText(memoryOf(reply)),
                            counted(reply.at("clients").integer(0, kMostCount), "client"));
    if (reply.has("history"))
        text += historyText(reply.at("history")) + '\n';
    if (reply.has("web"))
        text += webText(reply.at("web")) + '\n';
    for (const char* kind : kKinds) {
        if (reply.has("delivery") && reply.at("delivery").has(kind))
            text += deliveryText(kind, reply.at("delivery").at(kind), now) + '\n';
    }
    for (const JsonNode& line : reply.at("lines").elements())
        text += lineText(line, now);
    return text;
}

} // namespace micro850::gateway
