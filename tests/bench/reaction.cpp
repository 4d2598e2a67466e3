// reaction BAUD TRIALS: the time in milliseconds until a write goes out while everything is read in
// a cycle, and until values arrive after a start and after a fault. The reference host and the
// driver talk to the simulated controller on virtual time, so that the figures show the protocol
// and the strategy on a line of that speed and do not depend on the machine. Prints JSON.

#include "paced_simulated_line.h"

#include "DriverLibrary.h"
#include "PollLoop.h"
#include "UserError.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

namespace {

using nlohmann::json;

const int kVariables = 20;
const int kPulledMs = 3000;

QString tagName(const char* kind, int number)
{
    return QLatin1String(kind) + QString::number(number);
}

std::string plantText(int others)
{
    QStringList tags;
    for (int i = 0; i < kVariables; ++i)
        tags += QStringLiteral(R"({"name": "%1", "type": "DINT"})").arg(tagName("Cyclic", i));
    for (int i = 0; i < others; ++i)
        tags += QStringLiteral(R"({"name": "%1", "type": "DINT"})").arg(tagName("Other", i));
    return "{\"tags\": [" + tags.join(QLatin1Char(',')).toStdString() + "]}";
}

micro850::host::Project projectAt(int baud)
{
    QStringList variables;
    for (int i = 0; i < kVariables; ++i)
        variables += QStringLiteral(R"({"tag": "%1"})").arg(tagName("Cyclic", i));
    const QString text = QStringLiteral(R"({"stations": [{"number": 1}], "variables": [%1]})");
    micro850::host::Project project =
        micro850::host::Project::fromText(text.arg(variables.join(QLatin1Char(','))), "");
    project.port.baud = baud;
    return project;
}

json summary(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return {
        {"best", values.front()}, {"median", values[values.size() / 2]}, {"worst", values.back()}};
}

/// One host with one controller, from the start.
class Plant
{
public:
    Plant(int baud, int others)
        : m_controller(m_clock, micro850::sim::TagTable::fromText(plantText(others), "plant")),
          m_line(m_clock, m_controller), m_port(m_clock, m_line, baud), m_project(projectAt(baud)),
          m_loop(m_library.api(), m_port, m_clock, m_project)
    {
        m_loop.exchange().setObserver([this](micro850::host::Exchange::Direction direction,
                                             const QByteArray& frame,
                                             micro850::Duration) { observe(direction, frame); });
    }

    /// Time until the first value, and until all values.
    json start()
    {
        runUntil([&] { return m_loop.values().wasRead(0); });
        const double first = milliseconds();
        runUntil([&] {
            for (int i = 0; i < kVariables; ++i) {
                if (!m_loop.values().wasRead(i))
                    return false;
            }
            return true;
        });
        return {{"first", first}, {"all", milliseconds()}, {"variables", kVariables}};
    }

    /// The longest read transaction while everything is read in a cycle.
    double transactionTime()
    {
        m_longest = 0;
        runFor(2000000);
        return static_cast<double>(m_longest) / 1000;
    }

    /// How long the host waits for the reply to a read, whatever happens.
    double timeout()
    {
        const int readRequest = 36;
        return static_cast<double>(m_loop.exchange().timeoutFor(readRequest).count()) / 1000;
    }

    /// From the host's call, at any moment of the cycle, to the first byte of the write's frame.
    double write(const QString& tag, qint64 moment)
    {
        m_loop.declare({1, tag});
        m_called = m_sent = -1;
        m_before = 0;
        m_port.plan(moment, [&] {
            m_called = m_port.microseconds();
            m_library.api().setRegisterData(tag, 0, QStringLiteral("0"), 1, QByteArray(4, '\1'), 2,
                                            0, 0);
        });
        runUntil([&] { return m_sent >= 0; });
        runFor(1000000);
        if (m_controller.tags().find(tag.toStdString())->elements[0] != micro850::Bytes(4, 1))
            throw micro850::UserError("the write did not arrive");
        return static_cast<double>(m_sent - m_called) / 1000;
    }

    /// Requests that went out between the host's last call of a write and the frame of that write.
    int requestsBeforeWrite() const { return m_before; }
    /// From the loss of a reply to the next value.
    double loseReply(qint64 moment)
    {
        return recovery(moment, [this] { fault(micro850::sim::FaultKind::Withhold, 0); });
    }
    /// From the power cycle to the next value.
    double powerCycle(qint64 moment)
    {
        return recovery(moment, [this] {
            m_controller.powerCycle(false);
            m_port.cut();
            m_struck = m_port.microseconds();
        });
    }
    /// From the cable's return to the next value.
    double pullCable(qint64 moment)
    {
        return recovery(moment, [this] { fault(micro850::sim::FaultKind::HangUp, kPulledMs); }) -
               kPulledMs;
    }

    void runFor(qint64 microseconds)
    {
        const qint64 end = m_port.microseconds() + microseconds;
        runUntil([&] { return m_port.microseconds() >= end; });
    }

private:
    template<typename Condition> void runUntil(Condition condition)
    {
        const qint64 end = m_port.microseconds() + 60000000;
        while (!condition()) {
            if (m_port.microseconds() > end)
                throw micro850::UserError("nothing happened for a minute");
            m_loop.step();
        }
    }

    void observe(micro850::host::Exchange::Direction direction, const QByteArray& frame)
    {
        const qint64 now = m_port.microseconds();
        const auto events = micro850::host::ReplyCollector().feed(frame);
        const QByteArray data = events.isEmpty() ? QByteArray() : events.last().data.bytes();
        if (data.isEmpty()) // a link control, or a corrupt frame
            return;
        if (direction == micro850::host::Exchange::Direction::In) {
            const micro850::host::Reply reply = micro850::host::decodeReply(data);
            if (reply.service != micro850::host::kReadTagFragmented || !reply.good())
                return;
            m_longest = std::max(m_longest, now - m_began);
            m_value = now;
            return;
        }
        m_began = now;
        if (m_called < 0 || m_sent >= 0)
            return;
        if (micro850::host::decodeRequest(data).service == micro850::host::kWriteTagFragmented)
            m_sent = now;
        else
            ++m_before;
    }

    double recovery(qint64 moment, const std::function<void()>& strike)
    {
        m_struck = -1;
        m_port.plan(moment, strike);
        runUntil([&] { return m_struck >= 0 && m_value > m_struck; });
        const double took = static_cast<double>(m_value - m_struck) / 1000;
        runFor(1000000);
        return took;
    }

    // The fault affects the next reply.
    void fault(micro850::sim::FaultKind kind, int milliseconds)
    {
        micro850::sim::Fault fault;
        fault.kind = kind;
        fault.messages = {m_line.messages(micro850::sim::Side::Replies) + 1};
        fault.time = std::chrono::milliseconds(milliseconds);
        m_line.add(fault);
        m_line.setObserver([this](const micro850::sim::FaultyLine::Event& event) {
            m_struck = event.time.count();
        });
    }

    double milliseconds() const { return static_cast<double>(m_port.microseconds()) / 1000; }

    micro850::VirtualClock m_clock;
    micro850::sim::Controller m_controller;
    micro850::sim::FaultyLine m_line;
    PacedSimulatedLine m_port;
    micro850::host::DriverLibrary m_library{QStringLiteral(MICRO850_LIBRARY)};
    micro850::host::Project m_project;
    micro850::host::PollLoop m_loop;
    qint64 m_began = 0;   ///< of the transaction in flight
    qint64 m_longest = 0; ///< read transaction so far
    qint64 m_value = 0;   ///< when the last value came
    qint64 m_called = -1; ///< when the host asked for a write
    qint64 m_sent = -1;   ///< when the write went out
    int m_before = 0;     ///< requests between the two
    qint64 m_struck = -1; ///< when the fault happened
};

template<typename Trial> json trials(int number, Trial trial)
{
    const std::uint64_t reach = 200000; // microseconds: several transactions
    micro850::sim::Dice dice(1);
    std::vector<double> values;
    for (int i = 0; i < number; ++i)
        values.push_back(trial(i, static_cast<qint64>(dice.below(reach))));
    return summary(values);
}

/// Writes to tags of a kind, with the most requests that went out before one.
json writeTrials(Plant& plant, int number, const char* kind, int tags)
{
    int before = 0;
    json result = trials(number, [&](int i, qint64 moment) {
        const double took = plant.write(tagName(kind, i % tags), moment);
        before = std::max(before, plant.requestsBeforeWrite());
        return took;
    });
    result["requests_before"] = before;
    return result;
}

json measure(int baud, int number)
{
    Plant plant(baud, number);
    json result = {{"baud", baud}, {"trials", number}};
    result["start"] = plant.start();
    result["transaction"] = plant.transactionTime();
    result["timeout"] = plant.timeout();
    result["write"] = writeTrials(plant, number, "Cyclic", kVariables);
    result["write_unknown"] = writeTrials(plant, number, "Other", number);
    result["lost_reply"] =
        trials(number, [&](int, qint64 moment) { return plant.loseReply(moment); });
    result["power_cycle"] =
        trials(number, [&](int, qint64 moment) { return plant.powerCycle(moment); });
    result["pulled_cable"] =
        trials(number, [&](int, qint64 moment) { return plant.pullCable(moment); });
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    const int baud = argc == 3 ? std::atoi(argv[1]) : 0;
    const int number = argc == 3 ? std::atoi(argv[2]) : 0;
    if (baud < 1 || number < 1) {
        std::fprintf(stderr, "usage: reaction BAUD TRIALS, both from 1\n");
        return 2;
    }
    const QCoreApplication app(argc, argv);
    try {
        std::printf("%s\n", measure(baud, number).dump().c_str());
        return 0;
    } catch (const micro850::UserError& error) {
        std::fprintf(stderr, "reaction: %s\n", error.what());
        return 1;
    }
}
