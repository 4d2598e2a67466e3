#include "Project.h"

#include "UserError.h"

#include <gtest/gtest.h>

#include <QtCore/QSet>
#include <QtCore/QTemporaryDir>
#include <algorithm>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>

using namespace micro850::host;

namespace {

std::string complaint(const std::string& text)
{
    try {
        Project::fromText(QString::fromStdString(text), QStringLiteral("p.json"));
    } catch (const micro850::UserError& error) {
        EXPECT_EQ(error.status(), micro850::kExitUsage);
        return error.what();
    }
    return "none";
}

std::string withVariable(const std::string& variable)
{
    return R"({"variables": [{"tag": "First"}, )" + variable + "]}";
}

} // namespace

TEST(Project, ShowsADeviceWithAPercentSignAndADigitUnchanged)
{
    PortSettings port;
    port.device = "/dev/line%2";
    port.baud = 38400;
    EXPECT_EQ(port.text(), QString("/dev/line%2, 38400 8N1"));
}

TEST(Project, ReadsEveryKeyOfTheFile)
{
    const Project project = Project::fromText(R"({
        "port": {"device": "/dev/ttyS1", "baud": 9600, "parity": "even", "stopBits": 2,
                 "deviceBudgetMs": 300, "timeoutMs": 900, "retryLimit": 5},
        "staleAfterMs": 1500,
        "stations": [{"number": 3, "name": "filler"}, {"number": 4, "enabled": false}],
        "variables": [{"name": "Fill level", "tag": "Level", "station": 4, "type": "REAL",
                       "element": 2, "length": 5, "area": 7, "poll": "once"}]})",
                                              "p.json");
    EXPECT_EQ(project.port.text(), QString("/dev/ttyS1, 9600 8E2"));
    EXPECT_EQ(project.port.deviceBudgetMs, 300);
    EXPECT_EQ(project.port.timeoutMs, 900);
    EXPECT_EQ(project.port.retryLimit, 5);
    EXPECT_EQ(project.staleAfterMs, 1500);
    ASSERT_EQ(project.stations.size(), 2);
    EXPECT_EQ(project.stations.at(0).name, QString("filler"));
    EXPECT_FALSE(project.stations.at(1).enabled);
    ASSERT_EQ(project.variables.size(), 1);
    const Variable& variable = project.variables.first();
    EXPECT_EQ(variable.name, QString("Fill level"));
    EXPECT_EQ(variable.tag, QString("Level"));
    EXPECT_EQ(variable.station, 4);
    EXPECT_STREQ(variable.type->name, "REAL");
    EXPECT_EQ(variable.element, 2);
    EXPECT_EQ(variable.length, 5);
    EXPECT_EQ(variable.area, 7);
    EXPECT_EQ(variable.poll, PollMode::Once);
}

TEST(Project, ReadsTheScalingOfANumber)
{
    const Project project = Project::fromText(
        R"({"variables": [{"tag": "T", "type": "INT", "gain": 0.1, "offset": -40, "unit": "C"},
                          {"tag": "U"}]})",
        "p.json");
    EXPECT_EQ(project.variables.at(0).gain, 0.1);
    EXPECT_EQ(project.variables.at(0).offset, -40);
    EXPECT_EQ(project.variables.at(0).unit, QString("C"));
    EXPECT_TRUE(project.variables.at(0).isScaled());
    EXPECT_FALSE(project.variables.at(1).isScaled());
}

TEST(Project, ReadsTheRatesOfAVariable)
{
    const Project project = Project::fromText(
        R"({"variables": [{"tag": "T", "intervalMs": 250, "deadband": 0.5, "heartbeatMs": 60000},
                          {"tag": "U", "intervalMs": 0, "minimum": -20, "maximum": 180,
                           "deadband": "2.5%"},
                          {"tag": "V"}]})",
        "p.json");
    EXPECT_EQ(project.variables.at(0).intervalMs, 250);
    EXPECT_EQ(project.variables.at(0).deadband, 0.5);
    EXPECT_EQ(project.variables.at(0).heartbeatMs, 60000);
    EXPECT_EQ(project.variables.at(1).intervalMs, 0);
    EXPECT_EQ(project.variables.at(1).deadband, 5); // of 200
    EXPECT_EQ(project.variables.at(2).intervalMs, std::nullopt);
    EXPECT_EQ(project.variables.at(2).deadband, 0);
    EXPECT_EQ(project.variables.at(2).heartbeatMs, 0);
}

TEST(Project, ReadsTheRulesOfWritesAndKeepsLimitsOf64BitsExact)
{
    const Project project = Project::fromText(
        R"({"variables": [{"tag": "T", "type": "ULINT", "writable": true,
                           "minimum": 9007199254740993, "maximum": 18446744073709551615,
                           "writesPerMinute": 6},
                          {"tag": "U", "minimum": 1.5}]})",
        "p.json");
    const Variable& variable = project.variables.at(0);
    EXPECT_TRUE(variable.writable);
    EXPECT_EQ(variable.minimum->signedNumber(), 9007199254740993);
    EXPECT_EQ(variable.maximum->unsignedNumber(), 18446744073709551615U);
    EXPECT_EQ(variable.writesPerMinute, 6);
    EXPECT_FALSE(project.variables.at(1).writable);
    EXPECT_EQ(project.variables.at(1).minimum->number(), 1.5);
    EXPECT_FALSE(project.variables.at(1).maximum);
    EXPECT_EQ(project.variables.at(1).writesPerMinute, std::nullopt);
}

TEST(Project, RefusesLimitsAndDeadBandsThatMeanNothing)
{
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "deadband": "2%"})")),
              "p.json: variables[1].deadband: a percentage is one of the span (add minimum and "
              "maximum, or give a number)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "deadband": "2%", "maximum": 7})")),
              "p.json: variables[1].deadband: a percentage is one of the span (add minimum and "
              "maximum, or give a number)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "deadband": "much"})")),
              "p.json: variables[1].deadband: \"much\" is not a dead band (a number such as 0.5, "
              "or \"2%\" of the span from minimum to maximum)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "deadband": -1})")),
              "p.json: variables[1].deadband: -1 is below 0 (0 tells every change)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "minimum": 9007199254740993,
                                         "maximum": 9007199254740992})")),
              "p.json: variables[1].minimum: 9007199254740993 is above maximum, 9007199254740992 "
              "(swap them)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "minimum": 7, "maximum": 7})")), "none");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "minimum": -1.7e308, "maximum": 1.7e308,
                                         "deadband": "50%"})")),
              "p.json: variables[1].deadband: the span from minimum to maximum is too large (give "
              "a number)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "type": "STRING", "deadband": 1})")),
              "p.json: variables[1].deadband: deadband is for numbers, not for STRING (leave it "
              "out)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "type": "DATE", "minimum": 1})")),
              "p.json: variables[1].minimum: minimum is for numbers, not for DATE (leave it out)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "type": "BOOL", "maximum": 1})")),
              "p.json: variables[1].maximum: maximum is for numbers, not for BOOL (leave it out)");
}

TEST(Project, RefusesALimitThatNoValueOfTheTypeReaches)
{
    const auto of = [](const char* keys) {
        return complaint(withVariable(R"({"tag": "T", )" + std::string(keys) + "}"));
    };
    EXPECT_EQ(of(R"("type": "INT", "maximum": 32768)"),
              "p.json: variables[1].maximum: 32768 is beyond the range of INT (-32768 to 32767)");
    EXPECT_EQ(of(R"("type": "USINT", "minimum": -1)"),
              "p.json: variables[1].minimum: -1 is beyond the range of USINT (0 to 255)");
    EXPECT_EQ(of(R"("type": "INT", "gain": 0.1, "maximum": 3276.8)"),
              "p.json: variables[1].maximum: 3276.8 is beyond the range of INT as it is shown "
              "(-3276.8 to 3276.7000000000003)");
    EXPECT_NE(of(R"("type": "REAL", "maximum": 1e39)"), "none");
    for (const char* reachable :
         {R"("type": "INT", "minimum": -32768, "maximum": 32767)",
          R"("type": "ULINT", "minimum": 0, "maximum": 18446744073709551615)",
          R"("type": "LINT", "minimum": -9223372036854775808, "maximum": 9223372036854775807)",
          R"("type": "INT", "gain": -0.1, "offset": 5, "minimum": -3271.7, "maximum": 3281.8)",
          R"("type": "REAL", "maximum": 3.4e38)", R"("maximum": 1e300)"})
        EXPECT_EQ(of(reachable), "none") << reachable;
}

TEST(Project, SaysThatAFileIsAConfigurationOfTheGateway)
{
    EXPECT_EQ(complaint(R"({"lines": [{"name": "a", "project": "a.json"}]})"),
              "p.json: is a configuration of micro850-gateway, not a project (check it with "
              "micro850-gateway --check, or name one of its projects)");
}

TEST(Project, RefusesRatesThatCannotBeKept)
{
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "poll": "once", "intervalMs": 100})")),
              "p.json: variables[1].intervalMs: a variable that is read once has no interval "
              "(leave it out, or leave \"poll\" out)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "intervalMs": -1})")),
              "p.json: variables[1].intervalMs: -1 is not allowed (0 to 86400000)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "heartbeatMs": 99})")),
              "p.json: variables[1].heartbeatMs: 99 is not allowed (100 to 86400000)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "writesPerMinute": 0})")),
              "p.json: variables[1].writesPerMinute: 0 is not allowed (1 to 60000)");
}

TEST(Project, GivesAnIntervalToTheVariablesThatNameNone)
{
    Project project = Project::fromText(
        R"({"variables": [{"tag": "T", "intervalMs": 250}, {"tag": "U"}]})", "p.json");
    project.setInterval(700);
    EXPECT_EQ(project.variables.at(0).intervalMs, 250);
    EXPECT_EQ(project.variables.at(1).intervalMs, 700);
    project.readAllFast();
    EXPECT_EQ(project.variables.at(0).intervalMs, 0);
    EXPECT_EQ(project.variables.at(1).intervalMs, 0);
}

TEST(Project, ShowsDeadBandsAndLimitsAsRawNumbersToo)
{
    Project project = Project::fromText(
        R"({"variables": [{"tag": "T", "gain": -0.5, "offset": 10, "minimum": 0, "maximum": 20,
                           "deadband": "10%"},
                          {"tag": "U", "minimum": 9007199254740993}]})",
        "p.json");
    project.showRaw();
    project.showRaw(); // the second time changes nothing
    EXPECT_EQ(project.variables.at(0).deadband, 4);
    EXPECT_EQ(project.variables.at(0).minimum->number(), -20);
    EXPECT_EQ(project.variables.at(0).maximum->number(), 20);
    EXPECT_EQ(project.variables.at(1).minimum->signedNumber(), 9007199254740993);
}

TEST(Project, RefusesAGainOfZero)
{
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "gain": 0})")),
              "p.json: variables[1].gain: 0 would show every value as the offset (leave it out for "
              "1)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "T", "type": "WORD", "gain": 2})")),
              "p.json: variables[1]: gain and offset are for numbers, not for WORD");
}

TEST(Project, RefusesATextThatWouldNotBeShownAsItIs)
{
    const std::string end = " has no control or format characters, such as a line feed";
    EXPECT_EQ(complaint(withVariable(R"({"tag": "Speed", "name": "two\nlines"})")),
              "p.json: variables[1].name: a name" + end);
    EXPECT_EQ(complaint(withVariable(R"({"tag": "Speed", "name": "a\u202eb"})")),
              "p.json: variables[1].name: a name" + end);
    EXPECT_EQ(complaint(withVariable(R"({"tag": "Speed", "unit": "\u009b2J"})")),
              "p.json: variables[1].unit: a unit" + end);
    EXPECT_EQ(complaint(R"({"stations": [{"number": 1, "name": "\u001b]0;x\u0007"}],
                            "variables": [{"tag": "A"}]})"),
              "p.json: stations[0].name: a name" + end);
    EXPECT_EQ(complaint(R"({"port": {"device": "/dev/a\nb"}, "variables": [{"tag": "A"}]})"),
              "p.json: port.device: a device" + end);
}

TEST(Project, HasTheAddressOfADeviceServerInsteadOfADevice)
{
    const Project project = Project::fromText(
        R"({"port": {"device": "tcp://[::1]:2000", "baud": 9600}, "variables": [{"tag": "A"}]})",
        "p.json");
    EXPECT_EQ(project.port.device, QString("tcp://[::1]:2000"));
    EXPECT_EQ(project.port.text(), QString("tcp://[::1]:2000"));
    EXPECT_EQ(complaint(R"({"port": {"device": "tcp://plc"}, "variables": [{"tag": "A"}]})"),
              "p.json: port.device: \"tcp://plc\" names no port (write it behind the host, as in "
              "tcp://HOST:2000)");
}

TEST(Project, TakesAnyPrintableNameAndUnit)
{
    EXPECT_EQ(complaint(withVariable(R"({"tag": "Speed", "name": ""})")),
              "p.json: variables[1].name: a name has at least one character");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "Speed", "name": "Füllstand = [1] \"温度\"",
                                         "unit": "m³/h"})")),
              "none");
}

TEST(Project, RefusesMoreElementsThanFitIntoTheMemory)
{
    const auto project = [](int last) {
        std::string all;
        for (int i = 0; i < 61; ++i)
            all += R"({"tag": "A", "length": 65536, "name": ")" + std::to_string(i) + "\"},";
        return R"({"variables": [)" + all + R"({"tag": "A", "length": )" + std::to_string(last) +
               "}]}";
    };
    EXPECT_EQ(complaint(project(4000000 - 61 * 65536)), "none");
    EXPECT_EQ(complaint(project(4000001 - 61 * 65536)),
              "p.json: variables[61]: the variables have more than 4000000 elements together "
              "(leave some out)");
}

// A search through all variables for each of them would take minutes here.
TEST(Project, ReadsManyVariablesAndStationsInAboutTheTimeOfTheirNumber)
{
    const auto project = [](int variables, int stations) {
        std::string text = R"({"stations": [{"number": 0})";
        for (int i = 1; i < stations; ++i)
            text += R"(, {"number": )" + std::to_string(i) + '}';
        text += R"(], "variables": [{"tag": "First"})";
        for (int i = 1; i < variables; ++i)
            text += R"(, {"tag": "T)" + std::to_string(i) + R"(", "station": )" +
                    std::to_string(stations - 1) + '}';
        return QString::fromStdString(text + "]}");
    };
    const auto seconds = [&](int variables, int stations) {
        const QString text = project(variables, stations);
        const std::clock_t begin = std::clock();
        EXPECT_EQ(Project::fromText(text, "p.json").variables.size(), variables);
        return static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
    };
    const double few = std::min(seconds(2000, 1000), seconds(2000, 1000));
    EXPECT_LT(seconds(64000, 32000), 32 * 4 * few); // their square would be 1024 times as much
}

TEST(Project, UsesDefaultsForMissingKeys)
{
    const Project project = Project::fromText(R"({"variables": [{"tag": "Speed"}]})", "p.json");
    EXPECT_EQ(project.port.baud, 38400);
    EXPECT_EQ(project.stations.first().number, 1);
    const Variable& variable = project.variables.first();
    EXPECT_EQ(variable.name, QString("Speed"));
    EXPECT_EQ(variable.station, 1);
    EXPECT_EQ(variable.type, nullptr);
    EXPECT_EQ(variable.length, 1);
    EXPECT_EQ(variable.poll, PollMode::Cyclic);
}

TEST(Project, ComputesTheTimeOfBytesFromTheLine)
{
    PortSettings port;
    port.baud = 9600;
    EXPECT_EQ(port.timeOf(96), std::chrono::milliseconds(100)); // 10 bits a byte
    port.parity = Parity::Odd;
    EXPECT_EQ(port.timeOf(96), std::chrono::milliseconds(110));
    EXPECT_EQ(port.timeOf(1), std::chrono::milliseconds(2)); // rounded up
}

TEST(Project, ReportsTheKeyPathOfAMistakeAndTheRemedy)
{
    EXPECT_EQ(complaint(withVariable(R"({"tag": "A", "type": "INTT"})")),
              "p.json: variables[1].type: \"INTT\" is not a CIP type (did you mean INT?)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "A", "lenght": 3})")),
              "p.json: variables[1]: unknown key \"lenght\" (did you mean length?)");
    EXPECT_EQ(complaint(withVariable(R"({"name": "A"})")),
              "p.json: variables[1]: the key \"tag\" is missing");
    EXPECT_EQ(
        complaint(withVariable(R"({"tag": "First"})")),
        "p.json: variables[1].tag: the name \"First\" is given to two variables (rename one)");
    EXPECT_EQ(
        complaint(withVariable(R"({"tag": "B", "name": "First"})")),
        "p.json: variables[1].name: the name \"First\" is given to two variables (rename one)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "A", "station": 2})")),
              "p.json: variables[1].station: station 2 is not among the stations (add it to "
              "\"stations\")");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "A", "poll": "often"})")),
              "p.json: variables[1].poll: \"often\" is not a way to poll (cyclic or once)");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "A", "length": 0})")),
              "p.json: variables[1].length: 0 is not allowed (1 to 65536)");
    EXPECT_EQ(complaint(R"({"port": {"parity": "mark"}, "variables": [{"tag": "A"}]})"),
              "p.json: port.parity: \"mark\" is not a parity (none, even or odd)");
    EXPECT_EQ(complaint(R"({"port": {"baud": 12}, "variables": [{"tag": "A"}]})"),
              "p.json: port.baud: 12 is not allowed (300 to 4000000)");
    EXPECT_EQ(complaint(R"({"stations": [{"number": 1}, {"number": 1}], "variables": []})"),
              "p.json: stations[1].number: station 1 is listed twice (remove one)");
    EXPECT_EQ(complaint(R"({"stations": [], "variables": []})"),
              "p.json: stations: lists no station (leave it out for station 1)");
    EXPECT_EQ(complaint(R"({"variables": []})"),
              "p.json: variables: lists no variable (add one, for example {\"tag\": \"Speed\"})");
}

TEST(Project, RefusesATagThatNoControllerHas)
{
    EXPECT_NE(complaint(withVariable(R"({"tag": "two words"})")).find("is not a tag"),
              std::string::npos);
    EXPECT_NE(complaint(withVariable(R"({"tag": "Level[3]"})")).find("\"element\""),
              std::string::npos);
    EXPECT_EQ(complaint(withVariable("{\"tag\": \"" + std::string(256, 'a') + "\"}")),
              "p.json: variables[1].tag: a tag has 1 to 255 characters");
    EXPECT_EQ(complaint(withVariable("{\"tag\": \"" + std::string(255, 'a') + "\"}")), "none");
}

TEST(Project, RefusesElementsThatCannotBeReached)
{
    EXPECT_EQ(complaint(withVariable(R"({"tag": "A", "element": 65535, "length": 1})")), "none");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "A", "element": 65535, "length": 2})")),
              "p.json: variables[1]: element and length reach beyond element 65535");
    EXPECT_EQ(complaint(withVariable(R"({"tag": "A", "type": "SHORT_STRING", "element": 1})")),
              "p.json: variables[1]: of a string only element 0 and length 1 can be read");
}

TEST(Project, ReportsAFileThatCannotBeRead)
{
    try {
        Project::fromFile("/nowhere/p.json");
        FAIL() << "no error";
    } catch (const micro850::UserError& error) {
        EXPECT_NE(std::string(error.what()).find("/nowhere/p.json"), std::string::npos);
    }
}

namespace {

/// "LINE POINTER: PROBLEM" of each mistake of a file.
QStringList mistakesOf(const std::string& text)
{
    const QTemporaryDir folder;
    const QString path = folder.filePath("p.json");
    std::ofstream(path.toStdString()) << text;
    QStringList found;
    for (const ProjectMistake& mistake : Project::mistakesIn(path))
        found += QStringLiteral("%1 %2: %3")
                     .arg(QString::number(mistake.line), mistake.pointer.c_str(),
                          QString::fromStdString(mistake.problem).section(QStringLiteral(": "), 1));
    return found;
}

} // namespace

TEST(ProjectMistakes, AreNoneInAValidFile)
{
    EXPECT_EQ(mistakesOf(withVariable(R"({"tag": "A", "comment": "of the press"})")),
              QStringList());
}

TEST(ProjectMistakes, LeaveOutWhatOnlyFollowsFromOthers)
{
    // The limits would be beyond the range of UINT, were the gain not given.
    EXPECT_EQ(mistakesOf(
                  withVariable(R"({"tag": "A", "type": "UINT", "gain": "10", "maximum": 655350})")),
              QStringList("1 /variables/1/gain: \"10\" is not a number"));
    // 2 % would be of no span.
    EXPECT_EQ(
        mistakesOf(withVariable(R"({"tag": "A", "minimum": "0", "maximum": 5, "deadband": "2%"})")),
        QStringList("1 /variables/1/minimum: \"0\" is not a number"));
    // Variables would name stations that are not listed.
    EXPECT_EQ(mistakesOf(R"({"stations": [{"number": "2"}],
                             "variables": [{"tag": "A", "station": 2}]})"),
              QStringList("1 /stations/0/number: \"2\" is not a whole number (0 to 65535)"));
    EXPECT_EQ(mistakesOf(withVariable(R"({"tag": 1})")),
              QStringList("1 /variables/1/tag: 1 is not a text in quotes"));
}

TEST(ProjectMistakes, AreAllThatOneVariableHas)
{
    EXPECT_EQ(mistakesOf(withVariable(R"({"tag": "First", "deadband": "2%", "gian": 2})")),
              (QStringList{"1 /variables/1/gian: unknown key \"gian\" (did you mean gain?)",
                           "1 /variables/1/tag: the name \"First\" is given to two variables "
                           "(rename one)",
                           "1 /variables/1/deadband: a percentage is one of the span (add minimum "
                           "and maximum, or give a number)"}));
}

TEST(ProjectMistakes, AreToldOfEveryPart)
{
    EXPECT_EQ(mistakesOf("{\"port\": {\"baud\": 1, \"parity\": \"mark\"},\n"
                         " \"staleAfterMs\": 1,\n"
                         " \"stations\": [{\"number\": 1},\n  {\"name\": 5}],\n"
                         " \"variables\": [7,\n  {\"tag\": \"A\", \"gain\": 0, \"poll\": \"no\"}]}")
                  .size(),
              8);
}

TEST(ProjectMistakes, SayTooManyElementsOnce)
{
    std::string variables;
    for (int i = 0; i < 70; ++i)
        variables += (i > 0 ? "," : "") + std::string("\n{\"tag\": \"A") + std::to_string(i) +
                     "\", \"length\": 65536}";
    const QStringList found = mistakesOf("{\"variables\": [" + variables + "]}");
    EXPECT_EQ(found, QStringList("63 /variables/61: the variables have more than 4000000 elements "
                                 "together (leave some out)"));
}

TEST(ExampleProject, ShowsEveryTagOfTheExamplePlantInFull)
{
    const std::string examples = MICRO850_SOURCE_DIR "/examples/";
    std::ifstream file(examples + "plant.tags.json");
    const nlohmann::json plant = nlohmann::json::parse(file, nullptr, true, true);
    const Project project =
        Project::fromFile(QString::fromStdString(examples + "plant.project.json"));
    EXPECT_EQ(static_cast<int>(plant["tags"].size()), project.variables.size());
    for (const auto& tag : plant["tags"]) {
        bool found = false;
        for (const Variable& variable : project.variables) {
            if (variable.tag.toStdString() != tag["name"])
                continue;
            found = true;
            EXPECT_EQ(variable.length, tag.value("length", 1)) << tag["name"];
            ASSERT_NE(variable.type, nullptr) << tag["name"];
            EXPECT_EQ(variable.type->name, tag["type"].get<std::string>()) << tag["name"];
        }
        EXPECT_TRUE(found) << tag["name"];
    }
}
