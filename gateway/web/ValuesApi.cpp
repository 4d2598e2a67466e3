#include "ValuesApi.h"

#include "JsonList.h"
#include "Message.h"
#include "NamePattern.h"
#include "Problem.h"
#include "RequestError.h"
#include "RequestKeys.h"
#include "TagAddress.h"
#include "VariableObject.h"

#include <QtCore/QRandomGenerator>

#include <algorithm>
#include <optional>

namespace micro850::gateway {

namespace {

const int kLongestPattern = 255;
const int kMostWrites = 128;
const int kPatienceMs = 250;
const std::size_t kMostTickets = 256;
const Duration kTicketTime = std::chrono::minutes(10);
const int kMostStation = 65535;
const int kConflict = 409;
const char kChanged[] = "changed";
const char kChangedText[] =
    "the variable is another one now (its station, tag, element or type); look at it again";
const char kRepeated[] = "repeated";
const char kRepeatedText[] = "this write was sent already, or its check was long ago; look whether "
                             "it was carried out";

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

} // namespace

/// What the client has seen of the variable that it wants to write.
struct ValuesApi::Seen
{
    std::optional<int> station;
    std::optional<QString> tag;
    std::optional<int> first; ///< element of the tag
    std::optional<QString> type;
    QByteArray ticket; ///< of the check that was answered; empty: none

    /// Throws UserError.
    static Seen in(const JsonNode& body);
    bool is(const host::Variable& variable, const GatewayValue& latest) const;
};

ValuesApi::Seen ValuesApi::Seen::in(const JsonNode& body)
{
    Seen seen;
    if (body.has("station"))
        seen.station = static_cast<int>(body.at("station").integer(0, kMostStation));
    if (body.has("tag"))
        seen.tag = QString::fromStdString(body.at("tag").text());
    if (body.has("first"))
        seen.first = static_cast<int>(body.at("first").integer(0, host::kLargestElement));
    if (body.has("type"))
        seen.type = QString::fromStdString(body.at("type").text());
    seen.ticket = QByteArray::fromStdString(body.text("ticket", ""));
    return seen;
}

// A type that is not known yet may be the one that was seen.
bool ValuesApi::Seen::is(const host::Variable& variable, const GatewayValue& latest) const
{
    const CipType* const known = latest.type ? latest.type : variable.type;
    return station.value_or(variable.station) == variable.station &&
           tag.value_or(variable.tag) == variable.tag &&
           first.value_or(variable.element) == variable.element &&
           (!type || !known || *type == QLatin1String(known->name));
}

namespace {

WriteRequest writeRequestOf(const HttpRequest& request, const JsonNode& body)
{
    expectKeys(request, {QStringLiteral("line")});
    body.expectKeys({"value", "element", "check", "station", "tag", "first", "type", "ticket"});
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

// What is taken back is answered at once, and the answers take it out of the list.
ValuesApi::~ValuesApi()
{
    m_alive.reset();
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
        return jsonText(
            variableObject(m_context.index.line(number), m_context.index.variable(number)));
    };
    exchange->answer(listResponse(listOf(m_context, R"({"variables":[)", numbers, item)));
}

// Somebody wanted to write what is not allowed: that is for the journal, as it is for others.
void ValuesApi::refuseWriter(const WriteRequest& request, const Caller& caller, const char* code,
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
    entry.outcome = QString::fromLatin1(code);
    entry.error = QString::fromStdString(reason);
    m_context.lines.reportWrite(entry);
}

QByteArray ValuesApi::newTicket(int variable, int element)
{
    const Duration now = m_context.clock.now();
    const Ticket ticket{QByteArray::number(QRandomGenerator::system()->generate64(), 16),
                        m_context.index.identity(variable), element, now + kTicketTime};
    while (!m_tickets.empty() &&
           (m_tickets.front().until <= now || m_tickets.size() >= kMostTickets))
        m_tickets.pop_front();
    m_tickets.push_back(ticket);
    return ticket.text;
}

/// Null, or the code of a refusal. A ticket is for one write: browsers send a request again when
/// its connection ends before the answer.
const char* ValuesApi::refusalOf(const WriteRequest& request, const Seen& seen, int variable)
{
    if (!seen.is(m_context.index.variable(variable), m_context.index.latest(variable)))
        return kChanged;
    if (seen.ticket.isEmpty())
        return nullptr;
    const auto found = std::find_if(m_tickets.begin(), m_tickets.end(), [&](const Ticket& ticket) {
        return ticket.text == seen.ticket;
    });
    if (found == m_tickets.end())
        return kRepeated;
    const Ticket ticket = *found;
    m_tickets.erase(found);
    if (ticket.until <= m_context.clock.now())
        return kRepeated;
    const bool isSame =
        ticket.identity == m_context.index.identity(variable) && ticket.element == request.element;
    return isSame ? nullptr : kChanged;
}

void ValuesApi::write(const HttpExchangePointer& exchange, const Caller& caller)
{
    const JsonNode body = host::messageIn(exchange->request().body, "body");
    const WriteRequest request = writeRequestOf(exchange->request(), body);
    const Seen seen = Seen::in(body);
    if (!m_context.settings.takesWrites) {
        const std::string reason =
            R"(writing is off ("writes": true in the section "web" allows it))";
        refuseWriter(request, caller, errorcode::kNotAllowed, reason);
        return exchange->answer(problem(403, errorcode::kNotAllowed, reason));
    }
    if (!caller.mayWrite) {
        const std::string reason = "writing needs the token (log in, or send it)";
        refuseWriter(request, caller, errorcode::kNotAllowed, reason);
        HttpResponse response = problem(401, errorcode::kNotAllowed, reason);
        response.headers.append(HttpHeader{"WWW-Authenticate", "Bearer"});
        return exchange->answer(std::move(response));
    }
    const int variable = m_context.index.variableNamed(request.line, request.name, "name");
    const char* const refusal = refusalOf(request, seen, variable);
    if (refusal) {
        const std::string reason = refusal == kChanged ? kChangedText : kRepeatedText;
        refuseWriter(request, caller, refusal, reason);
        return exchange->answer(problem(kConflict, refusal, reason));
    }
    if (static_cast<int>(m_writes.size()) >= kMostWrites)
        throw RequestError(errorcode::kBusy,
                           std::to_string(kMostWrites) + " writes of browsers wait already");
    const qint64 token = ++m_lastToken;
    m_writes[token].exchange = exchange;
    if (request.check)
        m_writes[token].ticket = newTicket(variable, request.element);
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
    const QByteArray ticket = found->second.ticket;
    m_writes.erase(found);
    const auto error = reply.find("error");
    if (error != reply.end())
        return exchange->answer(problemOf(*error));
    Json body = reply;
    body.erase("reply");
    if (!ticket.isEmpty())
        body["ticket"] = ticket.toStdString();
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
