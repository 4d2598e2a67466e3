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
const int kMostStation = 65535;
const int kConflict = 409;
const quint64 kNoVariable = 0; ///< an identity that none has
const char kChanged[] = "changed";
const char kChangedText[] =
    "the variable is another one now (its station, tag, element, type or scale); look at it again";
const char kRepeated[] = "repeated";
const char kRepeatedText[] =
    "this write was sent already and is not carried out again; the journal "
    "tells what became of it";
const char kUnknownText[] =
    "the ticket is not known, perhaps because the service was started again: "
    "the write is not carried out now; the journal tells whether it was "
    "before";

QVector<int> numbersOf(const HttpRequest& request, const VariableIndex& index,
                       const QStringList& furtherKeys = {})
{
    expectKeys(request, QStringList{QStringLiteral("line"), QStringLiteral("match")} + furtherKeys);
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
    std::optional<std::string> revision;
    bool hasElement = false;
    std::optional<QByteArray> ticket; ///< of the check that was answered

    /// Throws UserError.
    static Seen in(const JsonNode& body);
    bool is(const VariableIndex& index, int number) const;
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
    if (body.has("revision"))
        seen.revision = body.at("revision").text();
    seen.hasElement = body.has("element");
    if (body.has("ticket"))
        seen.ticket = QByteArray::fromStdString(body.at("ticket").text());
    return seen;
}

// A type that is not known yet may be the one that was seen.
bool ValuesApi::Seen::is(const VariableIndex& index, int number) const
{
    const host::Variable& variable = index.variable(number);
    const CipType* const told = index.latest(number).type;
    const CipType* const known = told ? told : variable.type;
    if (revision && *revision != revisionOf(index, number).toStdString())
        return false;
    return station.value_or(variable.station) == variable.station &&
           tag.value_or(variable.tag) == variable.tag &&
           first.value_or(variable.element) == variable.element &&
           (!type || !known || *type == QLatin1String(known->name));
}

namespace {

// Throws RequestError and UserError.
JsonNode bodyOf(const HttpRequest& request)
{
    const QByteArray& body = request.body;
    if (!body.contains('\0') && !Json::accept(body.begin(), body.end()))
        throw RequestError(errorcode::kBadRequest,
                           body.trimmed().isEmpty()
                               ? R"(body: is empty (an object such as {"value": 42.25} is needed))"
                               : R"(body: is not JSON, or has a number that is too large (an )"
                                 R"(object such as {"value": 42.25} is needed))");
    return host::messageIn(body, "body");
}

WriteRequest writeRequestOf(const HttpRequest& request, const JsonNode& body)
{
    expectKeys(request, {QStringLiteral("line")});
    body.expectKeys(
        {"value", "element", "check", "station", "tag", "first", "type", "revision", "ticket"});
    WriteRequest write;
    write.line = request.queryText(QStringLiteral("line"));
    write.name = request.path.last();
    write.value = host::jsonOf(body.at("value"));
    write.element = static_cast<int>(body.integer("element", 0, host::kLargestElement, 0));
    write.check = body.boolean("check", false);
    return write;
}

} // namespace

ValuesApi::ValuesApi(WebContext& context) : m_context(context), m_tickets(context.clock)
{
    m_patience.setInterval(kPatienceMs);
    QObject::connect(&m_patience, &QTimer::timeout, [this] { cancelUnwanted(); });
}

ValuesApi::~ValuesApi()
{
    giveUp();
}

// What is taken back is answered at once, and the answers take it out of the list.
void ValuesApi::giveUp(Duration begunUntil)
{
    QVector<qint64> tokens;
    for (const auto& [token, write] : m_writes) {
        if (write.begun <= begunUntil)
            tokens.append(token);
    }
    for (const qint64 token : tokens) {
        const Write write = m_writes[token];
        m_context.writes.cancel(write.number);
        const char* const code = write.isCheck ? errorcode::kCancelled : errorcode::kUnknownOutcome;
        const char* const text =
            write.isCheck
                ? "the web server ended; nothing was written"
                : "the web server ended before the outcome was known; the journal tells it";
        finishWrite(token, {{"error", {{"code", code}, {"text", text}}}});
    }
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
    const QString kLastEvent = QStringLiteral("lastEvent");
    const HttpRequest& request = exchange->request();
    const QVector<int> numbers = numbersOf(request, m_context.index, {kLastEvent});
    QByteArray begin = R"({"values":[)";
    if (numberOf(request, kLastEvent, 0, 1, 0) == 1)
        begin = R"({"lastEvent":")" + m_context.lastEvent() + R"(","values":[)";
    exchange->answer(listResponse(listOf(
        m_context, begin, numbers, [this](int number) { return m_context.values.text(number); })));
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
        Json object =
            variableObject(m_context.index.line(number), m_context.index.variable(number));
        if (m_context.index.variable(number).writable)
            object["revision"] = revisionOf(m_context.index, number).toStdString();
        return jsonText(object);
    };
    exchange->answer(listResponse(listOf(m_context, R"({"variables":[)", numbers, item)));
}

// Nothing for a name that the rules will refuse.
std::optional<int> ValuesApi::variableOf(const WriteRequest& request) const
{
    try {
        return m_context.index.variableNamed(request.line, request.name, "name");
    } catch (const RequestError&) {
        return std::nullopt;
    }
}

// Somebody wanted to write what is not allowed: that is for the journal, as it is for others.
void ValuesApi::refuseWriter(const WriteRequest& request, const Caller& caller,
                             const Refusal& refusal)
{
    const int kLongestName = 255;
    JournalEntry entry;
    entry.time = m_context.wallClock.now();
    entry.client = caller.name;
    entry.line = request.line.left(kLongestName);
    entry.name = request.name.left(kLongestName);
    if (const std::optional<int> variable = variableOf(request)) {
        const GatewayValue& latest = m_context.index.latest(*variable);
        entry.line = latest.line;
        entry.name = latest.name;
        const auto element = static_cast<std::size_t>(request.element);
        const bool isElement = latest.value.is_array() && element < latest.value.size();
        entry.oldValue = isElement ? latest.value.at(element) : latest.value;
    }
    entry.element = request.element;
    entry.newValue = journalValue(request.value);
    entry.outcome = QString::fromLatin1(request.check ? kCheckFailed : refusal.code);
    entry.error = QString::fromStdString(refusal.reason);
    m_context.lines.reportWrite(entry);
}

WriteTickets::Write ValuesApi::wantedWrite(const WriteRequest& request, const Caller& caller) const
{
    const std::optional<int> variable = variableOf(request);
    return WriteTickets::Write{caller.isSession ? caller.sessionId : caller.tokenMark,
                               variable ? m_context.index.identity(*variable) : kNoVariable,
                               request.element};
}

// A program may know that it sends a write once; a browser sends some again by itself.
std::optional<ValuesApi::Refusal> ValuesApi::refusalOfTicket(const QByteArray& ticket,
                                                             const WriteTickets::Write& wanted)
{
    switch (m_tickets.use(ticket, wanted)) {
    case WriteTickets::Use::Good:
        break;
    case WriteTickets::Use::TooOld:
        return Refusal{kConflict, errorcode::kNotAllowed,
                       R"(the check was too long ago, nothing was written (ask with "check": true )"
                       "again)"};
    case WriteTickets::Use::Another:
        if (wanted.identity == kNoVariable)
            break; // the rules say that it is gone
        return Refusal{kConflict, kChanged,
                       "the ticket is for another variable or element; nothing was written"};
    case WriteTickets::Use::Used:
        return Refusal{kConflict, kRepeated, kRepeatedText};
    case WriteTickets::Use::Unknown:
        return Refusal{kConflict, errorcode::kUnknownOutcome, kUnknownText};
    }
    return std::nullopt;
}

// The ticket comes first: of a write that is sent again, nothing else tells what became of it. It
// is used up before the write begins.
std::optional<ValuesApi::Refusal> ValuesApi::refusalOf(const WriteRequest& request,
                                                       const Seen& seen, const Caller& caller)
{
    const bool hasTicket = seen.ticket && !request.check;
    if (hasTicket && caller.mayWrite) {
        if (std::optional<Refusal> refusal =
                refusalOfTicket(*seen.ticket, wantedWrite(request, caller)))
            return refusal;
    }
    if (!m_context.settings.takesWrites)
        return Refusal{403, errorcode::kNotAllowed,
                       R"(writing is off ("writes": true in the section "web" allows it))"};
    if (!caller.mayWrite)
        return Refusal{401, errorcode::kNotAllowed, "writing needs the token (log in, or send it)"};
    if (static_cast<int>(m_writes.size()) >= kMostWrites)
        return Refusal{503, errorcode::kBusy,
                       std::to_string(kMostWrites) + " writes of browsers wait already"};
    return refusalOfVariable(request, seen, caller);
}

std::optional<ValuesApi::Refusal> ValuesApi::refusalOfVariable(const WriteRequest& request,
                                                               const Seen& seen,
                                                               const Caller& caller) const
{
    const std::optional<int> variable = variableOf(request);
    if (!variable)
        return std::nullopt;
    const int length = m_context.index.variable(*variable).length;
    if (!seen.hasElement && length > 1)
        return Refusal{400, errorcode::kBadRequest,
                       "element: is needed, because the variable has " + std::to_string(length) +
                           " elements"};
    if (!seen.is(m_context.index, *variable))
        return Refusal{kConflict, kChanged, kChangedText};
    if (caller.isSession && !request.check && !seen.ticket)
        return Refusal{400, errorcode::kBadRequest,
                       R"(ticket: is missing (the reply to "check": true has it))"};
    return std::nullopt;
}

void ValuesApi::write(const HttpExchangePointer& exchange, const Caller& caller)
{
    const JsonNode body = bodyOf(exchange->request());
    const WriteRequest request = writeRequestOf(exchange->request(), body);
    const Seen seen = Seen::in(body);
    if (const std::optional<Refusal> refusal = refusalOf(request, seen, caller)) {
        refuseWriter(request, caller, *refusal);
        HttpResponse response = problem(refusal->status, refusal->code, refusal->reason);
        if (refusal->status == 401)
            response.headers.append(HttpHeader{"WWW-Authenticate", "Bearer"});
        return exchange->answer(std::move(response));
    }
    const qint64 token = ++m_lastToken;
    Write& begun = m_writes[token];
    begun.exchange = exchange;
    begun.begun = m_context.clock.now();
    begun.isCheck = request.check;
    begun.allowed = wantedWrite(request, caller);
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
    const Write write = found->second;
    const HttpExchangePointer& exchange = write.exchange;
    m_writes.erase(found);
    const auto error = reply.find("error");
    if (error != reply.end())
        return exchange->answer(problemOf(*error));
    Json body = reply;
    body.erase("reply");
    if (write.isCheck)
        body["ticket"] = m_tickets.give(write.allowed).toStdString();
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
