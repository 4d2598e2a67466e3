#include "delivery_account.h"

#include <regex>
#include <sstream>

using nlohmann::json;

namespace {

const std::size_t kMostFaults = 50;

bool isTime(const json& message)
{
    static const std::regex shape("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z");
    return message.contains("time") && message["time"].is_string() &&
           std::regex_match(message["time"].get<std::string>(), shape);
}

bool isTrue(const json& message, const char* key)
{
    return message.contains(key) && message[key] == true;
}

} // namespace

void DeliveryAccount::fault(const std::string& text)
{
    if (m_faults.size() < kMostFaults)
        m_faults.push_back(text);
}

// LINE/STATION/NAME, LINE/STATION/NAME/history, LINE/events and LINE/STATION/events are numbered.
bool DeliveryAccount::placeOf(const std::string& topic, Place& place) const
{
    std::vector<std::string> levels;
    std::istringstream text(topic.substr(m_prefix.size()));
    for (std::string level; std::getline(text, level, '/');)
        levels.push_back(level);
    if (levels.empty())
        return false;
    if (levels.size() == 1) { // of the gateway itself, which is no line
        place.name = levels[0];
        place.isEvent = true;
        return place.name == "events";
    }
    place.line = levels[0];
    const std::string& last = levels.back();
    if (levels.size() <= 3 && last == "events") {
        place.name = topic.substr(m_prefix.size());
        place.isEvent = true;
        return true;
    }
    place.name = levels.size() > 2 ? levels[2] : "";
    place.isHistory = levels.size() == 4 && last == "history";
    return place.isHistory || (levels.size() == 3 && last != "state" && last != "statistics");
}

void DeliveryAccount::take(const std::string& topic, const std::string& payload, bool isRetained)
{
    if (topic.rfind(m_prefix, 0) != 0)
        return fault(topic + ": is not below " + m_prefix);
    const json message = json::parse(payload, nullptr, false);
    if (topic == m_prefix + "status") {
        if (message.is_object() && message.contains("state"))
            m_state = message["state"].get<std::string>();
        return;
    }
    Place place;
    if (!placeOf(topic, place))
        return;
    if (!message.is_object())
        return fault(topic + ": no object: " + payload);
    takeNumbered(topic, place, message, isRetained);
}

void DeliveryAccount::takeNumbered(const std::string& topic, const Place& place,
                                   const json& message, bool isRetained)
{
    // What was only shown again, after a start, has no number.
    const bool hasNumber = message.contains("series") || message.contains("sequence");
    if (!hasNumber && isTrue(message, "repeated") && !isTrue(message, "history") &&
        !place.isEvent && !isRetained)
    {
        ++m_repeated;
        if (message.contains("time") && message["time"].is_string())
            m_variables[{place.line, place.name}].values.emplace(message["time"], message["value"]);
        return;
    }
    for (const char* key : {"series", "sequence"}) {
        if (!message.contains(key) || !message[key].is_number_integer())
            return fault(topic + ": no " + key + ": " + message.dump());
    }
    if (!isTime(message) && !(message.contains("time") && message["time"].is_null()))
        fault(topic + ": no time: " + message.dump());
    const bool isHistory = isTrue(message, "history");
    const bool isRepeated = isTrue(message, "repeated");
    if (!place.isEvent && isHistory != place.isHistory)
        fault(topic + ": topic and mark of history differ: " + message.dump());
    if (isRetained) {
        if (isHistory || place.isEvent)
            fault(topic + ": the broker keeps what it must not keep: " + message.dump());
        m_retained[topic] = message;
        return;
    }
    if (isHistory && isRepeated)
        fault(topic + ": history that is repeated: " + message.dump());
    const Number number = {message["series"].get<std::int64_t>(),
                           message["sequence"].get<std::int64_t>()};
    if (number.second < 1)
        fault(topic + ": sequence begins with 1: " + message.dump());
    if (!place.isEvent && message["time"].is_string())
        m_variables[{place.line, place.name}].values.emplace(message["time"], message["value"]);
    // A repeated value stands for nothing new, but it may be the only one that came.
    const bool isNew = m_numbers[place.line][number.first].insert(number.second).second;
    m_repeated += isRepeated ? 1 : 0;
    m_received += isNew ? 1 : 0;
    m_history += isNew && isHistory ? 1 : 0;
    m_doubles += !isNew && !isRepeated ? 1 : 0;
    if (isNew && !isRepeated)
        takeInOrder(topic, place, message, number);
}

// What comes live is in order, and what comes as history is; the two overtake each other.
void DeliveryAccount::takeInOrder(const std::string& topic, const Place& place, const json& message,
                                  const Number& number)
{
    Variable& variable = m_variables[{place.line, place.name}];
    const bool isHistory = isTrue(message, "history");
    Number& last = isHistory ? variable.history : variable.live;
    if (number <= last)
        fault(topic + ": out of order after " + std::to_string(last.second) + ": " +
              message.dump());
    last = std::max(last, number);
    if (!message["time"].is_string() || place.isEvent || m_clockSteps)
        return;
    std::string& lastTime = isHistory ? variable.historyTime : variable.liveTime;
    const std::string time = message["time"];
    if (time < lastTime)
        fault(topic + ": an older value after " + lastTime + ": " + message.dump());
    lastTime = std::max(lastTime, time);
}

std::vector<DeliveryAccount::Number> DeliveryAccount::missing(const std::string& line) const
{
    std::vector<Number> gaps;
    const auto found = m_numbers.find(line);
    if (found == m_numbers.end())
        return gaps;
    for (const auto& [series, numbers] : found->second) {
        for (std::int64_t number = 1; number < *numbers.rbegin(); ++number) {
            if (numbers.count(number) == 0)
                gaps.emplace_back(series, number);
        }
    }
    return gaps;
}

std::size_t DeliveryAccount::missing() const
{
    std::size_t all = 0;
    for (const auto& line : m_numbers)
        all += missing(line.first).size();
    return all;
}

std::set<std::int64_t> DeliveryAccount::series(const std::string& line) const
{
    std::set<std::int64_t> all;
    const auto found = m_numbers.find(line);
    if (found == m_numbers.end())
        return all;
    for (const auto& entry : found->second)
        all.insert(entry.first);
    return all;
}

std::size_t DeliveryAccount::received(const std::string& line) const
{
    std::size_t all = 0;
    const auto found = m_numbers.find(line);
    if (found == m_numbers.end())
        return all;
    for (const auto& entry : found->second)
        all += entry.second.size();
    return all;
}

const std::multimap<std::string, json>& DeliveryAccount::values(const std::string& line,
                                                                const std::string& name) const
{
    static const std::multimap<std::string, json> none;
    const auto found = m_variables.find({line, name});
    return found == m_variables.end() ? none : found->second.values;
}

bool DeliveryAccount::has(const std::string& line, const std::string& name, const std::string& time,
                          const json& value) const
{
    const auto range = values(line, name).equal_range(time);
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second == value)
            return true;
    }
    return false;
}
