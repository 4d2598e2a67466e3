#ifndef MICRO850_TESTS_DELIVERY_ACCOUNT_H
#define MICRO850_TESTS_DELIVERY_ACCOUNT_H

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// The books of a receiver: it takes every message below a prefix, and tells what is missing, what
/// came twice, and what came otherwise than the topics promise. It shares no code with the gateway.
class DeliveryAccount
{
public:
    /// Which numbering, and the number in it.
    using Number = std::pair<std::int64_t, std::int64_t>;

    explicit DeliveryAccount(std::string prefix) : m_prefix(std::move(prefix) + '/') {}

    /// The clock of the sender is stepped: times are in no order.
    void setClockSteps() { m_clockSteps = true; }

    /// Takes a message. One that the broker kept for new subscribers is no delivery: only its shape
    /// is looked at.
    void take(const std::string& topic, const std::string& payload, bool isRetained);

    /// Messages with a number that came for the first time, and those of them marked as history.
    int received() const { return m_received; }
    int history() const { return m_history; }
    /// Messages that came again, and latest values that say that they are repeated.
    int doubles() const { return m_doubles; }
    int repeated() const { return m_repeated; }
    /// What broke a promise, one line each. A bounded number is kept.
    const std::vector<std::string>& faults() const { return m_faults; }

    /// The numbers of a line that did not come, from 1 to the last one of each series.
    std::vector<Number> missing(const std::string& line) const;
    /// Of all lines.
    std::size_t missing() const;
    std::set<std::int64_t> series(const std::string& line) const;
    /// How many numbers of a line came.
    std::size_t received(const std::string& line) const;

    /// The values of a variable that came, by their time ("2026-11-22T13:30:00.125Z"), those that
    /// are repeated too. `name` is as it stands in the topic.
    const std::multimap<std::string, nlohmann::json>& values(const std::string& line,
                                                             const std::string& name) const;
    /// Whether a value with this time came.
    bool has(const std::string& line, const std::string& name, const std::string& time,
             const nlohmann::json& value) const;
    /// The state in the last message to `PREFIX/status`.
    const std::string& state() const { return m_state; }
    /// The last value of each variable that the broker kept, by its topic.
    const std::map<std::string, nlohmann::json>& retained() const { return m_retained; }

private:
    struct Variable
    {
        std::multimap<std::string, nlohmann::json> values;
        Number live = {0, 0}; ///< of the last first delivery of each kind
        Number history = {0, 0};
        std::string liveTime;
        std::string historyTime;
    };
    struct Place
    {
        std::string line;
        std::string name; ///< of the variable; "events" of a line or a station
        bool isEvent = false;
        bool isHistory = false;
    };

    bool placeOf(const std::string& topic, Place& place) const;
    void takeNumbered(const std::string& topic, const Place& place, const nlohmann::json& message,
                      bool isRetained);
    void takeInOrder(const std::string& topic, const Place& place, const nlohmann::json& message,
                     const Number& number);
    void fault(const std::string& text);

    std::string m_prefix;
    std::map<std::string, std::map<std::int64_t, std::set<std::int64_t>>> m_numbers; ///< of a line
    std::map<std::pair<std::string, std::string>, Variable> m_variables;
    std::map<std::string, nlohmann::json> m_retained;
    std::vector<std::string> m_faults;
    std::string m_state;
    bool m_clockSteps = false;
    int m_received = 0;
    int m_history = 0;
    int m_doubles = 0;
    int m_repeated = 0;
};

#endif
