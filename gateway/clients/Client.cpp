#include "Client.h"

#include "TagAddress.h"
#include "UserError.h"
#include "VariableObject.h"
#include "VisibleText.h"

#include <algorithm>
#include <utility>

namespace micro850::gateway {

using host::errorReply;
using host::eventNamed;
using host::lineOf;
using host::OutputBuffer;
using host::replyTo;

namespace {

// What a line of output is filled to, and what may wait before further lines are made.
const int kUsualLine = 60 * 1024;
// No requests are read while so much waits.
const qint64 kMuchOutput = qint64{256} * 1024;
const qint64 kMostOutput = qint64{4} * 1024 * 1024;
const qint64 kMostOutputOfAll = qint64{64} * 1024 * 1024;
const int kMostPages = 2;
const int kMostPending = 64;
const int kMostSubscriptions = 16;
const int kMostNames = 2000;
const int kMostFreshNames = 4000;
const int kMostElements = 1000;
const int kMostMistakes = 100;
const int kMostEvents = 1000;
const int kLongestPattern = 255;
const int kLongestId = 128;
const int kLongestClientName = 100;
const int kRequestsAtOnce = 16;
const Duration kPatience = std::chrono::seconds(60);

Json idOf(const JsonNode& message)
{
    const JsonNode node = message.at("id");
    Json id = host::jsonOf(node);
    const bool isText = id.is_string();
    if (!isText && !id.is_number())
        node.fail(node.found() + " is neither a number nor a text");
    if (isText && id.get_ref<const std::string&>().size() > static_cast<std::size_t>(kLongestId))
        node.fail("is longer than " + std::to_string(kLongestId) + " bytes");
    return id;
}

QString textOf(const JsonNode& message, const std::string& key)
{
    return QString::fromStdString(message.text(key, std::string()));
}

QString patternOf(const JsonNode& message, const std::string& key)
{
    const QString pattern = textOf(message, key);
    if (pattern.size() > kLongestPattern)
        message.at(key).fail("is longer than " + std::to_string(kLongestPattern) + " characters");
    return pattern;
}

QStringList namesOf(const JsonNode& message)
{
    const JsonNode::Elements elements = message.at("names").elements();
    if (elements.size() > static_cast<std::size_t>(kMostNames))
        message.at("names").fail("has more than " + std::to_string(kMostNames) + " names");
    QStringList names;
    for (const JsonNode& name : elements)
        names << QString::fromStdString(name.text());
    return names;
}

std::optional<qint64> timeOf(const JsonNode& message, const std::string& key)
{
    if (!message.has(key))
        return std::nullopt;
    const std::optional<qint64> time = host::timeOf(textOf(message, key));
    if (!time)
        message.at(key).fail(message.at(key).found() +
                             " is no time such as 2026-11-22T13:30:00.125Z");
    return time;
}

host::TagKey tagOf(const JsonNode& message)
{
    const std::string tag = message.at("tag").text();
    if (tag.empty() || QString::fromStdString(tag).size() > host::kLongestTag)
        message.at("tag").fail("has 1 to " + std::to_string(host::kLongestTag) + " characters");
    return {static_cast<int>(message.integer("station", 0, 65535, 1)), QString::fromStdString(tag)};
}

QByteArray textOf(const Json& value)
{
    QByteArray line = lineOf(value);
    line.chop(1);
    return line;
}

} // namespace

/// A read of the controllers that waits for the lines.
struct Client::FreshRead
{
    qint64 token = 0;
    int waiting = 0;
    std::vector<QByteArray> values; ///< in the order of the request
    QByteArray error;               ///< JSON, of a line that refused
};

Client::Client(ClientContext& context, Peer peer, Send send)
    : m_context(context), m_peer(std::move(peer)), m_send(std::move(send)), m_name(m_peer.program),
      m_input(host::kLongestRequest), m_output(kMostOutput), m_connectedAt(context.clock.now()),
      m_progressAt(m_connectedAt)
{
}

Client::~Client()
{
    m_context.waitingBytes -= m_counted;
    for (const Pending& pending : std::as_const(m_pending)) {
        if (pending.cancel)
            pending.cancel();
    }
}

void Client::begin()
{
    send(lineOf({{"protocol", "micro850-gateway"},
                 {"version", host::kProtocolVersion},
                 {"program", m_context.program.toStdString()}}));
    proceed();
}

void Client::receive(const char* bytes, int size)
{
    m_input.add(bytes, size);
    m_linesWait = true;
    proceed();
}

void Client::proceed()
{
    const int kMostRounds = 8;
    if (m_proceeding)
        return;
    m_proceeding = true;
    for (int round = 0; round < kMostRounds && !m_over; ++round) {
        handleLines();
        if (!flush() || !hasWork())
            break;
    }
    m_proceeding = false;
}

// False when the socket takes no more. Then nothing new is made for it: what changes meanwhile
// replaces what waits.
bool Client::flush()
{
    if (!sendOutput())
        return false;
    fill();
    return sendOutput();
}

bool Client::sendOutput()
{
    const qint64 before = m_output.size();
    const OutputBuffer::Outcome outcome =
        before == 0 ? OutputBuffer::Outcome::Sent : m_send(m_output);
    if (m_output.isEmpty() || m_output.size() < before)
        m_progressAt = m_context.clock.now();
    countWaiting();
    m_over = m_over || outcome == OutputBuffer::Outcome::Broken;
    return outcome == OutputBuffer::Outcome::Sent;
}

bool Client::isCrowded() const
{
    return m_output.size() >= kMuchOutput || static_cast<int>(m_pages.size()) >= kMostPages;
}

bool Client::wantsInput() const
{
    return !m_over && !m_linesWait && !isCrowded();
}

bool Client::hasWork() const
{
    return (m_linesWait && !isCrowded()) || !m_pages.empty() || m_reloaded || !m_events.isEmpty() ||
           std::any_of(m_subscriptions.begin(), m_subscriptions.end(),
                       [](const Subscription& some) { return !some.isEmpty(); });
}

bool Client::wantsToProceed() const
{
    return !m_over && (!m_output.isEmpty() || hasWork());
}

void Client::handleLines()
{
    for (int i = 0; m_linesWait && !m_over && !isCrowded() && i < kRequestsAtOnce; ++i) {
        const std::optional<host::LineReader::Line> line = m_input.next();
        if (!line) {
            m_linesWait = false;
            break;
        }
        m_lineBeganAt.reset();
        handleLine(*line);
    }
    if (!m_linesWait && !m_input.hasBegun())
        m_lineBeganAt.reset();
    else if (!m_linesWait && !m_lineBeganAt)
        m_lineBeganAt = m_context.clock.now();
}

void Client::fill()
{
    while (m_output.size() < kUsualLine && !m_over) {
        const auto wanting = std::find_if(m_subscriptions.begin(), m_subscriptions.end(),
                                          [](const Subscription& some) { return !some.isEmpty(); });
        if (!m_pages.empty()) {
            send(m_pages.front().take(kUsualLine));
            if (m_pages.front().done)
                m_pages.pop_front();
        } else if (m_reloaded) {
            m_reloaded = false;
            send(lineOf(eventNamed("reloaded")));
        } else if (!m_events.isEmpty()) {
            send(m_events.first());
            m_events.erase(m_events.begin());
        } else if (wanting != m_subscriptions.end()) {
            send(wanting->take(m_context.texts, kUsualLine));
        } else {
            break;
        }
    }
}

void Client::send(const QByteArray& line)
{
    if (m_over)
        return;
    if (!m_output.add(line))
        m_over = true; // it left all the replies unread that it asked for
    countWaiting();
}

void Client::countWaiting()
{
    m_context.waitingBytes += m_output.size() - m_counted;
    m_counted = m_output.size();
    if (m_context.waitingBytes > kMostOutputOfAll && m_counted > kMuchOutput)
        m_over = true;
}

void Client::end(const char* code, const std::string& text)
{
    send(lineOf(errorReply(Json(), code, text)));
    if (!m_over)
        m_send(m_output);
    m_over = true;
}

void Client::checkTimes()
{
    const Duration now = m_context.clock.now();
    if (m_over)
        return;
    if (!m_hasRequested && now - m_connectedAt > kPatience)
        end(errorcode::kBadRequest, "no request came for 60 s");
    else if (m_lineBeganAt && now - *m_lineBeganAt > kPatience)
        end(errorcode::kBadRequest, "half a line came, and nothing more for 60 s");
    else if ((m_linesWait || isCrowded()) && !m_output.isEmpty() && now - m_progressAt > kPatience)
        end(errorcode::kBusy, "replies were not read for 60 s");
}

void Client::handleLine(const host::LineReader::Line& line)
{
    Json id;
    try {
        if (line.tooLong)
            throw UserError("request: is longer than " + std::to_string(host::kLongestRequest) +
                            " bytes");
        const JsonNode message = host::messageIn(line.text, "request");
        id = idOf(message);
        handleRequest(id, message);
        m_mistakes = 0;
        m_hasRequested = true;
    } catch (const RequestError& error) {
        m_hasRequested = true;
        sendError(id, error);
    } catch (const UserError& error) {
        sendError(id, RequestError(errorcode::kBadRequest, error.what()));
        countMistake();
    }
}

void Client::countMistake()
{
    if (++m_mistakes >= kMostMistakes)
        end(errorcode::kBadRequest,
            std::to_string(kMostMistakes) + " lines in a row were no requests");
}

void Client::sendError(const Json& id, const RequestError& error)
{
    send(lineOf(errorReply(id, error.code(), error.what())));
}

void Client::handleRequest(const Json& id, const JsonNode& message)
{
    static const std::vector<std::pair<std::string, Handler>> handlers = {
        {"hello", &Client::handleHello},         {"list", &Client::handleList},
        {"read", &Client::handleRead},           {"type", &Client::handleType},
        {"subscribe", &Client::handleSubscribe}, {"unsubscribe", &Client::handleUnsubscribe},
        {"write", &Client::handleWrite},         {"cancel", &Client::handleCancel},
        {"status", &Client::handleStatus},       {"history", &Client::handleHistory},
        {"reload", &Client::handleReloadRequest}};
    const JsonNode node = message.at("request");
    const std::string name = node.text();
    std::vector<std::string> names;
    for (const auto& [known, handler] : handlers) {
        if (known == name)
            return (this->*handler)(id, message);
        names.push_back(known);
    }
    node.fail(inQuotes(name) + " is no request" +
              (name.size() <= 30 ? didYouMean(name, names) : std::string()));
}

void Client::handleHello(const Json& id, const JsonNode& message)
{
    message.expectKeys({"request", "id", "client"});
    const QString name = QString::fromStdString(message.at("client").text());
    if (name.isEmpty() || name.size() > kLongestClientName)
        message.at("client").fail("has 1 to " + std::to_string(kLongestClientName) + " characters");
    m_name = name;
    Json reply = replyTo(id, "hello");
    reply["client"] = m_name.toStdString();
    reply["uid"] = m_peer.uid;
    reply["pid"] = m_peer.pid;
    send(lineOf(reply));
}

void Client::handleList(const Json& id, const JsonNode& message)
{
    message.expectKeys({"request", "id", "line", "match"});
    VariableFilter filter;
    filter.line = textOf(message, "line");
    filter.match = patternOf(message, "match");
    if (!filter.line.isEmpty())
        m_context.index.lineNamed(filter.line, "line");
    const QVector<int> numbers = filter.numbers(m_context.index);
    PagedReply page;
    page.id = id;
    page.reply = "list";
    page.key = "variables";
    page.size = numbers.size();
    page.isNumbered = true;
    page.item = [this, numbers](int i) {
        const int number = numbers.at(i);
        return textOf(
            variableObject(m_context.index.line(number), m_context.index.variable(number)));
    };
    m_pages.push_back(std::move(page));
}

void Client::handleRead(const Json& id, const JsonNode& message)
{
    if (message.has("names"))
        return readNames(id, message);
    message.expectKeys(
        {"request", "id", "line", "station", "tag", "element", "elements", "fresh", "names"});
    if (!message.has("tag"))
        message.fail(R"(either "names" or "tag" is needed)");
    const host::TagKey tag = tagOf(message);
    message.boolean("fresh", true);
    const auto element = message.integer("element", 0, host::kLargestElement, 0);
    const auto elements = message.integer("elements", 1, kMostElements, 1);
    const int line = m_context.index.lineNamed(textOf(message, "line"), "line");
    forward(id, line,
            {{"request", "read"},
             {"line", m_context.lines.line(line).name.toStdString()},
             {"station", tag.station},
             {"tag", tag.name.toStdString()},
             {"element", element},
             {"elements", elements}},
            "read");
}

void Client::readNames(const Json& id, const JsonNode& message)
{
    message.expectKeys({"request", "id", "line", "names", "fresh"});
    const QStringList names = namesOf(message);
    const QString line = textOf(message, "line");
    QVector<int> numbers;
    for (int i = 0; i < names.size(); ++i)
        numbers.append(
            m_context.index.variableNamed(line, names.at(i), "names[" + std::to_string(i) + ']'));
    if (message.boolean("fresh", false) && !numbers.isEmpty())
        return readFresh(id, numbers);
    PagedReply page;
    page.id = id;
    page.reply = "read";
    page.key = "values";
    page.size = numbers.size();
    page.isNumbered = true;
    page.item = [this, numbers](int i) {
        return host::encoded(m_context.index.latest(numbers.at(i)));
    };
    m_pages.push_back(std::move(page));
}

void Client::readFresh(const Json& id, const QVector<int>& numbers)
{
    int waiting = numbers.size();
    for (const Pending& pending : std::as_const(m_pending))
        waiting += pending.freshNames;
    if (waiting > kMostFreshNames)
        throw RequestError(errorcode::kBusy, std::to_string(waiting) +
                                                 " values were to be read at once (at most " +
                                                 std::to_string(kMostFreshNames) + ')');
    QMap<int, QVector<int>> ofLine; // positions in the request
    for (int i = 0; i < numbers.size(); ++i)
        ofLine[m_context.index.place(numbers.at(i)).line].append(i);

    const auto read = std::make_shared<FreshRead>();
    read->token = addPending(id);
    read->waiting = ofLine.size();
    read->values.resize(static_cast<std::size_t>(numbers.size()));
    m_pending[read->token].freshNames = numbers.size();
    QVector<qint64> asked;
    for (auto some = ofLine.constBegin(); some != ofLine.constEnd(); ++some) {
        Json names = Json::array();
        for (const int i : some.value())
            names.push_back(m_context.index.variable(numbers.at(i)).name.toStdString());
        const Json request = {{"request", "read"},
                              {"line", m_context.lines.line(some.key()).name.toStdString()},
                              {"names", std::move(names)},
                              {"fresh", true}};
        const auto answered = [self = weak_from_this(), read,
                               positions = some.value()](const Json& reply) {
            const auto values = reply.find("values");
            if (reply.contains("error")) {
                read->error = textOf(reply["error"]);
            } else if (values != reply.end() && values->is_array() &&
                       static_cast<int>(values->size()) == positions.size())
            {
                for (int i = 0; i < positions.size(); ++i)
                    read->values[static_cast<std::size_t>(positions.at(i))] =
                        textOf((*values)[static_cast<std::size_t>(i)]);
            } else {
                read->error = textOf({{"code", errorcode::kRefused},
                                      {"text", "other values came than were asked for"}});
            }
            const std::shared_ptr<Client> client = self.lock();
            if (--read->waiting == 0 && client)
                client->finishFresh(*read);
        };
        asked.append(m_context.lines.ask(some.key(), request, answered));
    }
    setCancel(read->token, [&lines = m_context.lines, asked] {
        for (const qint64 number : asked)
            lines.cancel(number);
    });
}

void Client::finishFresh(const FreshRead& read)
{
    const auto pending = m_pending.constFind(read.token);
    if (pending == m_pending.constEnd())
        return;
    const Json id = pending->id;
    m_pending.remove(read.token);
    if (!read.error.isEmpty()) {
        send("{\"id\":" + textOf(id) + ",\"error\":" + read.error + "}\n");
    } else {
        PagedReply page;
        page.id = id;
        page.reply = "read";
        page.key = "values";
        page.size = static_cast<int>(read.values.size());
        page.item = [values = read.values](int i) { return values[static_cast<std::size_t>(i)]; };
        m_pages.push_back(std::move(page));
    }
    m_context.schedule();
}

// The client hears it soon: an answer may come while a line is busy with something else.
void Client::answer(qint64 token, const Json& answer, const char* reply)
{
    const auto pending = m_pending.constFind(token);
    if (pending == m_pending.constEnd())
        return;
    Json full = answer.contains("error") ? Json{{"id", pending->id}} : replyTo(pending->id, reply);
    for (const auto& [key, value] : answer.items()) {
        if (key != "id" && key != "reply")
            full[key] = value;
    }
    m_pending.remove(token);
    send(lineOf(full));
    m_context.schedule();
}

// Sends a request to the worker of a line, and its reply to the client.
void Client::forward(const Json& id, int line, const Json& request, const char* reply)
{
    const qint64 token = addPending(id);
    const auto answered = [self = weak_from_this(), token, reply](const Json& answer) {
        if (const std::shared_ptr<Client> client = self.lock())
            client->answer(token, answer, reply);
    };
    const qint64 asked = m_context.lines.ask(line, request, answered);
    setCancel(token, [&lines = m_context.lines, asked] { lines.cancel(asked); });
}

void Client::handleType(const Json& id, const JsonNode& message)
{
    message.expectKeys({"request", "id", "line", "station", "tag"});
    const host::TagKey tag = tagOf(message);
    const int line = m_context.index.lineNamed(textOf(message, "line"), "line");
    forward(id, line,
            {{"request", "type"},
             {"line", m_context.lines.line(line).name.toStdString()},
             {"station", tag.station},
             {"tag", tag.name.toStdString()}},
            "type");
}

void Client::handleSubscribe(const Json& id, const JsonNode& message)
{
    message.expectKeys({"request", "id", "line", "match", "names", "ages"});
    if (static_cast<int>(m_subscriptions.size()) >= kMostSubscriptions)
        throw RequestError(errorcode::kBusy, "there are " + std::to_string(kMostSubscriptions) +
                                                 " subscriptions already (end one of them)");
    VariableFilter filter;
    filter.line = textOf(message, "line");
    filter.match = patternOf(message, "match");
    if (!filter.line.isEmpty())
        m_context.index.lineNamed(filter.line, "line");
    if (message.has("names")) {
        if (message.has("match"))
            message.at("match").fail("does not go with \"names\"");
        filter.names = namesOf(message);
        for (int i = 0; i < filter.names.size(); ++i)
            m_context.index.variableNamed(filter.line, filter.names.at(i),
                                          "names[" + std::to_string(i) + ']');
    }
    const bool ages = message.boolean("ages", false);
    const int number = ++m_lastSubscription;
    m_subscriptions.emplace_back(number, filter, ages, m_context.index);
    for (const int member : m_subscriptions.back().members())
        m_context.texts.forget(member);
    Json reply = replyTo(id, "subscribe");
    reply["subscription"] = number;
    reply["variables"] = m_subscriptions.back().members().size();
    send(lineOf(reply));
}

void Client::handleUnsubscribe(const Json& id, const JsonNode& message)
{
    message.expectKeys({"request", "id", "subscription"});
    const auto number = message.at("subscription").integer(0, INT32_MAX);
    const auto found = std::find_if(m_subscriptions.begin(), m_subscriptions.end(),
                                    [&](const Subscription& some) { return some.id() == number; });
    if (found == m_subscriptions.end())
        throw RequestError(errorcode::kUnknownName,
                           "subscription: " + std::to_string(number) + " does not exist");
    m_subscriptions.erase(found);
    Json reply = replyTo(id, "unsubscribe");
    reply["subscription"] = number;
    send(lineOf(reply));
}

void Client::handleWrite(const Json& id, const JsonNode& message)
{
    const WriteRequest request = WriteRequest::fromMessage(message);
    const qint64 token = addPending(id);
    const Writer writer{m_peer.uid, m_peer.pid, m_name};
    const auto answered = [self = weak_from_this(), token](const Json& answer) {
        if (const std::shared_ptr<Client> client = self.lock())
            client->answer(token, answer, "write");
    };
    const qint64 number = m_context.writes.write(writer, request, answered);
    setCancel(token, [&writes = m_context.writes, number] { writes.cancel(number); });
}

void Client::handleCancel(const Json& id, const JsonNode& message)
{
    message.expectKeys({"request", "id", "of"});
    const Json of = host::jsonOf(message.at("of"));
    const auto found = std::find_if(m_pending.begin(), m_pending.end(),
                                    [&](const Pending& pending) { return pending.id == of; });
    if (found == m_pending.end())
        throw RequestError(errorcode::kUnknownName, "of: no request with this id waits");
    send(lineOf(replyTo(id, "cancel")));
    const std::function<void()> cancel = found->cancel;
    if (cancel)
        cancel();
}

void Client::handleStatus(const Json& id, const JsonNode& message)
{
    message.expectKeys({"request", "id"});
    Json reply = statusOf(m_context);
    reply["id"] = id;
    send(lineOf(reply));
}

void Client::handleHistory(const Json& id, const JsonNode& message)
{
    message.expectKeys({"request", "id", "line", "name", "from", "to", "after", "limit"});
    HistoryQuery query;
    query.filter.line = patternOf(message, "line");
    query.filter.name = patternOf(message, "name");
    query.filter.from = timeOf(message, "from");
    query.filter.to = timeOf(message, "to");
    query.filter.after = message.integer("after", -1, INT64_MAX, -1);
    query.limit = static_cast<int>(message.integer("limit", 1, kMostHistoryValues, query.limit));
    const int kMostQueries = 2; // an answer can have many values
    if (std::count_if(m_pending.begin(), m_pending.end(),
                      [](const Pending& some) { return !some.cancel; }) >= kMostQueries)
        throw RequestError(errorcode::kBusy, "the history is being asked already");
    const qint64 token = addPending(id);
    m_context.history.query(query, [self = weak_from_this(), token](HistoryAnswer answer) {
        if (const std::shared_ptr<Client> client = self.lock())
            client->answerHistory(token, std::move(answer));
    });
}

void Client::answerHistory(qint64 token, HistoryAnswer answer)
{
    if (!answer.errorCode.isEmpty()) {
        const Json error = {{"code", answer.errorCode.toStdString()},
                            {"text", answer.errorText.toStdString()}};
        return Client::answer(token, {{"error", error}}, "history");
    }
    PagedReply page;
    page.id = m_pending.take(token).id;
    page.reply = "history";
    page.key = "values";
    page.size = static_cast<int>(answer.values.size());
    page.last = {{"complete", answer.complete}};
    page.item = [values = std::move(answer.values)](int i) {
        return textOf(values[static_cast<std::size_t>(i)]);
    };
    m_pages.push_back(std::move(page));
    m_context.schedule();
}

void Client::handleReloadRequest(const Json& id, const JsonNode& message)
{
    message.expectKeys({"request", "id"});
    if (m_peer.uid != 0 && m_peer.uid != m_context.serviceUid)
        throw RequestError(errorcode::kNotAllowed,
                           "only root and the user of the service can reload");
    try {
        m_context.reload();
    } catch (const UserError& error) {
        throw RequestError(errorcode::kBadConfiguration, error.what());
    }
    send(lineOf(replyTo(id, "reload")));
}

qint64 Client::addPending(const Json& id)
{
    if (m_pending.size() >= kMostPending)
        throw RequestError(errorcode::kBusy,
                           std::to_string(kMostPending) + " requests of this client wait already");
    for (const Pending& pending : std::as_const(m_pending)) {
        if (pending.id == id)
            throw RequestError(errorcode::kBadRequest, "id: a request with this id waits already");
    }
    const qint64 token = ++m_lastToken;
    m_pending[token].id = id;
    return token;
}

// The request may have been answered already.
void Client::setCancel(qint64 token, const std::function<void()>& cancel)
{
    const auto pending = m_pending.find(token);
    if (pending != m_pending.end())
        pending->cancel = cancel;
}

void Client::prepareChange(int number)
{
    if (m_over || !m_output.isEmpty())
        return;
    const bool waits =
        std::any_of(m_subscriptions.begin(), m_subscriptions.end(),
                    [&](const Subscription& some) { return some.hasChange(number); });
    if (waits)
        flush();
}

bool Client::addChange(int number)
{
    bool added = false;
    for (Subscription& subscription : m_subscriptions) {
        added = added || subscription.isMember(number);
        subscription.add(number);
    }
    return added;
}

void Client::addEvent(const LineEvent& event)
{
    const bool wanted =
        event.line.isEmpty()
            ? !m_subscriptions.empty()
            : std::any_of(m_subscriptions.begin(), m_subscriptions.end(),
                          [&](const Subscription& some) { return some.hasLine(event.line); });
    if (!wanted || m_events.size() >= kMostEvents)
        return;
    Json object = eventNamed("state");
    if (!event.line.isEmpty())
        object["line"] = event.line.toStdString();
    if (event.station >= 0)
        object["station"] = event.station;
    object["state"] = event.state.toStdString();
    object["text"] = event.text.toStdString();
    m_events[{event.line, event.station}] = lineOf(object);
}

void Client::sendAges(const std::function<QByteArray(int)>& age)
{
    for (const Subscription& subscription : m_subscriptions) {
        if (!subscription.wantsAges() || !m_output.isEmpty() || m_over)
            continue;
        const QVector<int>& members = subscription.members();
        for (int at = 0; at < members.size();) {
            QByteArray line = R"({"event":"ages","subscription":)" +
                              QByteArray::number(subscription.id()) + ",\"ages\":[";
            const int first = at;
            while (at < members.size() && line.size() < kUsualLine) {
                if (at > first)
                    line += ',';
                line += age(members.at(at++));
            }
            send(line += "]}\n");
        }
        flush(); // requests that wait may end subscriptions: they have their turn later
    }
}

void Client::handleReload()
{
    for (PagedReply& page : m_pages) {
        if (!page.isNumbered)
            continue;
        page.size = page.taken;
        page.isNumbered = false;
        send(lineOf(
            errorReply(page.id, errorcode::kBusy, "the configuration was read again (ask again)")));
        page.done = true;
    }
    m_pages.erase(std::remove_if(m_pages.begin(), m_pages.end(),
                                 [](const PagedReply& page) { return page.done; }),
                  m_pages.end());
    for (Subscription& subscription : m_subscriptions)
        subscription.choose(m_context.index);
    m_reloaded = true;
}

} // namespace micro850::gateway
