#ifndef MICRO850_TESTS_POLL_FIXTURE_H
#define MICRO850_TESTS_POLL_FIXTURE_H

#include "PollLoop.h"

#include "fake_controller.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <memory>

/// A poll loop with the real driver, freshly loaded, and a FakeController, on virtual time.
class PollTest : public ::testing::Test
{
protected:
    PollTest()
    {
        plc.tags["Speed"] = {0x00C3, {wire::hex("D2 04")}};
        plc.tags["Level"] = {0x00C3, QVector<QByteArray>(10)};
        for (int i = 0; i < 10; ++i)
            plc.tags["Level"].elements[i] = wire::little(static_cast<quint64>(100 + i), 2);
    }

    /// Starts to poll variables: the inside of the project file's list.
    void start(const char* variables, const char* stations = R"([{"number": 1}])")
    {
        const QString text = QStringLiteral(
            R"({"port": {"timeoutMs": 200, "retryLimit": 2}, "staleAfterMs": 2000,
                "stations": %1, "variables": [%2]})");
        project = micro850::host::Project::fromText(text.arg(stations, variables), "p.json");
        loop = std::make_unique<micro850::host::PollLoop>(library.api(), line, clock, project);
    }

    /// Steps until the condition holds. False after `limitMs` of virtual time, or after more steps
    /// than any fault needs.
    template<typename Condition> bool runUntil(Condition condition, qint64 limitMs = 60000)
    {
        const micro850::Duration end = clock.now() + std::chrono::milliseconds(limitMs);
        for (int steps = 0; !condition(); ++steps) {
            if (clock.now() > end || steps > 100000)
                return false;
            loop->step();
        }
        return true;
    }
    void runFor(qint64 ms)
    {
        const micro850::Duration end = clock.now() + std::chrono::milliseconds(ms);
        runUntil([&] { return clock.now() >= end; }, ms + 10000);
    }
    bool runUntilRead()
    {
        return runUntil([&] {
            for (int i = 0; i < loop->values().size(); ++i) {
                if (!loop->values().wasRead(i))
                    return false;
            }
            return true;
        });
    }
    micro850::host::Operation finish(int id)
    {
        EXPECT_TRUE(runUntil([&] { return loop->outcome(id); }));
        return loop->outcome(id) ? *loop->outcome(id) : micro850::host::Operation();
    }
    std::string text(int variable) const { return loop->values().text(variable).toStdString(); }
    std::string error(int variable) const { return loop->values().error(variable).toStdString(); }
    micro850::host::Station station(int number = 1) const { return loop->stations().value(number); }

    micro850::VirtualClock clock;
    FakeLine line{clock};
    FakeController plc{line};
    micro850::host::DriverLibrary library{QStringLiteral(MICRO850_LIBRARY)};
    micro850::host::Project project;
    std::unique_ptr<micro850::host::PollLoop> loop;
};

#endif
