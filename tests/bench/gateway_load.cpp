// gateway_load GATEWAY LINES BAUD VALUES READERS SECONDS: what a gateway costs, and how soon its
// readers have a value. LINES controllers in this program are at pseudo-terminals of BAUD bits a
// second (0: bytes arrive at once), 10 bits a byte. The gateway reads VALUES elements of each as
// fast as the line allows; every reply has new values. READERS clients subscribe to all of them.
// After a second to settle, prints one line of JSON: what was delivered in SECONDS, the time from
// the last byte of a reply to the client that has its value, the processor's time and the memory of
// the gateway and its workers.

#include "gateway_process.h"
#include "pseudo_terminal.h"

#include "Controller.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using nlohmann::json;

const std::int64_t kSecond = 1000000000;
const std::int64_t kPatience = 30 * kSecond; ///< for whatever is waited for

[[noreturn]] void fail(const std::string& what)
{
    std::fprintf(stderr, "gateway_load: %s\n", what.c_str());
    std::exit(1);
}

struct Options
{
    std::string gateway;
    int lines = 0;
    int baud = 0;
    int values = 0;
    int readers = 0;
    int seconds = 0;
};

/// A controller at the end of a line. The first element of its tag counts the messages it gets.
class Line
{
public:
    Line(int baud, int values)
        : m_byteTime(baud > 0 ? 10 * kSecond / baud : 0), m_values(values),
          m_controller(m_clock, micro850::sim::TagTable::fromText(
                                    R"({"tags": [{"name": "Data", "type": "INT", "length": )" +
                                        std::to_string(values) + "}]}",
                                    "plant"))
    {
    }

    const std::string& device() const { return m_terminal.path(); }
    int descriptor() const { return m_terminal.descriptor(); }
    /// When the last reply with this count had arrived at the host.
    std::int64_t repliedAt(std::uint16_t count) const { return m_repliedAt[count]; }
    std::int64_t replies() const { return m_replies; }

    /// Takes what the host has sent.
    void take()
    {
        std::array<std::uint8_t, 4096> buffer;
        const ssize_t count = ::read(descriptor(), buffer.data(), buffer.size());
        if (count <= 0)
            return;
        m_busyUntil = std::max(m_busyUntil, nanoseconds()) + count * m_byteTime;
        m_requests.push_back({m_busyUntil, {buffer.begin(), buffer.begin() + count}, 0});
    }
    /// Does what is due; returns when the next is due, or a very late time.
    std::int64_t work()
    {
        const std::int64_t now = nanoseconds();
        while (!m_requests.empty() && m_requests.front().due <= now)
            answer();
        while (!m_answers.empty() && m_answers.front().due <= now)
            deliver();
        std::int64_t next = now + kSecond;
        for (const auto* pieces : {&m_requests, &m_answers})
            next = pieces->empty() ? next : std::min(next, pieces->front().due);
        return next;
    }

private:
    struct Piece
    {
        std::int64_t due;
        micro850::Bytes bytes;
        std::uint16_t count;
    };

    void answer()
    {
        const Piece request = m_requests.front();
        m_requests.pop_front();
        ++m_count;
        auto& elements = m_controller.tags().find("Data")->elements;
        for (int i = 0; i < m_values; ++i)
            elements[static_cast<std::size_t>(i)] = {static_cast<std::uint8_t>(m_count),
                                                     static_cast<std::uint8_t>(m_count >> 8)};
        m_controller.receive(request.bytes);
        const micro850::Bytes bytes = m_controller.transmit();
        if (bytes.empty())
            return;
        const auto size = static_cast<std::int64_t>(bytes.size());
        m_answers.push_back({request.due + size * m_byteTime, bytes, m_count});
    }
    void deliver()
    {
        const Piece piece = m_answers.front();
        m_answers.pop_front();
        m_repliedAt[piece.count] = nanoseconds();
        ++m_replies;
        if (::write(descriptor(), piece.bytes.data(), piece.bytes.size()) < 0)
            std::perror("gateway_load: bytes are lost");
    }

    std::int64_t m_byteTime;
    int m_values;
    PseudoTerminal m_terminal;
    micro850::SystemClock m_clock;
    micro850::sim::Controller m_controller;
    std::deque<Piece> m_requests;
    std::deque<Piece> m_answers;
    std::int64_t m_busyUntil = 0;
    std::uint16_t m_count = 0;
    std::int64_t m_replies = 0;
    std::vector<std::int64_t> m_repliedAt = std::vector<std::int64_t>(65536, 0);
};

/// A client that has subscribed to everything.
class Reader
{
public:
    explicit Reader(const std::string& socket) : m_client(socket)
    {
        m_client.send(R"({"id": 1, "request": "subscribe"})");
    }

    int descriptor() const { return m_client.descriptor(); }
    std::int64_t values() const { return m_values; }

    /// Counts the values that have come. `observe` is called with each line, unless it is null.
    void take(const std::function<void(const std::string&)>& observe)
    {
        const auto handle = [&](const std::string& line) {
            const std::string key = "\"bytes\"";
            for (std::size_t at = line.find(key); at != std::string::npos;
                 at = line.find(key, at + 1))
                ++m_values;
            if (observe)
                observe(line);
        };
        if (!m_client.receive(handle))
            fail("the gateway let a reader go");
    }

private:
    GatewayReader m_client;
    std::int64_t m_values = 0;
};

json projectOf(const Line& line, const Options& options)
{
    json variables = json::array();
    for (int i = 0; i < options.values; ++i)
        variables.push_back({{"name", "Value" + std::to_string(i)},
                             {"tag", "Data"},
                             {"element", i},
                             {"intervalMs", 0}});
    return {
        {"port", {{"device", line.device()}, {"baud", options.baud > 0 ? options.baud : 115200}}},
        {"variables", variables}};
}

/// Everything at once, in this thread.
class Load
{
public:
    explicit Load(const Options& options) : m_options(options)
    {
        for (int i = 0; i < options.lines; ++i)
            m_lines.push_back(std::make_unique<Line>(options.baud, options.values));
        GatewayProcess::Lines lines;
        for (const auto& line : m_lines)
            lines.emplace_back("line" + std::to_string(lines.size()), projectOf(*line, options));
        m_gateway = std::make_unique<GatewayProcess>(options.gateway, lines);
        for (int i = 0; i < options.readers; ++i)
            m_readers.push_back(std::make_unique<Reader>(m_gateway->socket()));
    }

    json run()
    {
        const std::int64_t wanted = m_options.lines * m_options.values * m_options.readers;
        const std::int64_t end = nanoseconds() + kPatience;
        while (values() < 2 * wanted) {
            if (nanoseconds() > end)
                fail("the values did not come");
            step();
        }
        runFor(kSecond);
        m_delays.clear();
        const std::int64_t valuesBefore = values();
        const std::int64_t repliesBefore = replies();
        const std::vector<Usage> before = m_gateway->usages();
        const std::int64_t begun = nanoseconds();
        runFor(m_options.seconds * kSecond);
        const double took = static_cast<double>(nanoseconds() - begun) / 1e9;
        return report(before, took, static_cast<double>(values() - valuesBefore) / took,
                      static_cast<double>(replies() - repliesBefore) / took);
    }

private:
    void runFor(std::int64_t time)
    {
        for (const std::int64_t end = nanoseconds() + time; nanoseconds() < end;)
            step();
    }
    void step()
    {
        std::int64_t next = nanoseconds() + kSecond / 10;
        std::vector<pollfd> waits;
        for (const auto& line : m_lines) {
            next = std::min(next, line->work());
            waits.push_back({line->descriptor(), POLLIN, 0});
        }
        for (const auto& reader : m_readers)
            waits.push_back({reader->descriptor(), POLLIN, 0});
        const std::int64_t wait = std::max<std::int64_t>(0, next - nanoseconds());
        const timespec timeout = {wait / kSecond, wait % kSecond};
        ::ppoll(waits.data(), waits.size(), &timeout, nullptr);
        for (std::size_t i = 0; i < waits.size(); ++i) {
            if (waits[i].revents == 0)
                continue;
            if (i < m_lines.size())
                m_lines[i]->take();
            else
                take(*m_readers[i - m_lines.size()], i == m_lines.size());
        }
    }
    void take(Reader& reader, bool isFirst)
    {
        if (!isFirst)
            return reader.take(nullptr);
        reader.take([this](const std::string& line) { observe(line); });
    }
    // Of the first variable of each line, the time since the reply that brought the value.
    void observe(const std::string& line)
    {
        const std::int64_t now = nanoseconds();
        const json message = json::parse(line);
        if (message.value("event", "") != "values")
            return;
        for (const json& value : message["values"]) {
            if (value["name"] != "Value0" || !value["value"].is_number())
                continue;
            const auto index =
                static_cast<std::size_t>(std::stoi(value["line"].get<std::string>().substr(4)));
            const auto count = static_cast<std::uint16_t>(value["value"].get<int>());
            m_delays.push_back(now - m_lines[index]->repliedAt(count));
        }
    }

    std::int64_t values() const
    {
        std::int64_t all = 0;
        for (const auto& reader : m_readers)
            all += reader->values();
        return all;
    }
    std::int64_t replies() const
    {
        std::int64_t all = 0;
        for (const auto& line : m_lines)
            all += line->replies();
        return all;
    }
    double delay(double share)
    {
        if (m_delays.empty())
            return 0;
        std::sort(m_delays.begin(), m_delays.end());
        return static_cast<double>(m_delays[static_cast<std::size_t>(
                   share * static_cast<double>(m_delays.size() - 1))]) /
               1000;
    }
    json report(const std::vector<Usage>& before, double took, double delivered, double answered)
    {
        const std::vector<Usage> after = m_gateway->usages();
        if (after.size() != before.size())
            fail("a worker ended");
        double parent = 0;
        double workers = 0;
        double resident = 0;
        double proportional = 0;
        for (std::size_t i = 0; i < after.size(); ++i) {
            (i == 0 ? parent : workers) += (after[i].seconds - before[i].seconds) / took;
            resident += after[i].resident;
            proportional += after[i].proportional;
        }
        return {{"lines", m_options.lines},   {"baud", m_options.baud},
                {"values", m_options.values}, {"readers", m_options.readers},
                {"replies", answered},        {"delivered", delivered},
                {"delay_median", delay(0.5)}, {"delay_99", delay(0.99)},
                {"parent_share", parent},     {"workers_share", workers},
                {"resident", resident},       {"proportional", proportional}};
    }

    Options m_options;
    std::vector<std::unique_ptr<Line>> m_lines;
    std::unique_ptr<GatewayProcess> m_gateway;
    std::vector<std::unique_ptr<Reader>> m_readers;
    std::vector<std::int64_t> m_delays;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::fprintf(stderr, "usage: gateway_load GATEWAY LINES BAUD VALUES READERS SECONDS\n");
        return 2;
    }
    ::signal(SIGPIPE, SIG_IGN);
    const Options options = {argv[1],
                             std::atoi(argv[2]),
                             std::atoi(argv[3]),
                             std::atoi(argv[4]),
                             std::atoi(argv[5]),
                             std::atoi(argv[6])};
    std::printf("%s\n", Load(options).run().dump().c_str());
    return 0;
}
