#include "ValuesApi.h"

#include "JsonList.h"
#include "Message.h"
#include "NamePattern.h"
#include "Problem.h"
#include "RequestError.h"
#include "RequestKeys.h"
#include "TagAddress.h"
#include "VariableObject.h"

namespace micro850::gateway {

namespace {

const int kLongestPattern = 255;
const int kMostWrites = 128;
const int kPatienceMs = 250;

QVector<int> numbersOf(const HttpRequest& request, const VariableIndex& index)
{
    expectKeys(request, {QStringLiteral("line"), QStringLiteral("match")});
    const QString line = request.queryText(QStringLiteral("line"));
    const QString match = request.queryText(QStringLiteral("match"));
    if (!line.isEmpty())
        index.lineNamed(line, "line");
    if (match.size() > kLongestPattern)
        throw RequestError(errorcode::kBadRequest, "match: is longer than " +
                                                       std::to_string(kLongestPattern) +
                                                       " characters");
    QVector<int> numbers;
    for (int number = 0; number < index.size(); ++number) {
        if ((line.isEmpty() || line == index.line(number).name) &&
            host::nameMatches(index.variable(number).name, match))
            numbers.append(number);
    }
    return numbers;
}

JsonList listOf(const WebContext& context, QByteArray begin, const QVector<int>& numbers,
                const std::function<QByteArray(int)>& item)
{
    JsonList list;
    list.begin = std::move(begin);
    list.size = numbers.size();
    list.item = [numbers, item](int i) { return item(numbers.at(i)); };
    list.isValid = [&context, generation = context.generation] {
        return generation == context.generation;
    };
    return list;
}

WriteRequest writeRequestOf(const HttpRequest& request)
{
    expectKeys(request, {QStringLiteral("line")});
    const JsonNode body = host::messageIn(request.body, "body");
    body.expectKeys({"value", "element", "check"});
    WriteRequest write;
    write.line = request.queryText(QStringLiteral("line"));
    write.name = request.path.last();
    write.value = host::jsonOf(body.at("value"));
    write.element = static_cast<int>(body.integer("element", 0, host::kLargestElement, 0));
    write.check = body.boolean("check", false);
    return write;
}

} // namespace

ValuesApi::ValuesApi(WebContext& context) : m_context(context)
{
    m_patience.setInterval(kPatienceMs);
    QObject::connect(&m_patience, &QTimer::timeout, [this] { cancelUnwanted(); });
}

ValuesApi::~ValuesApi()
{
    for (const auto& [token, write] : m_writes)
        m_context.writes.cancel(write.number);
}

void ValuesApi::addRoutes(Router& router)
{
    router.add("GET", "/api/v1/values", [this](const HttpExchangePointer& exchange, const Caller&) {
        answerValues(exchange);
    });
    router.add(
        "GET", "/api/v1/values/{name}",
        [this](const HttpExchangePointer& exchange, const Caller&) { answerValue(exchange); });
    router.add("PUT", "/api/v1/values/{name}",
               [this](const HttpExchangePointer& exchange, const Caller& caller) {
                   write(exchange, caller);
               });
    router.add(
        "GET", "/api/v1/variables",
        [this](const HttpExchangePointer& exchange, const Caller&) { answerVariables(exchange); });
}

void ValuesApi::answerValues(const HttpExchangePointer& exchange)
{
    const QVector<int> numbers = numbersOf(exchange->request(), m_context.index);
    exchange->answer(listResponse(listOf(m_context, R"({"values":[)", numbers, [this](int number) {
        return m_context.values.text(number);
    })));
}

void ValuesApi::answerValue(const HttpExchangePointer& exchange)
{
    const HttpRequest& request = exchange->request();
    expectKeys(request, {QStringLiteral("line")});
    const int number = m_context.index.variableNamed(request.queryText(QStringLiteral("line")),
                                                     request.path.last(), "name");
    HttpResponse response = jsonResponse(Json());
    response.body = m_context.values.text(number);
    exchange->answer(std::move(response));
}

void ValuesApi::answerVariables(const HttpExchangePointer& exchange)
{
    const QVector<int> numbers = numbersOf(exchange->request(), m_context.index);
    const auto item = [this](int number) {
        QByteArray text = host::lineOf(
            variableObject(m_context.index.line(number), m_context.index.variable(number)));
        text.chop(1);
        return text;
    };
    exchange->answer(listResponse(listOf(m_context, R"({"variables":[)", numbers, item)));
}

// Somebody wanted to write what is not allowed: that is for the journal, as it is for others.
void ValuesApi::refuseWriter(const WriteRequest& request, const Caller& caller,
                             const std::string& reason)
{
    const int number = m_context.index.variableNamed(request.line, request.name, "name");
    const GatewayValue& latest = m_context.index.latest(number);
    JournalEntry entry;
    entry.time = m_context.wallClock.now();
    entry.client = caller.name;
    entry.line = latest.line;
    entry.name = latest.name;
    entry.element = request.element;
    const auto element = static_cast<std::size_t>(request.element);
    const bool isElement = latest.value.is_array() && element < latest.value.size();
    entry.oldValue = isElement ? latest.value.at(element) : latest.value;
    entry.newValue = request.value.is_primitive() ? request.value : Json();
    entry.outcome = QString::fromLatin1(errorcode::kNotAllowed);
    entry.error = QString::fromStdString(reason);
    m_context.lines.reportWrite(entry);
}

void ValuesApi::write(const HttpExchangePointer& exchange, const Caller& caller)
{
    const WriteRequest request = writeRequestOf(exchange->request());
    if (!m_context.settings.takesWrites) {
        const std::string reason =
            R"(writing is off ("writes": true in the section "web" allows it))";
        refuseWriter(request, caller, reason);
        return exchange->answer(problem(403, errorcode::kNotAllowed, reason));
    }
    if (!caller.mayWrite) {
        const std::string reason = "writing needs the token (log in, or send it)";
        refuseWriter(request, caller, reason);
        HttpResponse response = problem(401, errorcode::kNotAllowed, reason);
        response.headers.append(HttpHeader{"WWW-Authenticate", "Bearer"});
        return exchange->answer(std::move(response));
    }
    if (static_cast<int>(m_writes.size()) >= kMostWrites)
        throw RequestError(errorcode::kBusy,
                           std::to_string(kMostWrites) + " writes of browsers wait already");
    const qint64 token = ++m_lastToken;
    m_writes[token].exchange = exchange;
    const Writer writer{-1, -1, caller.name};
    const auto answered = [this, token, alive = std::weak_ptr<bool>(m_alive)](const Json& reply) {
        if (!alive.expired())
            finishWrite(token, reply);
    };
    const qint64 number = m_context.writes.write(writer, request, answered);
    const auto waiting = m_writes.find(token);
    if (waiting == m_writes.end())
        return;
    waiting->second.number = number;
    m_patience.start();
}

void ValuesApi::finishWrite(qint64 token, const Json& reply)
{
    const auto found = m_writes.find(token);
    if (found == m_writes.end())
        return;
    const HttpExchangePointer exchange = found->second.exchange;
    m_writes.erase(found);
    const auto error = reply.find("error");
    if (error != reply.end())
        return exchange->answer(problemOf(*error));
    Json body = reply;
    body.erase("reply");
    addExactText(body, "old", "oldText");
    addExactText(body, "value", "text");
    exchange->answer(jsonResponse(body));
}

// A write whose client has gone is not begun any more: nobody would see what became of it.
void ValuesApi::cancelUnwanted()
{
    QVector<qint64> unwanted;
    for (const auto& [token, write] : m_writes) {
        if (!write.exchange->isWanted())
            unwanted.append(write.number);
    }
    for (const qint64 number : unwanted)
        m_context.writes.cancel(number);
    if (m_writes.empty())
        m_patience.stop();
}

} // namespace micro850::gateway
