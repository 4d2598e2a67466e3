#include "WriteRules.h"

#include "RequestError.h"
#include "Scaling.h"
#include "TagAddress.h"
#include "UserError.h"
#include "VisibleText.h"
#include "Writable.h"
#include "WriteLimits.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

namespace micro850::gateway {

using host::Scaling;
using host::Variable;

struct WriteRules::Pending
{
    Writer writer;
    WriteRequest request;
    Answer answer;
    QString line;
    QString name;
    int element = 0;
    Json oldValue;
    Json newValue;
    qint64 asked = 0;
    bool cancelled = false;
    std::optional<quint64> identity; ///< of the variable that was found first
};

/// The element that a request means.
struct WriteRules::Target
{
    QVector<int> variables; ///< numbers of all whose rules count; the first one gives the name
    int line = 0;
    host::TagKey tag;
    int element = 0; ///< of the tag
    int within = 0;  ///< of the first variable
};

namespace {

const Duration kMinute = std::chrono::seconds(60);

// A whole number that JSON writes as 1e3 or 5.0 is one for the controller too.
QString numberText(const Json& value)
{
    const double kMostExact = 9007199254740991;
    if (value.is_number_float()) {
        const double number = value.get<double>();
        if (std::abs(number) <= kMostExact && number == std::trunc(number) &&
            !(number == 0 && std::signbit(number)))
            return QString::number(static_cast<qint64>(number));
    }
    return QString::fromStdString(value.dump());
}

[[noreturn]] void refuse(const std::string& text)
{
    throw RequestError(errorcode::kNotAllowed, text);
}

CipValue textValue(const CipType& type, const QString& text)
{
    const bool fits =
        std::all_of(text.begin(), text.end(), [](QChar c) { return c.unicode() <= 0xFF; });
    if (!fits)
        throw UserError("value: " + inQuotes(text.toStdString()) + " is not a value of type " +
                        type.name + " (characters up to U+00FF)");
    return CipValue::parse(type, text.toLatin1().toStdString());
}

// The controller's value of a JSON value. Throws UserError.
CipValue valueOf(const Json& value, const CipType& type, const Variable& variable)
{
    if (type.kind == CipKind::String) {
        if (!value.is_string())
            throw UserError("value: a text is needed for the type " + std::string(type.name));
        return textValue(type, QString::fromStdString(value.get<std::string>()));
    }
    if (value.is_string())
        return Scaling(variable)
            .stored(type, QString::fromStdString(value.get<std::string>()))
            .value;
    if (!value.is_number() && !value.is_boolean())
        throw UserError("value: one number, true, false or a text is needed (an array is written "
                        "element by element)");
    return Scaling(variable).stored(type, numberText(value)).value;
}

// The controller's value of an element's bytes. Throws UserError.
CipValue valueOf(const QByteArray& bytes, const CipType& type)
{
    const bool isText = type.kind == CipKind::String;
    if (bytes.size() > type.size || (!isText && bytes.size() != type.size))
        throw UserError("bytes: " + std::to_string(bytes.size()) +
                        " bytes are no element of type " + type.name + ", which has " +
                        std::to_string(type.size));
    const CipValue value = host::decodeElement(type, bytes);
    const bool isNan = type.kind == CipKind::Real && std::isnan(value.number());
    if (!isNan && host::encodeElement(type, value) != bytes)
        throw UserError("bytes: " + inQuotes(bytes.toHex().toStdString()) +
                        " is no value of type " + type.name);
    return value;
}

void requireLimits(const CipValue& number, const std::string& text, const Variable& variable)
{
    const std::string problem = host::limitsProblem(number, text, variable);
    if (!problem.empty())
        refuse(variable.name.toStdString() + ": " + problem);
}

void requireLimits(const CipType& type, const CipValue& value, const Variable& variable)
{
    const CipValue number = host::limitedNumber(type, value, variable);
    if (number.kind() == CipKind::Real && std::isnan(number.number()))
        refuse(variable.name.toStdString() + ": NaN cannot be written");
    requireLimits(number, number.text(), variable);
}

// Rounding to what the controller can store must not bring a number into the limits.
void requireGivenLimits(const Json& given, const Variable& variable)
{
    if (!given.is_number())
        return;
    const CipValue number =
        given.is_number_unsigned()  ? CipValue::ofUnsigned(given.get<std::uint64_t>())
        : given.is_number_integer() ? CipValue::ofSigned(given.get<std::int64_t>())
                                    : CipValue::ofReal(given.get<double>());
    requireLimits(number, given.dump(), variable);
}

bool hasSameScale(const Variable& a, const Variable& b)
{
    return a.gain == b.gain && a.offset == b.offset;
}

std::string secondsText(Duration time)
{
    std::array<char, 32> text{};
    const double seconds = std::chrono::duration<double>(time).count();
    std::snprintf(text.data(), text.size(), "%.1f s", std::max(seconds, 0.1));
    return text.data();
}

// Null without it.
Json member(const Json& object, const char* key)
{
    const auto found = object.find(key);
    return found == object.end() ? Json() : *found;
}

std::string textOf(const Json& value)
{
    return value.is_string() ? value.get<std::string>()
                             : value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json errorOf(const char* code, const std::string& text)
{
    return {{"error", {{"code", code}, {"text", text}}}};
}

QString shortName(const QString& name)
{
    const int kLongest = 255;
    return name.left(kLongest);
}

} // namespace

Json journalValue(const Json& value)
{
    const std::size_t kLongest = 1024;
    std::string text = value.dump(-1, ' ', true);
    if (text.size() <= kLongest)
        return value;
    text.resize(kLongest);
    return text + "...";
}

WriteRequest WriteRequest::fromMessage(const JsonNode& message)
{
    message.expectKeys(
        {"request", "id", "line", "name", "station", "tag", "element", "value", "bytes", "check"});
    WriteRequest request;
    request.line = QString::fromStdString(message.text("line", std::string()));
    if (message.has("name") == message.has("tag"))
        message.fail(R"(either "name" or "tag" is needed)");
    if (message.has("name")) {
        request.name = QString::fromStdString(message.at("name").text());
        if (message.has("station"))
            message.at("station").fail(R"(goes with "tag", not with "name")");
    } else {
        request.tag = QString::fromStdString(message.at("tag").text());
    }
    request.check = message.boolean("check", false);
    request.station = static_cast<int>(message.integer("station", 0, 65535, 1));
    request.element = static_cast<int>(message.integer("element", 0, host::kLargestElement, 0));
    if (message.has("value") == message.has("bytes"))
        message.fail(R"(either "value" or "bytes" is needed)");
    if (message.has("value"))
        request.value = host::jsonOf(message.at("value"));
    else
        request.bytes = host::bytesOf(QString::fromStdString(message.at("bytes").text()), "bytes");
    return request;
}

WriteRules::WriteRules(LineService& lines, const Clock& clock, const WallClock& wallClock)
    : m_lines(lines), m_clock(clock), m_wallClock(wallClock), m_index(lines)
{
    m_lines.addListener(*this);
}

WriteRules::~WriteRules()
{
    m_lines.removeListener(*this);
}

qint64 WriteRules::write(const Writer& writer, const WriteRequest& request, const Answer& answer)
{
    const qint64 number = ++m_last;
    Pending pending;
    pending.writer = writer;
    pending.request = request;
    pending.answer = answer;
    pending.line = shortName(request.line);
    pending.name = shortName(request.name.isEmpty() ? request.tag : request.name);
    pending.element = request.element;
    pending.newValue =
        journalValue(request.bytes ? Json(request.bytes->toHex().toStdString()) : request.value);
    m_pending.insert(number, pending);
    begin(number, nullptr);
    return number;
}

// Called again when the controller has told the type: lines may have changed meanwhile.
void WriteRules::begin(qint64 number, const CipType* told)
{
    try {
        Pending& pending = m_pending[number];
        if (pending.cancelled)
            throw RequestError(errorcode::kCancelled, "it was taken back before it was sent");
        const Target target = targetOf(pending.request);
        const Variable& first = m_index.variable(target.variables.first());
        const quint64 identity = m_index.identity(target.variables.first());
        if (pending.identity.value_or(identity) != identity)
            throw RequestError(errorcode::kCancelled,
                               "the configuration was read again before it was sent, and " +
                                   first.name.toStdString() + " is another variable now");
        pending.identity = identity;
        pending.line = m_index.line(target.variables.first()).name;
        pending.name = first.name;
        pending.element = target.within;
        const GatewayValue& latest = m_index.latest(target.variables.first());
        const auto within = static_cast<std::size_t>(target.within);
        pending.oldValue = latest.value.is_array() && within < latest.value.size()
                               ? latest.value.at(within)
                               : latest.value;
        for (const int variable : target.variables) {
            if (!m_index.variable(variable).writable)
                refuse(first.name.toStdString() +
                       ": is not writable (\"writable\": true in the project file allows it)");
        }
        const CipType* const type = told ? told : latest.type ? latest.type : first.type;
        if (type)
            send(number, target, *type);
        else
            askForType(number, target);
    } catch (const RequestError& error) {
        finish(number, errorOf(error.code(), error.what()));
    } catch (const UserError& error) {
        finish(number, errorOf(errorcode::kBadRequest, error.what()));
    }
}

WriteRules::Target WriteRules::targetOf(const WriteRequest& request) const
{
    Target target;
    if (!request.name.isEmpty()) {
        const int number = m_index.variableNamed(request.line, request.name, "name");
        const Variable& variable = m_index.variable(number);
        if (request.element >= variable.length)
            throw RequestError(errorcode::kBadRequest,
                               "element: " + std::to_string(request.element) +
                                   " is not in the variable, which has " +
                                   std::to_string(variable.length) + " element" +
                                   (variable.length == 1
                                        ? ""
                                        : "s (0 to " + std::to_string(variable.length - 1) + ')'));
        target.line = m_index.place(number).line;
        target.tag = {variable.station, variable.tag};
        target.within = request.element;
        target.element = variable.element + request.element;
        target.variables = {number};
        for (const int other : m_index.variablesAt(target.line, target.tag, target.element)) {
            if (variable.writable && other != number && m_index.variable(other).writable)
                target.variables.append(other);
        }
        return target;
    }
    target.line = m_index.lineNamed(request.line, "line");
    target.tag = {request.station, request.tag};
    target.element = request.element;
    const QVector<int> all = m_index.variablesAt(target.line, target.tag, request.element);
    for (const int number : all) {
        if (m_index.variable(number).writable)
            target.variables.append(number);
    }
    if (target.variables.isEmpty())
        target.variables = all;
    if (target.variables.isEmpty())
        refuse("no variable of the project has element " + std::to_string(request.element) +
               " of " + inQuotes(request.tag.toStdString()) +
               " (only variables with \"writable\": true can be written)");
    target.within = request.element - m_index.variable(target.variables.first()).element;
    return target;
}

// A value that is given for a tag is that of the variables which show it: all in the same way.
void WriteRules::requireOneScale(const WriteRequest& request, const Target& target) const
{
    if (!request.name.isEmpty() || request.bytes)
        return;
    const Variable& first = m_index.variable(target.variables.first());
    for (const int number : target.variables) {
        const Variable& other = m_index.variable(number);
        if (!hasSameScale(first, other))
            throw RequestError(errorcode::kBadRequest,
                               "value: " + first.name.toStdString() + " and " +
                                   other.name.toStdString() +
                                   " show this element with different gain or offset (name one of "
                                   "them, or give \"bytes\")");
    }
}

void WriteRules::requireRoom(const Pending& pending) const
{
    const auto waiting =
        std::count_if(m_pending.begin(), m_pending.end(), [&](const Pending& other) {
            return other.line == pending.line && other.asked != 0;
        });
    if (waiting >= kMostWaiting)
        throw RequestError(errorcode::kBusy, std::to_string(waiting) +
                                                 " writes wait for the line " +
                                                 pending.line.toStdString());
}

void WriteRules::askForType(qint64 number, const Target& target)
{
    Pending& pending = m_pending[number];
    requireRoom(pending);
    const Json request = {{"request", "type"},
                          {"line", pending.line.toStdString()},
                          {"station", target.tag.station},
                          {"tag", target.tag.name.toStdString()}};
    const auto answered = [this, number, alive = std::weak_ptr<bool>(m_alive)](const Json& reply) {
        if (alive.expired() || !m_pending.contains(number))
            return;
        m_pending[number].asked = 0;
        const auto type = reply.find("type");
        if (type == reply.end() || !type->is_string())
            return finish(number, reply);
        for (const CipType& known : cipTypes()) {
            if (*type == known.name)
                return begin(number, &known);
        }
        finish(number, errorOf(errorcode::kRefused, "the type of the tag is not known"));
    };
    const qint64 asked = m_lines.ask(target.line, request, answered);
    if (m_pending.contains(number))
        m_pending[number].asked = asked;
}

void WriteRules::send(qint64 number, const Target& target, const CipType& type)
{
    Pending& pending = m_pending[number];
    const Variable& first = m_index.variable(target.variables.first());
    if (!host::isWritable(type))
        refuse(first.name.toStdString() + ": values of type " + type.name + " cannot be written");
    requireOneScale(pending.request, target);
    const CipValue value = pending.request.bytes ? valueOf(*pending.request.bytes, type)
                                                 : valueOf(pending.request.value, type, first);
    pending.newValue = host::jsonOf(Scaling(first).shown(type, value));
    for (const int shown : target.variables) {
        const Variable& variable = m_index.variable(shown);
        requireLimits(type, value, variable);
        if (hasSameScale(variable, first))
            requireGivenLimits(pending.request.value, variable);
    }
    requireRate(target);
    const std::string bytes = host::encodeElement(type, value).toHex().toStdString();
    if (pending.request.check)
        return finish(number,
                      {{"outcome", "allowed"}, {"value", pending.newValue}, {"bytes", bytes}});
    requireRoom(pending);
    countWrite(target);
    const Json request = {{"request", "write"},
                          {"line", pending.line.toStdString()},
                          {"name", pending.name.toStdString()},
                          {"element", pending.element},
                          {"type", type.name},
                          {"bytes", bytes}};
    const qint64 asked =
        m_lines.ask(target.line, request,
                    [this, number, alive = std::weak_ptr<bool>(m_alive)](const Json& reply) {
                        if (!alive.expired())
                            finish(number, reply);
                    });
    if (m_pending.contains(number))
        m_pending[number].asked = asked;
}

void WriteRules::requireRate(const Target& target)
{
    const Duration now = m_clock.now();
    removeOldTimes(now);
    for (const int number : target.variables) {
        const Variable& variable = m_index.variable(number);
        const auto times = m_times.constFind({m_index.line(number).name, variable.name});
        if (!variable.writesPerMinute || times == m_times.constEnd() ||
            static_cast<int>(times->size()) < *variable.writesPerMinute)
            continue;
        const std::size_t blocking =
            times->size() - static_cast<std::size_t>(*variable.writesPerMinute);
        refuse(variable.name.toStdString() + ": was written " + std::to_string(times->size()) +
               (times->size() == 1 ? " time" : " times") +
               " in the last minute, and its \"writesPerMinute\" is " +
               std::to_string(*variable.writesPerMinute) + " (possible again in " +
               secondsText((*times)[blocking] + kMinute - now) + ')');
    }
}

void WriteRules::countWrite(const Target& target)
{
    for (const int number : target.variables) {
        const Variable& variable = m_index.variable(number);
        if (variable.writesPerMinute)
            m_times[{m_index.line(number).name, variable.name}].push_back(m_clock.now());
    }
}

void WriteRules::removeOldTimes(Duration now)
{
    for (auto times = m_times.begin(); times != m_times.end();) {
        while (!times->empty() && now - times->front() >= kMinute)
            times->pop_front();
        times = times->empty() ? m_times.erase(times) : std::next(times);
    }
}

void WriteRules::cancel(qint64 number)
{
    const auto pending = m_pending.find(number);
    if (pending == m_pending.end())
        return;
    pending->cancelled = true;
    if (pending->asked != 0)
        m_lines.cancel(pending->asked);
}

void WriteRules::finish(qint64 number, const Json& reply)
{
    const auto found = m_pending.find(number);
    if (found == m_pending.end())
        return;
    const Pending pending = *found;
    m_pending.erase(found);
    if (!pending.request.check || reply.contains("error"))
        m_lines.reportWrite(entryOf(pending, reply));
    Json answer = reply;
    answer.erase("id");
    pending.answer(answer);
}

JournalEntry WriteRules::entryOf(const Pending& pending, const Json& reply) const
{
    JournalEntry entry;
    entry.time = m_wallClock.now();
    entry.uid = pending.writer.uid;
    entry.pid = pending.writer.pid;
    entry.client = pending.writer.client;
    entry.line = pending.line;
    entry.name = pending.name;
    entry.element = pending.element;
    entry.newValue = pending.newValue;
    entry.oldValue = reply.contains("old") ? reply["old"] : pending.oldValue;
    const Json error = member(reply, "error");
    if (error.is_null()) {
        entry.outcome = QStringLiteral("written");
        if (member(reply, "verified") == false)
            entry.error = QStringLiteral("another value was read back: ") +
                          QString::fromStdString(textOf(member(reply, "value")));
    } else {
        entry.outcome = pending.request.check
                            ? QString::fromLatin1(kCheckFailed)
                            : QString::fromStdString(textOf(member(error, "code")));
        entry.error = QString::fromStdString(textOf(member(error, "text")));
    }
    return entry;
}

void WriteRules::handleReload()
{
    m_index.rebuild();
}

} // namespace micro850::gateway
