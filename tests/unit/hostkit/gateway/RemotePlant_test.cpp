#include "RemotePlant.h"

#include "PlantTexts.h"
#include "scripted_gateway.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using namespace std::chrono_literals;

namespace {

using Object = ScriptedGateway::Json;

// A value as the gateway tells it, of an INT.
Object valueOf(const std::string& name, const std::string& bytes, Object keys = Object::object())
{
    Object value = {{"line", "press"}, {"name", name},      {"station", 1},
                    {"tag", name},     {"element", 0},      {"type", "INT"},
                    {"value", 0},      {"quality", "good"}, {"time", "2026-11-22T13:30:00.125Z"},
                    {"bytes", bytes}};
    value.update(keys);
    return value;
}

std::string eventOf(const Object& value)
{
    return Object({{"event", "values"}, {"subscription", 1}, {"values", Object::array({value})}})
               .dump() +
           '\n';
}

class RemotePlantTest : public ::testing::Test
{
protected:
    RemotePlantTest()
    {
        peer.on("list", [this](const Object& r) {
            return ScriptedGateway::reply(r, {{"variables", variables}});
        });
        peer.on("subscribe", [this](const Object& r) {
            return ScriptedGateway::reply(r, {{"subscription", 1}}) + latest;
        });
        peer.on("status", [this](const Object& r) {
            return ScriptedGateway::reply(r, {{"lines", Object::array({status})}});
        });
    }
    void start(const char* wanted)
    {
        project = Project::fromText(QStringLiteral(R"({"port": {"device": "/dev/ttyUSB9"},
            "staleAfterMs": 60000, "stations": [{"number": 1}, {"number": 2, "enabled": false}],
            "variables": [%1]})")
                                        .arg(wanted),
                                    "p.json");
        plant = std::make_unique<RemotePlant>(GatewayPlace{peer.path(), "press", "test"}, project,
                                              clock);
    }
    template<typename Condition> bool runUntil(Condition condition)
    {
        const micro850::Duration end = clock.now() + 60s;
        while (!condition() && clock.now() < end)
            plant->step();
        return condition();
    }
    std::string text(int variable) const { return plant->values().text(variable).toStdString(); }
    std::string error(int variable) const { return plant->values().error(variable).toStdString(); }
    bool runUntilText(int variable, const char* wanted)
    {
        return runUntil([&] { return text(variable) == wanted; });
    }

    micro850::SystemClock clock;
    Object variables = {{{"line", "press"}, {"name", "Speed"}, {"station", 1}, {"tag", "Speed"}},
                        {{"line", "press"},
                         {"name", "Tank"},
                         {"station", 1},
                         {"tag", "Tank"},
                         {"element", 2},
                         {"length", 3}}};
    Object status = {{"line", "press"},
                     {"port", "/dev/ttyUSB0"},
                     {"settings", "/dev/ttyUSB0, 38400 8N1"},
                     {"up", true},
                     {"stations", {{{"station", 1}, {"state", "connected"}}}}};
    std::string latest = eventOf(valueOf("Speed", "d204"));
    ScriptedGateway peer;
    Project project;
    std::unique_ptr<RemotePlant> plant;
};

} // namespace

TEST_F(RemotePlantTest, ShowsTheLatestValueAndItsChangesScaledByTheProject)
{
    start(R"({"name": "S", "tag": "Speed", "gain": 0.1, "unit": "rpm"})");
    ASSERT_TRUE(runUntilText(0, "123.4 rpm"));
    EXPECT_EQ(plant->quality(0), Quality::Good);
    peer.send(eventOf(valueOf("Speed", "0a00")));
    EXPECT_TRUE(runUntilText(0, "1 rpm"));
    EXPECT_EQ(peer.requests("subscribe").front()["names"], Object::array({"Speed"}));
}

TEST_F(RemotePlantTest, ShowsTheStateOfLineAndStations)
{
    start(R"({"tag": "Speed"})");
    EXPECT_EQ(lineStateText(plant->line()).toStdString(), "line /dev/ttyUSB0, 38400 8N1");
    ASSERT_EQ(plant->stationViews().size(), 1);
    EXPECT_EQ(conditionText(plant->stationViews().first()).toStdString(), "connected");
}

TEST_F(RemotePlantTest, TakesPartsOfVariablesFromTheGatewaysOwn)
{
    latest = eventOf(valueOf("Tank", "010002000300", {{"element", 2}}));
    start(R"({"name": "T3", "tag": "Tank", "element": 3, "length": 2})");
    EXPECT_TRUE(runUntilText(0, "[2, 3]"));
    EXPECT_TRUE(peer.requests("read").empty());
}

TEST_F(RemotePlantTest, ReadsThroughTheGatewayWhatIsNoneOfItsVariables)
{
    int reads = 0;
    peer.on("read", [&reads](const Object& r) {
        return ScriptedGateway::reply(
            r, {{"type", "INT"}, {"elements", {++reads == 1 ? "0100" : "0200"}}});
    });
    start(R"({"tag": "Speed"}, {"name": "T", "tag": "Tank", "element": 1, "intervalMs": 10})");
    EXPECT_TRUE(runUntilText(1, "1"));
    EXPECT_TRUE(runUntilText(1, "2"));
    EXPECT_EQ(plant->quality(1), Quality::Good);
    peer.on("read", [](const Object& r) {
        return ScriptedGateway::error(r, "unreachable", "Tank[1]: no answer");
    });
    EXPECT_TRUE(runUntil([&] { return error(1) == "Tank[1]: no answer"; }));
    EXPECT_EQ(plant->quality(1), Quality::Stale);
    EXPECT_EQ(plant->quality(0), Quality::Good);
}

TEST_F(RemotePlantTest, ShowsWhyTheGatewayHasNoFreshValue)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilText(0, "1234"));
    peer.send(eventOf(
        valueOf("Speed", "d204", {{"quality", "stale"}, {"error", "the worker has ended"}})));
    EXPECT_TRUE(runUntil([&] { return error(0) == "the worker has ended"; }));
    EXPECT_EQ(plant->quality(0), Quality::Stale);
    peer.send(eventOf(valueOf("Speed", "d204")));
    EXPECT_TRUE(runUntil([&] { return error(0).empty(); }));
    EXPECT_EQ(plant->quality(0), Quality::Good);
}

TEST_F(RemotePlantTest, RefusesTypesThatAreNotTheProjects)
{
    start(R"({"tag": "Speed", "type": "DINT"})");
    EXPECT_TRUE(runUntil([&] { return !error(0).empty(); }));
    EXPECT_EQ(error(0), "is INT in the controller, DINT in the project");
    EXPECT_EQ(plant->quality(0), Quality::Never);
}

TEST_F(RemotePlantTest, TakesTheAgeOfAValueFromTheGateway)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilText(0, "1234"));
    peer.send(R"({"event": "ages", "ages": [{"line": "press", "name": "Speed", "ageMs": 30000},
                 {"line": "press", "name": "Other", "ageMs": null}]})"
              "\n");
    // That has a line feed inside, which no gateway sends: it is lost, and comes back.
    EXPECT_TRUE(runUntil([&] { return !error(0).empty(); }));
    EXPECT_TRUE(runUntil([&] { return error(0).empty() && text(0) == "1234"; }));
    peer.send("{\"event\": \"ages\", \"ages\": [{\"name\": \"Speed\", \"ageMs\": 30000}]}\n");
    EXPECT_TRUE(runUntil([&] {
        const auto age = clock.now() - *plant->values().refreshedAt(0);
        return age >= 30s && age < 50s;
    }));
    EXPECT_EQ(plant->quality(0), Quality::Good);
    peer.send("{\"event\": \"ages\", \"ages\": [{\"name\": \"Speed\", \"ageMs\": 70000}]}\n");
    EXPECT_TRUE(runUntil([&] { return plant->quality(0) == Quality::Stale; }));
}

TEST_F(RemotePlantTest, KeepsTheAgeOfAValueThatBecomesStale)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilText(0, "1234"));
    peer.send("{\"event\": \"ages\", \"ages\": [{\"name\": \"Speed\", \"ageMs\": 30000}]}\n");
    ASSERT_TRUE(runUntil([&] { return clock.now() - *plant->values().refreshedAt(0) >= 30s; }));
    peer.send(
        eventOf(valueOf("Speed", "d204", {{"quality", "stale"}, {"error", "the device is gone"}})));
    ASSERT_TRUE(runUntil([&] { return plant->quality(0) == Quality::Stale; }));
    EXPECT_GE(clock.now() - *plant->values().refreshedAt(0), 30s);
    EXPECT_EQ(error(0), "the device is gone");
}

TEST_F(RemotePlantTest, MakesValuesStaleWhileTheGatewayIsAwayAndGoodWhenItIsBack)
{
    start(R"({"tag": "Speed"}, {"name": "Off", "tag": "Speed", "station": 2})");
    ASSERT_TRUE(runUntilText(0, "1234"));
    peer.hangUp();
    ASSERT_TRUE(runUntil([&] { return plant->quality(0) == Quality::Stale; }));
    EXPECT_NE(error(0).find("closed the connection"), std::string::npos);
    EXPECT_EQ(error(1), "station 2 is disabled in the project");
    EXPECT_FALSE(plant->line().isUp);
    EXPECT_EQ(plant->stationViews().first().state.toStdString(), "line down");
    latest = eventOf(valueOf("Speed", "0500"));
    EXPECT_TRUE(runUntil([&] { return plant->quality(0) == Quality::Good; }));
    EXPECT_EQ(text(0), "5");
    EXPECT_TRUE(plant->line().isUp);
    EXPECT_EQ(error(1), "station 2 is disabled in the project");
}

TEST_F(RemotePlantTest, TakesTheVariablesOfANewConfiguration)
{
    peer.on("read", [](const Object& r) {
        return ScriptedGateway::error(r, "refused", "Late: no such tag", {{"why", "no such tag"}});
    });
    start(R"({"name": "Late", "tag": "Late"})");
    ASSERT_TRUE(runUntil([&] { return error(0) == "no such tag"; }));
    variables.push_back({{"line", "press"}, {"name", "Late"}, {"station", 1}, {"tag", "Late"}});
    latest = eventOf(valueOf("Late", "0900"));
    peer.send("{\"event\": \"reloaded\"}\n");
    EXPECT_TRUE(runUntilText(0, "9"));
    EXPECT_EQ(error(0), "");
}

TEST_F(RemotePlantTest, LosesAGatewayWhoseValuesAreNone)
{
    start(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilText(0, "1234"));
    for (const Object& wrong :
         {valueOf("Speed", "xy"), valueOf("Speed", "00", {{"quality", "fine"}}),
          valueOf("Speed", "0000", {{"type", "INTT"}}), Object(5)})
    {
        peer.send(eventOf(wrong));
        EXPECT_TRUE(runUntil([&] { return !error(0).empty(); })) << wrong;
        EXPECT_TRUE(runUntil([&] { return error(0).empty(); })) << wrong;
    }
    // Of another size than the variable's: not shown.
    peer.send(eventOf(valueOf("Speed", "000000")) + eventOf(valueOf("Stranger", "0100")) +
              eventOf(valueOf("Speed", "0300")));
    EXPECT_TRUE(runUntilText(0, "3"));
}

TEST_F(RemotePlantTest, RefusesALineThatTheGatewayDoesNotHave)
{
    status["line"] = "oven";
    EXPECT_THROW(start(R"({"tag": "Speed"})"), micro850::UserError);
}
