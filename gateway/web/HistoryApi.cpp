#include "HistoryApi.h"

#include "JsonList.h"
#include "Message.h"
#include "Problem.h"
#include "RecordObjects.h"
#include "RequestError.h"
#include "RequestKeys.h"
#include "TagAddress.h"

#include <QtCore/QLocale>

#include <cmath>

namespace micro850::gateway {

namespace {

const int kMostQueries = 32;
const int kLookMs = 100;
const int kMostPoints = 4000;
const int kMostRecords = 1000;
const qint64 kUsualSpanMs = qint64{10} * 60 * 1000;
const qint64 kDayMs = qint64{24} * 60 * 60 * 1000;

struct TrendRequest
{
    TrendQuery query;
    bool isCsv = false;
};

TrendRequest trendRequestOf(const HttpRequest& request, const WebContext& context)
{
    expectKeys(request, {QStringLiteral("line"), QStringLiteral("name"), QStringLiteral("element"),
                         QStringLiteral("from"), QStringLiteral("to"), QStringLiteral("points"),
                         QStringLiteral("format")});
    TrendRequest trend;
    TrendQuery& query = trend.query;
    query.line = request.queryText(QStringLiteral("line"));
    query.name = request.queryText(QStringLiteral("name"));
    if (query.name.isEmpty())
        throw RequestError(errorcode::kBadRequest, "name: is missing");
    // A variable that is no longer in the project can have a history.
    if (query.line.isEmpty())
        query.line =
            context.index.line(context.index.variableNamed(query.line, query.name, "name")).name;
    query.element = static_cast<int>(
        numberOf(request, QStringLiteral("element"), 0, host::kLargestElement, query.element));
    query.points =
        static_cast<int>(numberOf(request, QStringLiteral("points"), 1, kMostPoints, query.points));
    query.to = timeOf(request, QStringLiteral("to")).value_or(context.wallClock.now());
    query.from = timeOf(request, QStringLiteral("from")).value_or(query.to - kUsualSpanMs);
    if (query.from >= query.to)
        throw RequestError(errorcode::kBadRequest, "from: is not before \"to\"");
    const QString format = request.queryText(QStringLiteral("format"));
    trend.isCsv = format == QStringLiteral("csv");
    if (!format.isEmpty() && !trend.isCsv && format != QStringLiteral("json"))
        throw RequestError(errorcode::kBadRequest, "format: is neither json nor csv");
    return trend;
}

QByteArray numberText(double number, const char* none)
{
    return std::isfinite(number) ? QByteArray::number(number, 'g', QLocale::FloatingPointShortest)
                                 : QByteArray(none);
}

QByteArray textOf(const QString& text)
{
    return jsonText(host::jsonOf(text));
}

HttpResponse jsonTrend(const TrendQuery& query, const TrendAnswer& answer)
{
    HttpResponse response = jsonResponse(Json());
    QByteArray& body = response.body;
    body = R"({"line":)" + textOf(query.line) + R"(,"name":)" + textOf(query.name);
    body += R"(,"element":)" + QByteArray::number(query.element);
    body += R"(,"unit":)" + textOf(answer.unit);
    body += R"(,"from":)" + QByteArray::number(query.from);
    body += R"(,"to":)" + QByteArray::number(query.to);
    body += R"(,"resolutionMs":)" + QByteArray::number(answer.resolutionMs) + R"(,"points":[)";
    const char* separator = "[";
    for (const TrendPoint& point : answer.points) {
        body += separator + QByteArray::number(point.time) + ',' + numberText(point.least, "null") +
                ',' + numberText(point.greatest, "null") + ',' + numberText(point.last, "null") +
                ']';
        separator = ",[";
    }
    body += "]}";
    return response;
}

// Of a name that can be anything.
QByteArray fileNameOf(const QString& name)
{
    const int kLongest = 60;
    QByteArray text;
    for (const QChar c : name.left(kLongest)) {
        const bool isPlain = c.unicode() < 0x80 && (c.isLetterOrNumber() || c == '-' || c == '_');
        text += isPlain ? c.toLatin1() : '_';
    }
    return text + ".csv";
}

HttpResponse csvTrend(const TrendQuery& query, const TrendAnswer& answer)
{
    HttpResponse response;
    response.type = "text/csv; charset=utf-8";
    response.headers.append(HttpHeader{"Cache-Control", "no-store"});
    response.headers.append(HttpHeader{"Content-Disposition",
                                       "attachment; filename=\"" + fileNameOf(query.name) + '"'});
    response.body = "time,minimum,maximum,last\r\n";
    for (const TrendPoint& point : answer.points)
        response.body += host::timeText(point.time).toLatin1() + ',' + numberText(point.least, "") +
                         ',' + numberText(point.greatest, "") + ',' + numberText(point.last, "") +
                         "\r\n";
    return response;
}

QByteArray beginOf(const char* key)
{
    return QByteArray("{\"") + key + "\":[";
}

HttpResponse recordsResponse(const char* key, const std::vector<Json>& records)
{
    HttpResponse response = jsonResponse(Json());
    response.body = beginOf(key);
    const char* separator = "";
    for (const Json& record : records) {
        response.body += separator + jsonText(withExactTexts(record));
        separator = ",";
    }
    response.body += "]}";
    return response;
}

} // namespace

HistoryApi::HistoryApi(WebContext& context) : m_context(context)
{
    m_look.setInterval(kLookMs);
    QObject::connect(&m_look, &QTimer::timeout, [this] { endUnwanted(); });
}

HistoryApi::~HistoryApi()
{
    for (const Waiting& query : qAsConst(m_queries))
        *query.isUnwanted = true;
}

void HistoryApi::addRoutes(Router& router)
{
    router.add(
        "GET", "/api/v1/history",
        [this](const HttpExchangePointer& exchange, const Caller&) { answerTrend(exchange); });
    router.add("GET", "/api/v1/alarms", [this](const HttpExchangePointer& exchange, const Caller&) {
        RecordQuery query;
        query.from = m_context.wallClock.now() - kDayMs;
        answerRecords(exchange, query, &HistorySource::events, "alarms", m_events);
    });
    router.add(
        "GET", "/api/v1/journal", [this](const HttpExchangePointer& exchange, const Caller&) {
            answerRecords(exchange, RecordQuery(), &HistorySource::writes, "writes", m_writes);
        });
}

void HistoryApi::addEvent(const LineEvent& event)
{
    m_events.add(event.time, objectOf(event));
}

void HistoryApi::addWrite(const JournalEntry& entry)
{
    m_writes.add(entry.time, objectOf(entry));
}

template<typename Query> qint64 HistoryApi::begin(const HttpExchangePointer& exchange, Query& query)
{
    if (m_queries.size() >= kMostQueries)
        throw RequestError(errorcode::kBusy,
                           std::to_string(kMostQueries) + " queries of the history wait already");
    const auto isUnwanted = std::make_shared<std::atomic<bool>>(false);
    query.isUnwanted = isUnwanted;
    m_queries.insert(++m_lastQuery, {exchange, isUnwanted});
    if (!m_look.isActive())
        m_look.start();
    return m_lastQuery;
}

// One after the other is answered: what nobody waits for is not to hold up the others.
void HistoryApi::endUnwanted()
{
    for (const Waiting& query : qAsConst(m_queries)) {
        if (!query.exchange->isWanted())
            *query.isUnwanted = true;
    }
    if (m_queries.isEmpty())
        m_look.stop();
}

void HistoryApi::answerTrend(const HttpExchangePointer& exchange)
{
    TrendRequest request = trendRequestOf(exchange->request(), m_context);
    const qint64 number = begin(exchange, request.query);
    m_context.history.trend(
        request.query, [this, exchange, request, number,
                        alive = std::weak_ptr<bool>(m_alive)](const TrendAnswer& answer) {
            if (alive.expired())
                return;
            m_queries.remove(number);
            if (!answer.errorCode.isEmpty())
                return exchange->answer(problemOf({{"code", answer.errorCode.toStdString()},
                                                   {"text", answer.errorText.toStdString()}}));
            exchange->answer(request.isCsv ? csvTrend(request.query, answer)
                                           : jsonTrend(request.query, answer));
        });
}

void HistoryApi::answerRecords(const HttpExchangePointer& exchange, RecordQuery query, Ask ask,
                               const char* key, const RecentRecords& recent)
{
    const HttpRequest& request = exchange->request();
    expectKeys(request, {QStringLiteral("from"), QStringLiteral("to"), QStringLiteral("limit")});
    if (const std::optional<qint64> from = timeOf(request, QStringLiteral("from")))
        query.from = from;
    query.to = timeOf(request, QStringLiteral("to"));
    query.limit =
        static_cast<int>(numberOf(request, QStringLiteral("limit"), 1, kMostRecords, kMostRecords));
    const auto fromMemory = [exchange, query, key, &recent] {
        const QVector<QByteArray> records = recent.newest(query.from, query.to, query.limit);
        exchange->answer(listResponse(
            {beginOf(key), records.size(), [records](int i) { return records.at(i); }}));
    };
    if (m_context.history.status().value("state", std::string()) == "off")
        return fromMemory();
    const qint64 number = begin(exchange, query);
    const auto answered = [this, exchange, key, fromMemory, number,
                           alive = std::weak_ptr<bool>(m_alive)](const HistoryAnswer& answer) {
        if (alive.expired())
            return;
        m_queries.remove(number);
        if (answer.errorCode.isEmpty())
            exchange->answer(recordsResponse(key, answer.values));
        else
            fromMemory();
    };
    (m_context.history.*ask)(query, answered);
}

} // namespace micro850::gateway
