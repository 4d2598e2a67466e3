// fleet: what many gateways and one broker do together. Every gateway is the delivering process of
// micro850-gateway; this program plays the service that feeds it, with values that a gateway had of
// a simulated controller. One mosquitto has them all, and a receiver that keeps books of every
// value. In the middle the broker is restarted; at the end the rate grows until something no longer
// keeps up. Exit status 0: every value came, with its original time, in order.

#include "simulator_thread.h"

#include "broker.h"
#include "delivery_feed.h"
#include "gateway_process.h"

#include <CLI/CLI.hpp>
#include <mosquitto.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <poll.h>
#include <string_view>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <unordered_map>

namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

const int kStation = 1;
const std::string kLine = "press";
/// The most messages that a gateway may send twice after its connection was cut.
const int kWindow = 1000;
const std::string kPrefix = "fleet/";
const milliseconds kBatch(200); ///< how often the service of a gateway passes values on
const std::chrono::seconds kPatience(120);
const std::size_t kSlots = 600; ///< of 100 ms, after a restart of the broker

struct Options
{
    int gateways = 200;
    int variables = 100;
    double rate = 4000;
    double seconds = 600;
    double outage = 10;
    int spread = 10000;
    double step = 20;
    double growth = 1.25;
    double mostRate = 1e6;
    std::string queues;
};

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "fleet: %s\n", what.c_str());
    std::exit(1);
}

std::int64_t wallMilliseconds()
{
    return std::chrono::duration_cast<milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::string timeText(std::int64_t time)
{
    const std::time_t seconds = time / 1000;
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    std::array<char, 40> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%FT%T", &parts);
    std::snprintf(text.data() + length, text.size() - length, ".%03dZ",
                  static_cast<int>(time % 1000));
    return text.data();
}

double secondsSince(Clock::time_point begin)
{
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

std::string nameOf(int variable)
{
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), "V%03d", variable);
    return text.data();
}

// Recording ---------------------------------------------------------------------------------------

/// A value as the gateway had it, without its time.
struct Recorded
{
    std::size_t variable = 0;
    std::string before; ///< the text of the object up to the time
    std::string after;
    std::string value;
};

std::string tagsInMotion(int count)
{
    json tags = json::array();
    for (int i = 0; i < count; ++i) {
        const double period = 0.5 + 0.01 * i;
        const std::array<json, 4> kinds = {
            json({{"type", "REAL"},
                  {"motion",
                   {{"kind", "sine"}, {"min", 18.5}, {"max", 24.5}, {"period", 5 + period}}}}),
            json({{"type", "DINT"},
                  {"motion",
                   {{"kind", "counter"}, {"min", 0}, {"max", 1000000}, {"period", period / 4}}}}),
            json({{"type", "INT"},
                  {"motion",
                   {{"kind", "ramp"}, {"min", 0}, {"max", 1000}, {"period", 5 * period}}}}),
            json({{"type", "BOOL"}, {"motion", {{"kind", "toggle"}, {"period", period}}}})};
        json tag = kinds[static_cast<std::size_t>(i) % kinds.size()];
        tag["name"] = nameOf(i);
        tags.push_back(tag);
    }
    return json({{"tags", tags}}).dump();
}

json variablesOf(int count)
{
    json variables = json::array();
    for (int i = 0; i < count; ++i)
        variables.push_back({{"name", nameOf(i)}, {"tag", nameOf(i)}, {"intervalMs", 0}});
    return variables;
}

Recorded recordedOf(json value)
{
    const std::string time = value["time"];
    const std::string text = value.dump();
    const std::size_t at = text.find(time);
    return {static_cast<std::size_t>(std::stoi(value["name"].get<std::string>().substr(1))),
            text.substr(0, at), text.substr(at + time.size()), value["value"].dump()};
}

/// What a gateway reads of a simulated controller, until it has enough of each variable.
std::vector<Recorded> record(const Options& options)
{
    const std::string folder = std::filesystem::temp_directory_path() / "fleet.record.XXXXXX";
    std::string made = folder;
    if (!::mkdtemp(made.data()))
        fail(folder + ": " + std::strerror(errno));
    const std::string tags = made + "/tags.json";
    std::ofstream(tags) << tagsInMotion(options.variables);
    std::vector<Recorded> all;
    {
        SimulatorThread simulator(tags, made + "/plc");
        const json project = {{"port", {{"device", made + "/plc"}}},
                              {"variables", variablesOf(options.variables)}};
        GatewayProcess gateway(MICRO850_GATEWAY, {{kLine, project}});
        GatewayReader reader(gateway.socket());
        reader.send(R"({"id": 1, "request": "subscribe"})");
        std::set<std::size_t> seen;
        const auto begin = Clock::now();
        const auto take = [&](const std::string& line) {
            const json message = json::parse(line);
            for (const json& value : message.value("values", json::array())) {
                if (value["time"].is_null())
                    continue;
                all.push_back(recordedOf(value));
                seen.insert(all.back().variable);
            }
        };
        const auto variables = static_cast<std::size_t>(options.variables);
        while (seen.size() < variables || all.size() < 20 * variables) {
            pollfd input = {reader.descriptor(), POLLIN, 0};
            ::poll(&input, 1, 100);
            if (!reader.receive(take) || Clock::now() - begin > kPatience)
                fail("no values could be recorded");
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(made, ignored);
    return all;
}

// The broker keeps for its clients what it has when it is stopped, and nothing on the way.
TestBroker::Settings brokerSettings()
{
    TestBroker::Settings settings;
    settings.more = "allow_anonymous true\nautosave_interval 0\nmax_queued_messages 0\n"
                    "max_queued_bytes 0\nmax_inflight_messages 1000\nset_tcp_nodelay true\n"
                    "log_type none\n";
    settings.isPersistent = true;
    return settings;
}

// The books ---------------------------------------------------------------------------------------

/// The text after `"key":`, up to the next comma or brace; empty when the key is not there. None of
/// the recorded values is a text or a list.
std::string_view fieldOf(std::string_view message, std::string_view key)
{
    std::size_t at = message.find(key);
    if (at == std::string_view::npos)
        return {};
    at = message.find_first_not_of(" :", at + key.size());
    if (at == std::string_view::npos)
        return {};
    const std::size_t end = message.find_first_of(",}", at);
    return message.substr(at, end - at);
}

std::int64_t numberOf(std::string_view text)
{
    return text.empty() ? 0 : std::strtoll(std::string(text).c_str(), nullptr, 10);
}

/// What was fed and what came, of one gateway. A value is known by its variable and its time.
struct Book
{
    struct Fed
    {
        std::int64_t time;
        std::uint32_t recorded;
        bool came;
    };
    std::vector<std::vector<Fed>> variables;
    std::vector<std::int64_t> live; ///< the last sequence of each variable
    std::vector<std::int64_t> history;
    std::unordered_map<std::int64_t, std::vector<bool>> numbers; ///< that came, by series
    std::int64_t missing = 0;                                    ///< fed and not come yet
    Clock::time_point firstAfterRestart{};
};

/// How a message came.
struct Counters
{
    std::int64_t messages = 0; ///< all, also states and what is repeated
    std::int64_t live = 0;
    std::int64_t history = 0;
    std::int64_t repeated = 0;
    std::int64_t doubles = 0;
    std::vector<int> delays; ///< milliseconds, of live values
};

class Books
{
public:
    Books(const Options& options, const std::vector<Recorded>& recorded) : m_recorded(recorded)
    {
        m_books.resize(static_cast<std::size_t>(options.gateways));
        for (Book& book : m_books) {
            const auto variables = static_cast<std::size_t>(options.variables);
            book.variables.resize(variables);
            book.live.resize(variables);
            book.history.resize(variables);
        }
    }

    /// The time that the value has.
    std::int64_t feed(std::size_t gateway, std::uint32_t recorded)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        auto& variable = m_books[gateway].variables[m_recorded[recorded].variable];
        std::int64_t time = wallMilliseconds();
        if (!variable.empty())
            time = std::max(time, variable.back().time + 1);
        variable.push_back({time, recorded, false});
        ++m_books[gateway].missing;
        ++m_missing;
        ++m_fed;
        return time;
    }
    void take(std::string_view topic, std::string_view payload)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_counters.messages;
        if (m_stormBegun != Clock::time_point{}) {
            const auto slot = static_cast<std::size_t>(10 * secondsSince(m_stormBegun));
            if (slot < m_storm.size())
                ++m_storm[slot];
        }
        takeValue(topic, payload);
    }
    void beginStorm()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stormBegun = Clock::now();
        m_storm.assign(kSlots, 0);
        for (Book& book : m_books)
            book.firstAfterRestart = {};
    }
    /// Seconds after the begin of the storm, of each gateway whose first message came.
    std::vector<double> firstMessages() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<double> all;
        for (const Book& book : m_books) {
            if (book.firstAfterRestart != Clock::time_point{})
                all.push_back(
                    std::chrono::duration<double>(book.firstAfterRestart - m_stormBegun).count());
        }
        std::sort(all.begin(), all.end());
        return all;
    }
    std::vector<int> storm() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_storm;
    }
    std::int64_t fed() const { return m_fed; }
    std::int64_t missing() const { return m_missing; }
    /// What came since it was asked last.
    Counters popCounters()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        Counters all;
        std::swap(all, m_counters);
        std::sort(all.delays.begin(), all.delays.end());
        return all;
    }
    std::vector<std::string> faults() const
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_faults;
    }
    /// Numbers that were left out, and values that did not come, of each gateway.
    std::vector<std::string> gaps() const;

private:
    void fault(std::string_view topic, std::string_view payload, const char* what)
    {
        if (m_faults.size() < 20)
            m_faults.push_back(std::string(topic) + ": " + what + ": " + std::string(payload));
    }
    void takeValue(std::string_view topic, std::string_view payload);
    void takeNumber(Book& book, std::size_t variable, std::string_view topic,
                    std::string_view payload);

    const std::vector<Recorded>& m_recorded;
    mutable std::mutex m_mutex;
    std::vector<Book> m_books;
    std::atomic<std::int64_t> m_fed{0};
    std::atomic<std::int64_t> m_missing{0};
    Counters m_counters;
    Clock::time_point m_stormBegun{};
    std::vector<int> m_storm;
    std::vector<std::string> m_faults;
};

// PREFIX/NNNN/LINE/STATION/VNNN and the same with /history are values.
void Books::takeValue(std::string_view topic, std::string_view payload)
{
    const std::size_t gatewayAt = kPrefix.size();
    if (topic.size() < gatewayAt + 4)
        return;
    const auto gateway = static_cast<std::size_t>(numberOf(topic.substr(gatewayAt, 4)));
    const std::size_t nameAt = gatewayAt + 4 + 1 + kLine.size() + 1 + 1 + 1;
    if (gateway >= m_books.size())
        return fault(topic, payload, "no such gateway");
    Book& book = m_books[gateway];
    // A birth begins with the state of the gateway; before it comes what the broker had kept.
    if (topic.size() == gatewayAt + 11 && topic.substr(gatewayAt + 4) == "/status" &&
        fieldOf(payload, "\"state\"") == "\"online\"" &&
        book.firstAfterRestart == Clock::time_point{})
        book.firstAfterRestart = Clock::now();
    if (topic.size() <= nameAt || topic[nameAt] != 'V') {
        // Events are numbered with the values.
        const std::string_view sequence = fieldOf(payload, "\"sequence\"");
        if (!sequence.empty()) {
            auto& numbers = book.numbers[numberOf(fieldOf(payload, "\"series\""))];
            const auto number = static_cast<std::size_t>(numberOf(sequence));
            numbers.resize(std::max(numbers.size(), number + 1));
            numbers[number] = true;
        }
        return;
    }
    const auto variable = static_cast<std::size_t>(numberOf(topic.substr(nameAt + 1, 3)));
    if (variable >= book.variables.size())
        return fault(topic, payload, "no such variable");
    takeNumber(book, variable, topic, payload);
}

void Books::takeNumber(Book& book, std::size_t variable, std::string_view topic,
                       std::string_view payload)
{
    const bool isHistory = fieldOf(payload, "\"history\"") == "true";
    const bool isRepeated = fieldOf(payload, "\"repeated\"") == "true";
    const bool isHistoryTopic = topic.size() > 8 && topic.substr(topic.size() - 8) == "/history";
    if (isHistory != isHistoryTopic)
        return fault(topic, payload, "topic and mark differ");
    m_counters.repeated += isRepeated ? 1 : 0;
    const std::string_view quoted = fieldOf(payload, "\"time\"");
    const auto textLess = [](const Book::Fed& fed, std::string_view text) {
        return timeText(fed.time) < text;
    };
    if (quoted.size() < 3)
        return fault(topic, payload, "no time");
    const std::string_view time = quoted.substr(1, quoted.size() - 2);
    auto& fed = book.variables[variable];
    const auto found = std::lower_bound(fed.begin(), fed.end(), time, textLess);
    if (found == fed.end() || timeText(found->time) != time)
        return fault(topic, payload, "no such value was fed");
    if (fieldOf(payload, "\"value\"") != m_recorded[found->recorded].value)
        return fault(topic, payload, "another value was fed");
    auto& numbers = book.numbers[numberOf(fieldOf(payload, "\"series\""))];
    const std::int64_t sequence = numberOf(fieldOf(payload, "\"sequence\""));
    const auto number = static_cast<std::size_t>(sequence);
    numbers.resize(std::max(numbers.size(), number + 1));
    numbers[number] = true;
    if (found->came) {
        m_counters.doubles += isRepeated ? 0 : 1;
        return;
    }
    found->came = true;
    --book.missing;
    --m_missing;
    if (isRepeated)
        return;
    ++(isHistory ? m_counters.history : m_counters.live);
    std::int64_t& last = (isHistory ? book.history : book.live)[variable];
    if (sequence <= last)
        fault(topic, payload, "out of order");
    last = sequence;
    if (!isHistory)
        m_counters.delays.push_back(static_cast<int>(wallMilliseconds() - found->time));
}

std::vector<std::string> Books::gaps() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::string> all;
    for (std::size_t i = 0; i < m_books.size(); ++i) {
        const Book& book = m_books[i];
        for (const auto& [series, numbers] : book.numbers) {
            const auto gaps = std::count(numbers.begin() + 1, numbers.end(), false);
            if (gaps > 0)
                all.push_back("gateway " + std::to_string(i) + ": " + std::to_string(gaps) +
                              " numbers are missing in series " + std::to_string(series));
        }
        if (book.missing > 0)
            all.push_back("gateway " + std::to_string(i) + ": " + std::to_string(book.missing) +
                          " values are missing");
    }
    return all;
}

// The receiver ------------------------------------------------------------------------------------

/// Subscribes to everything, with a session that outlives the broker. It has a thread of its own.
class Receiver
{
public:
    Receiver(Books& books, int port) : m_books(books)
    {
        m_client = ::mosquitto_new("fleet-receiver", false, this);
        ::mosquitto_message_callback_set(
            m_client, [](mosquitto*, void* self, const mosquitto_message* message) {
                static_cast<Receiver*>(self)->take(*message);
            });
        ::mosquitto_connect_callback_set(m_client, [](mosquitto* client, void*, int result) {
            if (result == 0)
                ::mosquitto_subscribe(client, nullptr, (kPrefix + "#").c_str(), 1);
        });
        ::mosquitto_subscribe_callback_set(m_client,
                                           [](mosquitto*, void* self, int, int, const int*) {
                                               static_cast<Receiver*>(self)->m_isSubscribed = true;
                                           });
        if (::mosquitto_connect(m_client, "127.0.0.1", port, 60) != 0)
            fail("the receiver cannot connect");
        m_thread = std::thread([this] { serve(); });
        const auto begin = Clock::now();
        while (!m_isSubscribed) {
            if (Clock::now() - begin > kPatience)
                fail("the receiver cannot subscribe");
            std::this_thread::sleep_for(milliseconds(10));
        }
    }
    ~Receiver()
    {
        m_ends = true;
        m_thread.join();
        ::mosquitto_destroy(m_client);
    }
    Receiver(const Receiver&) = delete;
    Receiver& operator=(const Receiver&) = delete;

    /// Of a processor, so far.
    double seconds() const { return m_seconds; }

private:
    // It is back before the gateways, which wait for a second at least.
    void serve()
    {
        while (!m_ends) {
            if (::mosquitto_loop(m_client, 100, 1) == MOSQ_ERR_SUCCESS)
                continue;
            std::this_thread::sleep_for(milliseconds(10));
            ::mosquitto_reconnect(m_client);
        }
    }
    void take(const mosquitto_message& message)
    {
        if (message.retain)
            return; // what the broker had already
        m_books.take(message.topic, {static_cast<const char*>(message.payload),
                                     static_cast<std::size_t>(message.payloadlen)});
        timespec used{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
        m_seconds = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
    }

    Books& m_books;
    mosquitto* m_client = nullptr;
    std::atomic<bool> m_isSubscribed{false};
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
    std::atomic<double> m_seconds{0};
};

// The fleet ---------------------------------------------------------------------------------------

class Fleet
{
public:
    Fleet(const Options& options, const std::vector<Recorded>& recorded)
        : m_options(options), m_recorded(recorded), m_folder(folderIn(options.queues)),
          m_books(options, recorded), m_broker(brokerSettings()),
          m_receiver(m_books, m_broker.port())
    {
        const std::string run = std::to_string(wallMilliseconds());
        for (int i = 0; i < options.gateways; ++i) {
            const auto index = static_cast<std::size_t>(i);
            m_gateways.push_back(
                {std::make_unique<DeliveryFeed>(MICRO850_GATEWAY, openingOf(i, run)),
                 (index * 37) % recorded.size(), Clock::now(), 0});
            m_gateways.back().feed->start();
        }
    }
    ~Fleet()
    {
        for (Gateway& gateway : m_gateways)
            gateway.feed->close();
        m_gateways.clear();
        std::error_code ignored;
        std::filesystem::remove_all(m_folder, ignored);
    }
    Fleet(const Fleet&) = delete;
    Fleet& operator=(const Fleet&) = delete;

    bool run();

private:
    struct Gateway
    {
        std::unique_ptr<DeliveryFeed> feed;
        std::size_t next;
        Clock::time_point due;
        double owed; ///< values that are due, with a fraction
    };
    struct Use
    {
        double gateways = 0; ///< seconds of a processor
        double broker = 0;
        double receiver = 0;
        double feeder = 0;
        double residentOfOne = 0; ///< bytes
        double proportional = 0;
        double brokerResident = 0;
    };

    static std::string folderIn(const std::string& parent)
    {
        const auto base =
            parent.empty() ? std::filesystem::temp_directory_path() : std::filesystem::path(parent);
        std::string folder = base / "fleet.XXXXXX";
        if (!::mkdtemp(folder.data()))
            fail(folder + ": " + std::strerror(errno));
        return folder;
    }
    DeliveryFeed::Opening openingOf(int gateway, const std::string& run) const;
    void step(double rate);
    void runFor(double seconds, double rate);
    bool drain(const char* when);
    Use use() const;
    void report(const char* phase, const Use& before, double seconds, std::int64_t fedBefore);
    void reportStorm() const;
    void printTable() const;
    void restartBroker();
    void ramp();
    bool judge() const;

    const Options m_options;
    const std::vector<Recorded>& m_recorded;
    const std::string m_folder;
    Books m_books;
    TestBroker m_broker;
    Receiver m_receiver;
    std::vector<Gateway> m_gateways;
    std::int64_t m_doubles = 0;
    std::string m_table; ///< of what was reported, in Markdown
};

DeliveryFeed::Opening Fleet::openingOf(int gateway, const std::string& run) const
{
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "%04d", gateway);
    json settings = {
        {"broker",
         {{"host", "127.0.0.1"},
          {"port", m_broker.port()},
          {"clientId", std::string("fleet-") + name.data()},
          {"spreadMs", m_options.spread}}},
        {"queue", {{"file", m_folder + "/" + name.data() + ".sqlite"}}},
        {"prefix", kPrefix + name.data()},
    };
    json variables = json::array();
    for (int i = 0; i < m_options.variables; ++i)
        variables.push_back({{"line", kLine},
                             {"name", nameOf(i)},
                             {"station", kStation},
                             {"tag", nameOf(i)},
                             {"element", 0},
                             {"length", 1}});
    return {"mqtt", settings, {{"lines", {kLine}}, {"variables", variables}}, run};
}

// Feeds what is due, and takes in what came, for at most a batch's time.
void Fleet::step(double rate)
{
    const double each = rate / m_options.gateways;
    const auto now = Clock::now();
    std::vector<pollfd> waits;
    for (std::size_t i = 0; i < m_gateways.size(); ++i) {
        Gateway& gateway = m_gateways[i];
        if (rate > 0 && gateway.due <= now) {
            gateway.owed += each * std::chrono::duration<double>(kBatch).count();
            // Gateways take turns within a batch's time.
            gateway.due = std::max(gateway.due + kBatch, now);
            for (; gateway.owed >= 1; gateway.owed -= 1) {
                const std::size_t recorded = gateway.next++ % m_recorded.size();
                const auto time = m_books.feed(i, static_cast<std::uint32_t>(recorded));
                gateway.feed->feed(m_recorded[recorded].before + timeText(time) +
                                   m_recorded[recorded].after);
            }
            gateway.feed->flush();
        }
        waits.push_back({gateway.feed->descriptor(),
                         static_cast<short>(POLLIN | (gateway.feed->hasOutput() ? POLLOUT : 0)),
                         0});
    }
    ::poll(waits.data(), waits.size(), 5);
    for (std::size_t i = 0; i < m_gateways.size(); ++i) {
        DeliveryFeed& feed = *m_gateways[i].feed;
        if ((waits[i].revents & POLLOUT) != 0)
            feed.flush();
        if ((waits[i].revents & (POLLIN | POLLHUP)) != 0 && !feed.receive())
            fail("gateway " + std::to_string(i) + " ended: " + feed.log());
    }
}

void Fleet::runFor(double seconds, double rate)
{
    const auto begin = Clock::now();
    std::size_t turn = 0;
    for (Gateway& gateway : m_gateways) {
        gateway.due = begin + turn * kBatch / m_gateways.size();
        ++turn;
    }
    while (secondsSince(begin) < seconds)
        step(rate);
}

// Waits until everything came. False when nothing comes any more.
bool Fleet::drain(const char* when)
{
    const auto begin = Clock::now();
    auto progress = begin;
    std::int64_t least = m_books.missing();
    while (m_books.missing() > 0) {
        step(0);
        if (m_books.missing() < least) {
            least = m_books.missing();
            progress = Clock::now();
        }
        if (Clock::now() - progress > kPatience / 2)
            return false;
    }
    std::printf("%s: everything had come %.1f s later\n", when, secondsSince(begin));
    return true;
}

Fleet::Use Fleet::use() const
{
    Use all;
    for (const Gateway& gateway : m_gateways) {
        const Usage usage = usageOf(gateway.feed->process());
        all.gateways += usage.seconds;
        all.proportional += usage.proportional;
        all.residentOfOne += usage.resident / static_cast<double>(m_gateways.size());
    }
    const Usage broker = usageOf(m_broker.process());
    all.broker = broker.seconds;
    all.brokerResident = broker.resident;
    all.receiver = m_receiver.seconds();
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    all.feeder = static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
    return all;
}

double quantile(const std::vector<int>& sorted, double share)
{
    if (sorted.empty())
        return 0;
    return sorted[static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1))];
}

void Fleet::report(const char* phase, const Use& before, double seconds, std::int64_t fedBefore)
{
    const double mebi = 1024.0 * 1024;
    const Use after = use();
    const Counters came = m_books.popCounters();
    m_doubles += came.doubles;
    std::printf(
        "%-18s fed %7.0f/s  came %7.0f/s (live %.0f, history %.0f, repeated %.0f, double "
        "%.0f)  behind %lld  delay ms median %.0f 99%% %.0f\n",
        phase, static_cast<double>(m_books.fed() - fedBefore) / seconds,
        static_cast<double>(came.messages) / seconds, static_cast<double>(came.live) / seconds,
        static_cast<double>(came.history) / seconds, static_cast<double>(came.repeated) / seconds,
        static_cast<double>(came.doubles) / seconds, static_cast<long long>(m_books.missing()),
        quantile(came.delays, 0.5), quantile(came.delays, 0.99));
    // A restarted broker begins with no time used.
    const double broker = after.broker - (after.broker < before.broker ? 0 : before.broker);
    std::printf("%-18s processors: gateways %.2f  broker %.2f  receiver %.2f  feeder %.2f;  "
                "memory: gateways %.0f MiB (%.1f resident each)  broker %.1f MiB\n",
                "", (after.gateways - before.gateways) / seconds, broker / seconds,
                (after.receiver - before.receiver) / seconds,
                (after.feeder - before.feeder) / seconds, after.proportional / mebi,
                after.residentOfOne / mebi, after.brokerResident / mebi);
    std::fflush(stdout);
    std::array<char, 400> row{};
    std::snprintf(
        row.data(), row.size(),
        "| %s | %.0f | %.0f | %.0f | %.0f | %lld | %lld | %.0f | %.0f | %.2f | %.2f | "
        "%.2f | %.2f |\n",
        phase, static_cast<double>(m_books.fed() - fedBefore) / seconds,
        static_cast<double>(came.messages) / seconds, static_cast<double>(came.live) / seconds,
        static_cast<double>(came.history) / seconds, static_cast<long long>(came.doubles),
        static_cast<long long>(m_books.missing()), quantile(came.delays, 0.5),
        quantile(came.delays, 0.99), (after.gateways - before.gateways) / seconds, broker / seconds,
        (after.receiver - before.receiver) / seconds, (after.feeder - before.feeder) / seconds);
    m_table += row.data();
}

// For a document.
void Fleet::printTable() const
{
    std::printf(
        "\n| phase | fed a second | came a second | live | history | doubles | behind at the "
        "end | delay, median, ms | 99 %% | gateways, processors | broker | receiver | feeder "
        "|\n|---|---|---|---|---|---|---|---|---|---|---|---|---|\n%s\n",
        m_table.c_str());
    const std::vector<double> first = m_books.firstMessages();
    if (first.empty())
        return;
    const std::vector<int> slots = m_books.storm();
    std::printf("| births of | first after, s | half | last | most messages in 100 ms |\n"
                "|---|---|---|---|---|\n| %zu gateways, over %d ms | %.1f | %.1f | %.1f | %d |\n\n",
                first.size(), m_options.spread, first.front(), first[(first.size() - 1) / 2],
                first.back(), *std::max_element(slots.begin(), slots.end()));
}

void Fleet::reportStorm() const
{
    const std::vector<int> slots = m_books.storm();
    const std::vector<double> first = m_books.firstMessages();
    const auto most = std::max_element(slots.begin(), slots.end());
    const auto at = [&first](double share) {
        return first.empty()
                   ? 0.0
                   : first[static_cast<std::size_t>(share * static_cast<double>(first.size() - 1))];
    };
    std::printf("births             %zu gateways; begun after the broker was back: the "
                "first %.1f s, a tenth %.1f s, half %.1f s, nine tenths %.1f s, the last %.1f s\n",
                first.size(), at(0), at(0.1), at(0.5), at(0.9), at(1));
    std::printf("                   most messages in 100 ms: %d, %.1f s after it was back\n", *most,
                static_cast<double>(most - slots.begin()) / 10);
    std::printf("                   messages in each second:");
    for (std::size_t second = 0; second < std::min<std::size_t>(30, slots.size() / 10); ++second) {
        int all = 0;
        for (std::size_t slot = 0; slot < 10; ++slot)
            all += slots[10 * second + slot];
        std::printf(" %d", all);
    }
    std::printf("\n");
    std::fflush(stdout);
}

void Fleet::restartBroker()
{
    const Use before = use();
    const std::int64_t fed = m_books.fed();
    const auto begin = Clock::now();
    m_broker.stop();
    runFor(m_options.outage, m_options.rate);
    m_broker.start();
    m_books.beginStorm();
    report("without broker", before, secondsSince(begin), fed);
}

// More and more messages, until they come later and later.
void Fleet::ramp()
{
    double rate = m_options.rate;
    while ((rate *= m_options.growth) <= m_options.mostRate) {
        const Use before = use();
        const std::int64_t fed = m_books.fed();
        m_books.popCounters();
        const auto begin = Clock::now();
        runFor(m_options.step / 2, rate);
        const std::int64_t behind = m_books.missing();
        runFor(m_options.step / 2, rate);
        const double seconds = secondsSince(begin);
        report(("ramp " + std::to_string(static_cast<int>(rate)) + "/s").c_str(), before, seconds,
               fed);
        std::int64_t unkept = 0;
        for (const Gateway& gateway : m_gateways)
            unkept += gateway.feed->fed() - gateway.feed->kept();
        const double fedRate = static_cast<double>(m_books.fed() - fed) / seconds;
        if (fedRate < 0.95 * rate) {
            std::printf("gave way first: the feeder, which had no processor left\n");
            return;
        }
        if (static_cast<double>(m_books.missing()) > 2 * rate && m_books.missing() > behind) {
            std::printf("gave way first: %s (%lld values are behind, %lld of them not yet in a "
                        "queue)\n",
                        unkept > m_books.missing() / 2 ? "the queues" : "the way by the broker",
                        static_cast<long long>(m_books.missing()), static_cast<long long>(unkept));
            return;
        }
    }
    std::printf("nothing gave way up to %.0f messages a second\n", m_options.mostRate);
}

bool Fleet::judge() const
{
    const std::vector<std::string> gaps = m_books.gaps();
    const std::vector<std::string> faults = m_books.faults();
    for (const auto& list : {gaps, faults}) {
        for (const std::string& text : list)
            std::fprintf(stderr, "fleet: %s\n", text.c_str());
    }
    std::printf("%lld values were fed, %lld are missing; %lld came twice, %zu broke a promise\n",
                static_cast<long long>(m_books.fed()), static_cast<long long>(m_books.missing()),
                static_cast<long long>(m_doubles), faults.size());
    // The broker was stopped once: no gateway repeats more than what it may have on the way.
    const std::int64_t most = std::int64_t(kWindow) * m_options.gateways;
    std::printf("doubles: at most %lld are allowed\n", static_cast<long long>(most));
    if (m_doubles > most)
        std::fprintf(stderr, "fleet: more came twice than a restart of the broker explains\n");
    return gaps.empty() && faults.empty() && m_books.missing() == 0 && m_doubles <= most;
}

bool Fleet::run()
{
    Use before = use();
    auto begin = Clock::now();
    std::int64_t fed = m_books.fed();
    runFor(m_options.seconds / 2, m_options.rate);
    report("steady", before, secondsSince(begin), fed);
    restartBroker();
    before = use();
    begin = Clock::now();
    fed = m_books.fed();
    runFor(m_options.seconds / 2, m_options.rate);
    report("after the restart", before, secondsSince(begin), fed);
    reportStorm();
    bool isComplete = drain("after the run");
    if (isComplete && m_options.growth > 1) {
        ramp();
        isComplete = drain("after the ramp");
    }
    m_doubles += m_books.popCounters().doubles;
    printTable();
    return judge() && isComplete;
}

bool raiseLimits(const Options& options)
{
    rlimit files{};
    ::getrlimit(RLIMIT_NOFILE, &files);
    const rlim_t wanted = static_cast<rlim_t>(options.gateways) * 2 + 100;
    files.rlim_max = std::max(files.rlim_max, files.rlim_cur);
    files.rlim_cur = std::max(files.rlim_cur, std::min(wanted, files.rlim_max));
    return ::setrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur >= wanted;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app("Many gateways that deliver to one broker, and a receiver that keeps books.");
    app.add_option("--gateways", options.gateways, "processes that deliver")
        ->check(CLI::Range(1, 9999));
    app.add_option("--variables", options.variables, "of each gateway")->check(CLI::Range(1, 999));
    app.add_option("--rate", options.rate, "messages a second, of all together");
    app.add_option("--seconds", options.seconds, "how long, without the time without a broker");
    app.add_option("--outage", options.outage, "seconds without a broker, in the middle");
    app.add_option("--spread", options.spread, "milliseconds over which births are spread");
    app.add_option("--step", options.step, "seconds of each rate of the ramp");
    app.add_option("--growth", options.growth, "from one rate to the next; 1: no ramp");
    app.add_option("--most", options.mostRate, "the highest rate of the ramp");
    app.add_option("--queues", options.queues,
                   "the folder of the queues (default: that of temporary files)");
    CLI11_PARSE(app, argc, argv);
    ::signal(SIGPIPE, SIG_IGN);
    if (!raiseLimits(options))
        fail("not enough files can be open: raise the limit with ulimit -n");
    ::mosquitto_lib_init();
    const std::vector<Recorded> recorded = record(options);
    std::printf("fleet: %d gateways with %d variables each, %.0f messages a second, %zu recorded "
                "values, births spread over %d ms\n",
                options.gateways, options.variables, options.rate, recorded.size(), options.spread);
    std::fflush(stdout);
    bool isGood = false;
    try {
        isGood = Fleet(options, recorded).run();
    } catch (const std::exception& problem) {
        fail(problem.what());
    }
    ::mosquitto_lib_cleanup();
    return isGood ? 0 : 1;
}
