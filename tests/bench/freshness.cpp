// freshness BAUD VARIABLES TRIALS: how old what a panel shows is, while DINT variables are read in
// a cycle: the time in milliseconds from a change in the controller to the reply that gives the
// host the new value, and from SetRegisterData() to the reply that gives the written value back.
// The reference host and the driver talk to the simulated controller on virtual time, so that the
// figures do not depend on the machine. Prints JSON.

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

const qint64 kLongestMicroseconds = 600000000; ///< of anything that is waited for

QString tagName(int number)
{
    return QStringLiteral("Cyclic%1").arg(number, 4, 10, QLatin1Char('0'));
}

std::string plantText(int variables)
{
    QStringList tags;
    for (int i = 0; i < variables; ++i)
        tags += QStringLiteral(R"({"name": "%1", "type": "DINT"})").arg(tagName(i));
    return "{\"tags\": [" + tags.join(QLatin1Char(',')).toStdString() + "]}";
}

micro850::host::Project projectAt(int baud, int variables)
{
    QStringList entries;
    for (int i = 0; i < variables; ++i)
        entries += QStringLiteral(R"({"tag": "%1"})").arg(tagName(i));
    const QString text = QStringLiteral(R"({"stations": [{"number": 1}], "variables": [%1]})");
    micro850::host::Project project =
        micro850::host::Project::fromText(text.arg(entries.join(QLatin1Char(','))), "");
    project.port.baud = baud;
    return project;
}

QByteArray bytesOf(quint32 value)
{
    QByteArray bytes;
    for (int i = 0; i < 4; ++i)
        bytes.append(static_cast<char>(value >> (8 * i)));
    return bytes;
}

json summary(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const auto at = [&](double share) {
        return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1))];
    };
    return {{"median", at(0.5)}, {"99", at(0.99)}, {"worst", values.back()}};
}

/// One host with one controller, which reads everything in a cycle.
class Plant
{
public:
    enum class Cause { Controller, Host };

    Plant(int baud, int variables)
        : m_variables(variables),
          m_controller(m_clock, micro850::sim::TagTable::fromText(plantText(variables), "plant")),
          m_line(m_clock, m_controller), m_port(m_clock, m_line, baud),
          m_project(projectAt(baud, variables)), m_loop(m_library.api(), m_port, m_clock, m_project)
    {
        m_loop.exchange().setObserver([this](micro850::host::Exchange::Direction direction,
                                             const QByteArray& frame,
                                             micro850::Duration) { observe(direction, frame); });
        runUntil([&] { return m_loop.values().wasRead(m_variables - 1); });
        waitForRead(0);
        const qint64 begun = m_port.microseconds();
        waitForRead(0);
        m_cycle = m_port.microseconds() - begun;
    }

    /// Time in which each variable is read once.
    double cycle() const { return static_cast<double>(m_cycle) / 1000; }

    /// Values that change at random moments; `atOnce` of them within one cycle.
    json trials(Cause cause, int number, int atOnce)
    {
        m_took.clear();
        while (m_took.size() < static_cast<std::size_t>(number)) {
            for (int i = 0; i < atOnce; ++i)
                plan(cause, variableFor(i, atOnce));
            const std::size_t all = m_took.size() + static_cast<std::size_t>(atOnce);
            runUntil([&] { return m_took.size() == all; });
        }
        return summary(m_took);
    }

private:
    struct Change
    {
        QByteArray value;
        qint64 at;
    };

    template<typename Condition> void runUntil(Condition condition)
    {
        const qint64 end = m_port.microseconds() + kLongestMicroseconds;
        while (!condition()) {
            if (m_port.microseconds() > end)
                throw micro850::UserError("a value did not arrive in ten minutes");
            m_loop.step();
        }
    }

    void waitForRead(int variable)
    {
        m_lastRead.clear();
        runUntil([&] { return m_lastRead == tagName(variable); });
    }

    // Another one for each change of a round.
    int variableFor(int change, int atOnce)
    {
        const int share = m_variables / atOnce;
        return change * share + static_cast<int>(m_dice.below(static_cast<std::uint64_t>(share)));
    }

    void plan(Cause cause, int variable)
    {
        const auto moment = static_cast<qint64>(m_dice.below(static_cast<std::uint64_t>(m_cycle)));
        const QByteArray value = bytesOf(++m_lastValue);
        m_port.plan(moment, [this, cause, variable, value] {
            const QString tag = tagName(variable);
            Change& change = m_pending[tag];
            change.value = value;
            change.at = m_port.microseconds();
            if (cause == Cause::Controller)
                m_controller.tags().find(tag.toStdString())->elements[0] = toBytes(value);
            else
                m_library.api().setRegisterData(tag, 0, QStringLiteral("0"), 1, value, 2, 0, 0);
        });
    }

    void observe(micro850::host::Exchange::Direction direction, const QByteArray& frame)
    {
        const auto events = micro850::host::ReplyCollector().feed(frame);
        const QByteArray data = events.isEmpty() ? QByteArray() : events.last().data.bytes();
        if (data.isEmpty()) // a link control
            return;
        if (direction == micro850::host::Exchange::Direction::Out) {
            m_asked = micro850::host::decodeRequest(data).tag();
            return;
        }
        const micro850::host::Reply reply = micro850::host::decodeReply(data);
        if (reply.service != micro850::host::kReadTagFragmented || !reply.good())
            return;
        m_lastRead = m_asked;
        const auto change = m_pending.find(m_asked);
        if (change == m_pending.end() || reply.values().bytes() != change->value)
            return;
        m_took.push_back(static_cast<double>(m_port.microseconds() - change->at) / 1000);
        m_pending.erase(change);
    }

    int m_variables;
    micro850::VirtualClock m_clock;
    micro850::sim::Controller m_controller;
    micro850::sim::FaultyLine m_line;
    PacedSimulatedLine m_port;
    micro850::host::DriverLibrary m_library{QStringLiteral(MICRO850_LIBRARY)};
    micro850::host::Project m_project;
    micro850::host::PollLoop m_loop;
    micro850::sim::Dice m_dice{1};
    QString m_asked;    ///< tag of the request in flight
    QString m_lastRead; ///< tag of the last read reply
    QMap<QString, Change> m_pending;
    std::vector<double> m_took;
    qint64 m_cycle = 0;
    quint32 m_lastValue = 0x20000000;
};

json measure(int baud, int variables, int number)
{
    Plant plant(baud, variables);
    json result = {{"baud", baud}, {"variables", variables}, {"trials", number}};
    result["cycle"] = plant.cycle();
    result["change"] = plant.trials(Plant::Cause::Controller, number, std::min(variables, number));
    // Few at once: each adds a transaction to the cycle.
    result["write"] = plant.trials(Plant::Cause::Host, number, std::max(1, variables / 100));
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    const int baud = argc == 4 ? std::atoi(argv[1]) : 0;
    const int variables = argc == 4 ? std::atoi(argv[2]) : 0;
    const int number = argc == 4 ? std::atoi(argv[3]) : 0;
    if (baud < 1 || variables < 1 || number < 1) {
        std::fprintf(stderr, "usage: freshness BAUD VARIABLES TRIALS, all from 1\n");
        return 2;
    }
    const QCoreApplication app(argc, argv);
    try {
        std::printf("%s\n", measure(baud, variables, number).dump().c_str());
        return 0;
    } catch (const micro850::UserError& error) {
        std::fprintf(stderr, "freshness: %s\n", error.what());
        return 1;
    }
}
