#include "WorkerRequests.h"

#include "TagAddress.h"
#include "UserError.h"
#include "VisibleText.h"
#include "Writable.h"

namespace micro850::gateway {

namespace {

using host::TagKey;
namespace errorcode = host::errorcode;

const std::size_t kMostWaiting = 64;
// The driver never forgets the name of a tag.
const int kMostOtherTags = 10000;
const int kMostElements = 65536;

/// The text of a value as users write it.
QString textOf(const JsonNode& value, const CipType& type)
{
    const nlohmann::json& json = value.value();
    if (json.is_boolean() || json.is_number())
        return QString::fromStdString(value.scalar());
    if (!json.is_string())
        value.fail(value.found() + " is no number, true, false or text");
    const std::string text = json.get<std::string>();
    return QString::fromStdString(type.kind == CipKind::String ? visibleValue(text) : text);
}

Json idOf(const JsonNode& request)
{
    return request.has("id") ? host::jsonOf(request.at("id")) : Json();
}

QString placeOf(const TagKey& key, int element)
{
    return element == 0 ? key.name : QStringLiteral("%1[%2]").arg(key.name).arg(element);
}

} // namespace

/// Why a request is not carried out, with the code of the protocol.
struct WorkerRequests::Refusal
{
    const char* code;
    std::string text;
    int element = -1;
};

// Bytes of one type are another value in another one of the same size. The service may know the
// type that the tag had before, or the one that only the project has.
void WorkerRequests::requireType(const JsonNode& request, const CipType& type, const QString& what)
{
    const std::string checked = request.text("type", type.name);
    if (checked != type.name)
        throw Refusal{errorcode::kRefused, what.toStdString() + " is " + type.name +
                                               " in the controller, not " + checked};
}

WorkerRequests::WorkerRequests(host::PollLoop& loop, const host::Project& project,
                               const LineReport& report, Reply reply)
    : m_loop(loop), m_project(project), m_report(report), m_reply(std::move(reply)),
      m_session(loop, project)
{
    m_session.setInterrupt([this] { return m_runningIsCancelled && !m_isWritten; });
    for (int i = 0; i < project.variables.size(); ++i)
        m_variables.insert(project.variables.at(i).name, i);
}

void WorkerRequests::add(const QByteArray& line)
{
    Json id;
    try {
        const JsonNode request = host::messageIn(line, "request");
        id = idOf(request);
        if (request.at("request").text() == "cancel")
            cancel(host::jsonOf(request.at("of")));
        else if (m_waiting.size() >= kMostWaiting)
            m_reply(host::errorReply(id, errorcode::kBusy, "too many requests wait"));
        else
            m_waiting.push_back({id, request});
    } catch (const UserError& error) {
        m_reply(host::errorReply(id, errorcode::kBadRequest, error.what()));
    }
}

void WorkerRequests::cancel(const Json& id)
{
    if (m_isRunning && m_runningId == id)
        m_runningIsCancelled = true;
    for (auto waiting = m_waiting.begin(); waiting != m_waiting.end(); ++waiting) {
        if (waiting->id != id)
            continue;
        m_waiting.erase(waiting);
        m_reply(host::errorReply(id, errorcode::kCancelled, "it was taken back"));
        return;
    }
}

bool WorkerRequests::runNext()
{
    if (m_waiting.empty() || m_isRunning)
        return false;
    const Waiting next = m_waiting.front();
    m_waiting.pop_front();
    m_isRunning = true;
    m_runningId = next.id;
    m_runningIsCancelled = m_isWritten = false;
    Json reply;
    try {
        reply = carryOut(next.request);
        Json withId = {{"id", next.id}};
        withId.update(reply);
        reply = std::move(withId);
    } catch (const Refusal& refusal) {
        reply = host::errorReply(next.id, refusal.code, refusal.text, refusal.element);
    } catch (const host::TagRefused& error) {
        reply = host::errorReply(next.id, errorcode::kRefused, error.what(), error.element());
        reply["error"]["why"] = error.why();
    } catch (const UserError& error) {
        const bool failed = error.status() == kExitRefused;
        const char* const code = m_runningIsCancelled && failed ? errorcode::kCancelled
                                 : failed                       ? errorcode::kUnreachable
                                                                : errorcode::kBadRequest;
        reply = host::errorReply(next.id, code, error.what());
    }
    m_isRunning = false;
    m_reply(reply);
    return true;
}

void WorkerRequests::throwIfCancelled() const
{
    if (m_runningIsCancelled)
        throw Refusal{errorcode::kCancelled, "it was taken back"};
}

Json WorkerRequests::carryOut(const JsonNode& request)
{
    throwIfCancelled();
    const std::string name = request.at("request").text();
    if (name == "read")
        return request.has("names") ? readNames(request) : read(request);
    if (name == "type")
        return type(request);
    if (name == "write")
        return write(request);
    throw Refusal{errorcode::kBadRequest,
                  "request: " + inQuotes(name) + " is no request of a line (read, type or write)"};
}

TagKey WorkerRequests::keyIn(const JsonNode& request)
{
    TagKey key;
    const int only = m_project.stations.first().number;
    key.station = static_cast<int>(request.integer("station", 0, 65535, only));
    if (!m_project.hasStation(key.station))
        throw Refusal{errorcode::kUnknownName,
                      "station: the line has no station " + std::to_string(key.station)};
    key.name = QString::fromStdString(request.at("tag").text());
    if (key.name.isEmpty() || key.name.size() > host::kLongestTag)
        throw Refusal{errorcode::kBadRequest,
                      "tag: a name has 1 to " + std::to_string(host::kLongestTag) + " characters"};
    requireRoomFor(key);
    return key;
}

void WorkerRequests::requireRoomFor(const TagKey& key)
{
    if (m_loop.tag(key).state != host::Tag::State::Unknown || m_otherTags.contains(key))
        return;
    if (m_otherTags.size() >= kMostOtherTags)
        throw Refusal{errorcode::kBusy,
                      std::to_string(kMostOtherTags) +
                          " other tags were asked for (make the tag a variable of the project)"};
    m_otherTags.insert(key);
}

int WorkerRequests::variableNamed(const QString& name) const
{
    const auto found = m_variables.constFind(name);
    if (found == m_variables.constEnd())
        throw Refusal{errorcode::kUnknownName,
                      "the line has no variable " + inQuotes(name.toStdString())};
    return *found;
}

Json WorkerRequests::type(const JsonNode& request)
{
    const TagKey key = keyIn(request);
    return {{"reply", "type"}, {"type", m_session.typeOf(key).name}};
}

Json WorkerRequests::read(const JsonNode& request)
{
    const TagKey key = keyIn(request);
    const int element = static_cast<int>(request.integer("element", 0, host::kLargestElement, 0));
    const int elements = static_cast<int>(request.integer("elements", 1, kMostElements, 1));
    if (element + elements - 1 > host::kLargestElement)
        throw Refusal{errorcode::kBadRequest, "elements: they reach beyond element " +
                                                  std::to_string(host::kLargestElement)};
    const CipType& type = m_session.typeOf(key);
    throwIfCancelled();
    Json read = Json::array();
    const QVector<QByteArray> values = m_session.read(key, element, elements);
    for (const QByteArray& value : values)
        read.push_back(value.toHex().toStdString());
    return {{"reply", "read"}, {"type", type.name}, {"elements", std::move(read)}};
}

// The replies also come into the store of values, for every variable that shows the elements.
Json WorkerRequests::readNames(const JsonNode& request)
{
    QVector<int> variables;
    for (const JsonNode& name : request.at("names").elements())
        variables.append(variableNamed(QString::fromStdString(name.text())));
    for (const int i : variables) {
        const host::Variable& variable = m_project.variables.at(i);
        m_session.read({variable.station, variable.tag}, variable.element, variable.length);
    }
    Json values = Json::array();
    for (const int i : variables)
        values.push_back(m_report.valueObject(i));
    return {{"reply", "read"}, {"values", std::move(values)}};
}

WorkerRequests::Target WorkerRequests::targetOf(const JsonNode& request)
{
    Target target;
    target.element = static_cast<int>(request.integer("element", 0, host::kLargestElement, 0));
    if (!request.has("name")) {
        target.key = keyIn(request);
        target.what = placeOf(target.key, target.element);
        return target;
    }
    const QString name = QString::fromStdString(request.at("name").text());
    const host::Variable& variable = m_project.variables.at(variableNamed(name));
    if (target.element >= variable.length)
        throw Refusal{errorcode::kBadRequest, "element: " + inQuotes(name.toStdString()) +
                                                  " has only " + std::to_string(variable.length) +
                                                  " element" + (variable.length == 1 ? "" : "s")};
    target.key = {variable.station, variable.tag};
    target.what = placeOf({variable.station, name}, target.element);
    target.element += variable.element;
    target.scaling = host::Scaling(variable);
    return target;
}

Json WorkerRequests::write(const JsonNode& request)
{
    const Target target = targetOf(request);
    const CipType& type = m_session.typeOf(target.key);
    requireType(request, type, target.what);
    host::requireWritable(type, target.what);
    host::requireReachable(type, target.element, 1, target.what);
    QByteArray bytes;
    if (request.has("bytes")) {
        bytes = host::bytesOf(QString::fromStdString(request.at("bytes").text()), "bytes");
        const bool isText = type.kind == CipKind::String;
        if (bytes.isEmpty() || bytes.size() > type.size || (!isText && bytes.size() != type.size))
            throw Refusal{errorcode::kBadRequest,
                          "bytes: they are not those of one " + std::string(type.name)};
    } else {
        bytes = host::encodeElement(
            type, target.scaling.stored(type, textOf(request.at("value"), type)).value);
    }
    throwIfCancelled();
    const auto shown = [&](const QByteArray& value) {
        return host::jsonOf(target.scaling.shown(type, host::decodeElement(type, value)));
    };
    const QByteArray old = m_session.read(target.key, target.element, 1).value(0);
    throwIfCancelled();
    send(target, bytes);
    m_isWritten = true;
    Json reply = {{"reply", "write"}, {"outcome", "written"}, {"old", shown(old)}};
    readBack(target, type, bytes, reply);
    return reply;
}

void WorkerRequests::send(const Target& target, const QByteArray& bytes)
{
    try {
        m_session.write(target.key, target.element, bytes);
    } catch (const host::NotWritten& error) {
        throwIfCancelled();
        throw Refusal{errorcode::kUnreachable, std::string("not sent: ") + error.what()};
    } catch (const host::TagRefused&) {
        throw;
    } catch (const UserError& error) {
        if (error.status() != kExitRefused)
            throw;
        throw Refusal{errorcode::kUnknownOutcome,
                      std::string("it may have been carried out: ") + error.what()};
    }
}

void WorkerRequests::readBack(const Target& target, const CipType& type, const QByteArray& written,
                              Json& reply)
{
    reply["value"] = Json();
    reply["bytes"] = "";
    reply["verified"] = false;
    try {
        const QByteArray now = m_session.read(target.key, target.element, 1).value(0);
        reply["value"] = host::jsonOf(target.scaling.shown(type, host::decodeElement(type, now)));
        reply["bytes"] = now.toHex().toStdString();
        reply["verified"] = now == written;
    } catch (const UserError& error) {
        reply["problem"] = std::string("not read back: ") + error.what();
    }
}

} // namespace micro850::gateway
