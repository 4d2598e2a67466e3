// reaction BAUD TRIALS: the time in milliseconds until a write goes out while everything is read in
// a cycle, and until values arrive after a start and after a fault; and what a controller costs
// that pauses again and again, in an hour (in six minutes with fewer than 100 trials). The
// reference host and the driver talk to the simulated controller on virtual time, so that the
// figures show the protocol and the strategy on a line of that speed and do not depend on the
// machine. Prints JSON.

#include "paced_simulated_line.h"

#include "DriverLibrary.h"
#include "PollLoop.h"
#include "UserError.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

namespace {

using nlohmann::json;

const int kVariables = 20;
const int kPulledMs = 3000;
const int kPauseMs = 300;
const int kPauseEveryMs = 10000;

QString tagName(const char* kind, int number)
{
    return QLatin1String(kind) + QString::number(number);
}

std::string plantText(int others)
{
    QStringList tags;
    for (int i = 0; i < kVariables; ++i)
        tags += QStringLiteral(R"({"name": "%1", "type": "DINT", "value": %2})")
                    .arg(tagName("Cyclic", i), QString::number(1000 + 7 * i));
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
          m_line(m_clock, m_controller), m_port(m_clock, m_line, baud), m_project(projectAt(baud))
    {
        // The driver draws the serial number of a connection from the second of the day, which
        // does not pass here.
        m_controller.server().setReplacesConnections(true);
        startHost();
    }

    /// Time until the first value, and until all values.
    json start()
    {
        runUntil([&] { return m_loop->values().wasRead(0); });
        const double first = milliseconds();
        runUntil([&] {
            for (int i = 0; i < kVariables; ++i) {
                if (!m_loop->values().wasRead(i))
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
        return static_cast<double>(m_loop->exchange().timeoutFor(readRequest).count()) / 1000;
    }

    /// From the host's call, at any moment of the cycle, to the first byte of the write's frame.
    double write(const QString& tag, qint64 moment)
    {
        m_loop->declare({1, tag});
        m_called = m_sent = -1;
        m_before = 0;
        m_port.plan(moment, [&] {
            m_called = m_port.microseconds();
            m_library->api().setRegisterData(tag, 0, QStringLiteral("0"), 1, QByteArray(4, '\1'), 2,
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
        m_asked = -1;
        return recovery(moment, [this] { fault(micro850::sim::FaultKind::Withhold, 0); });
    }
    /// From the last request whose reply was lost to the question for it.
    double askedAfter() const { return static_cast<double>(m_asked) / 1000; }
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

    /// From the return of a cable that was pulled behind an adapter to the next value.
    double disconnect(qint64 moment)
    {
        return recovery(moment, [this] {
            m_port.disconnect(1000 * kPulledMs);
            m_struck = m_port.microseconds() + 1000 * kPulledMs;
        });
    }
    /// From the start of a host to its first value. Another one was ended before, in the middle of
    /// a transaction, without a chance to close its connection.
    double follow(qint64 moment)
    {
        runFor(moment);
        startHost();
        m_value = -1;
        const qint64 began = m_port.microseconds();
        runUntil([&] { return m_value >= 0; });
        const double took = static_cast<double>(m_value - began) / 1000;
        runFor(1000000);
        return took;
    }
    /// What a host counts while the controller pauses again and again.
    json pauses(int minutes)
    {
        startHost();
        runFor(2000000);
        const micro850::host::Counters before = counters();
        int wrong = 0;
        std::vector<double> took;
        micro850::sim::Dice dice(2);
        const qint64 pauses = 60000LL * minutes / kPauseEveryMs;
        for (qint64 i = 0; i < pauses; ++i) {
            const qint64 end = m_port.microseconds() + 1000 * kPauseEveryMs;
            took.push_back(recovery(static_cast<qint64>(dice.below(200000)), [this] {
                m_port.hold(1000 * kPauseMs);
                m_struck = m_port.microseconds() + 1000 * kPauseMs;
            }));
            wrong += wrongValues();
            runUntil([&] { return m_port.microseconds() >= end; });
        }
        const micro850::host::Counters after = counters();
        return {{"minutes", minutes},
                {"pauses", pauses},
                {"answered", after.answered - before.answered},
                {"timed_out", after.timedOut - before.timedOut},
                {"corrupt", after.corrupt - before.corrupt},
                {"retries", after.retries - before.retries},
                {"reconnects", after.reconnects - before.reconnects},
                {"wrong_values", wrong},
                {"next_value", summary(took)}};
    }

    void runFor(qint64 microseconds)
    {
        const qint64 end = m_port.microseconds() + microseconds;
        runUntil([&] { return m_port.microseconds() >= end; });
    }

private:
    // Ends the present host as if it were killed, and starts one with a driver that was just
    // loaded.
    void startHost()
    {
        m_loop.reset();
        m_library.reset();
        m_library =
            std::make_unique<micro850::host::DriverLibrary>(QStringLiteral(MICRO850_LIBRARY));
        m_loop = std::make_unique<micro850::host::PollLoop>(m_library->api(), m_port, m_clock,
                                                            m_project);
        m_loop->exchange().setObserver([this](micro850::host::Exchange::Direction direction,
                                              const QByteArray& frame,
                                              micro850::Duration) { observe(direction, frame); });
    }

    const micro850::host::Counters& counters() const
    {
        return m_loop->stations().find(1)->counters();
    }

    // Variables that do not show what the controller has.
    int wrongValues()
    {
        int wrong = 0;
        for (int i = 0; i < kVariables; ++i) {
            const micro850::sim::Tag* tag =
                m_controller.tags().find(tagName("Cyclic", i).toStdString());
            const micro850::Bytes& value = tag->elements[0];
            const unsigned number =
                value[0] | value[1] << 8 | value[2] << 16 | static_cast<unsigned>(value[3]) << 24;
            wrong += m_loop->values().text(i).toStdString() !=
                             std::to_string(static_cast<std::int32_t>(number))
                         ? 1
                         : 0;
        }
        return wrong;
    }

    template<typename Condition> void runUntil(Condition condition)
    {
        const qint64 end = m_port.microseconds() + 60000000;
        while (!condition()) {
            if (m_port.microseconds() > end)
                throw micro850::UserError("nothing happened for a minute");
            m_loop->step();
        }
    }

    void observe(micro850::host::Exchange::Direction direction, const QByteArray& frame)
    {
        const qint64 now = m_port.microseconds();
        const auto events = micro850::host::ReplyCollector().feed(frame);
        const QByteArray data = events.isEmpty() ? QByteArray() : events.last().data.bytes();
        if (frame == QByteArray("\x10\x15") && m_struck >= 0 && m_asked < 0)
            m_asked = now - m_began;
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
    micro850::host::Project m_project;
    std::unique_ptr<micro850::host::DriverLibrary> m_library;
    std::unique_ptr<micro850::host::PollLoop> m_loop;
    qint64 m_began = 0;   ///< of the transaction in flight
    qint64 m_longest = 0; ///< read transaction so far
    qint64 m_value = 0;   ///< when the last value came
    qint64 m_called = -1; ///< when the host asked for a write
    qint64 m_sent = -1;   ///< when the write went out
    int m_before = 0;     ///< requests between the two
    qint64 m_struck = -1; ///< when the fault happened
    qint64 m_asked = -1;  ///< after the request, for a reply that was lost
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
    const int fewTrials = 100;
    Plant plant(baud, number);
    json result = {{"baud", baud}, {"trials", number}};
    result["start"] = plant.start();
    result["transaction"] = plant.transactionTime();
    result["timeout"] = plant.timeout();
    result["write"] = writeTrials(plant, number, "Cyclic", kVariables);
    result["write_unknown"] = writeTrials(plant, number, "Other", number);
    result["lost_reply"] =
        trials(number, [&](int, qint64 moment) { return plant.loseReply(moment); });
    const double usual = plant.transactionTime();
    plant.loseReply(0);
    result["asked_again"] = {{"after", plant.askedAfter()},
                             {"round_trips", plant.askedAfter() / usual}};
    result["power_cycle"] =
        trials(number, [&](int, qint64 moment) { return plant.powerCycle(moment); });
    result["pulled_cable"] =
        trials(number, [&](int, qint64 moment) { return plant.pullCable(moment); });
    result["disconnected_cable"] =
        trials(number, [&](int, qint64 moment) { return plant.disconnect(moment); });
    result["following_program"] =
        trials(number, [&](int, qint64 moment) { return plant.follow(moment); });
    result["pauses"] = plant.pauses(number < fewTrials ? 6 : 60);
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
