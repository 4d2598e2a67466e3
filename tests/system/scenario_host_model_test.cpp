// Runs of the model of the link that chance chose, as fault scripts, with the reference host: what
// the model proves of the host's care holds in each of them.

#include "simulated_host.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fstream>

namespace {

using Json = nlohmann::json;
using micro850::host::Operation;
using micro850::host::Quality;
using micro850::sim::Side;

const micro850::Bytes kBefore = {3, 0};
const micro850::Bytes kWritten = {7, 0};

class HostModelRun : public ::testing::TestWithParam<int>, protected SimulatedHost
{
protected:
    HostModelRun()
    {
        std::ifstream file(std::string(MODEL_RUNS) + "/sample-" + std::to_string(GetParam()) +
                           ".json");
        run = Json::parse(file);
        controller.download(micro850::sim::TagTable::fromText(
            R"({"tags": [{"name": "A", "type": "INT", "value": 111},
                {"name": "B", "type": "INT", "value": 222}, {"name": "W", "type": "INT", "value": 3}]})",
            "tags"));
        project = micro850::host::Project::fromText(
            QStringLiteral(R"({"port": {"timeoutMs": 200, "retryLimit": 1}, "staleAfterMs": 2000,
                "stations": [{"number": 1}], "variables": [{"tag": "A"}, {"tag": "B"}]})"),
            "p.json");
        loop = std::make_unique<micro850::host::PollLoop>(library.api(), port, clock, project);
        const std::string rules = Json{{"faults", run["faults"]}}.dump();
        for (const auto& fault : micro850::sim::faultsFromText(rules, "faults"))
            line.add(fault);
    }

    bool showsAForeignValue() override { return !isOwn(0, "111") || !isOwn(1, "222"); }
    bool isOwn(int variable, const char* value)
    {
        return !loop->values().wasRead(variable) ||
               loop->values().text(variable) == QLatin1String(value);
    }
    bool allAreGood()
    {
        return loop->quality(0) == Quality::Good && loop->quality(1) == Quality::Good;
    }
    const micro850::Bytes& written() { return controller.tags().find("W")->elements[0]; }
    void expectToldWhatWasDone(const Operation& write)
    {
        if (write.state == Operation::State::Done) {
            EXPECT_EQ(written(), kWritten);
        } else if (!write.unanswered) {
            EXPECT_EQ(written(), kBefore) << "reported as not executed";
        }
    }

    Json run;
};

TEST_P(HostModelRun, KeepsWhatTheModelProves)
{
    for (const Json& message : run["writesBefore"]) {
        const unsigned before = message.get<unsigned>();
        ASSERT_TRUE(runUntil([&] { return line.messages(Side::Requests) + 1 >= before; }));
        controller.tags().find("W")->elements[0] = kBefore;
        const int id = loop->write({1, "W"}, 0, QByteArray::fromHex("0700"));
        ASSERT_TRUE(runUntil([&] { return loop->outcome(id); }));
        expectToldWhatWasDone(*loop->outcome(id));
        loop->forget(id);
    }
    EXPECT_TRUE(runUntil([&] { return allAreGood(); })) << "reading resumes";
    EXPECT_EQ(foreignValues, 0);
    EXPECT_FALSE(line.counts().empty()) << "a fault has struck";
}

INSTANTIATE_TEST_SUITE_P(Samples, HostModelRun, ::testing::Range(1, 25));

} // namespace
