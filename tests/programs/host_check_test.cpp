#include "terminal_fixture.h"

namespace {

using HostCheck = TerminalTest;

std::string twoHundredVariables()
{
    std::string variables;
    for (int i = 0; i < 200; ++i) {
        const std::string n = std::to_string(i);
        variables += (i > 0 ? "," : "") + std::string(R"({"name": "v)") + n +
                     R"(", "tag": "Recipe", "element": )" + std::to_string(i % 20) + "}";
    }
    return "{\"variables\": [" + variables + "]}";
}

TEST_F(HostCheck, ChecksTheFileAloneWithoutAPort)
{
    const QString project = file("p.json", R"({"variables": [{"tag": "Speed"}, {"tag": "B"}]})");
    const Result result = host({"check", project});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, project.toStdString() + ": ok, 2 variables, 1 station\n");
    EXPECT_EQ(host({"check", project, "--json"}).out,
              R"({"file":")" + project.toStdString() +
                  R"(","ok":true,"stations":1,"variables":2})" + "\n");
}

TEST_F(HostCheck, WarnsOfSeveralStationsOnOneLine)
{
    const QString project = file("p.json", R"({"stations": [{"number": 1}, {"number": 5},
        {"number": 7}, {"number": 9, "enabled": false}], "variables": [{"tag": "Speed"}]})");
    const Result result = host({"check", project});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err,
              "micro850-host: " + project.toStdString() +
                  ": stations: warning: 1, 5 and 7 are on one line, but the number of a station is "
                  "not sent: all of them are the one controller at its other end (make a project "
                  "with its own port for each controller)\n");
    const QString one = file("one.json", R"({"stations": [{"number": 5}, {"number": 9,
        "enabled": false}], "variables": [{"tag": "Speed", "station": 5}]})");
    EXPECT_EQ(host({"check", one}).err, "");
}

TEST_F(HostCheck, ShowsAFileWithAPercentSignAndADigitUnchanged)
{
    const QString project = file("line%2.json", R"({"variables": [{"tag": "Speed"}]})");
    const Result result = host({"check", project});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, project.toStdString() + ": ok, 1 variable, 1 station\n");
}

TEST_F(HostCheck, AsksTheControllerForEachVariable)
{
    simulate();
    const QString project = file("p.json", R"({"variables": [
        {"tag": "Speed", "type": "INT"},
        {"name": "Wrong type", "tag": "Speed", "type": "DINT"},
        {"tag": "Level", "length": 10},
        {"name": "Too long", "tag": "Level", "element": 5, "length": 6},
        {"tag": "Nope"}]})");
    const Result result = hostOnPort({"check", project});
    EXPECT_EQ(result.status, 1);
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 5) << result.out;
    EXPECT_EQ(lines.at(0), QString("Speed: ok, INT"));
    EXPECT_EQ(lines.at(1), QString("Wrong type: is INT in the controller, DINT in the project"));
    EXPECT_EQ(lines.at(2), QString("Level: ok, INT"));
    EXPECT_TRUE(lines.at(3).startsWith("Too long: element 10: ")) << result.out;
    EXPECT_EQ(lines.at(4),
              QString("Nope: no such tag (names are as in the controller's program; status 05)"));
    EXPECT_EQ(result.err, "micro850-host: " + project.toStdString() +
                              ": 5 variables checked, 3 with a problem\n");
    EXPECT_EQ(hostOnPort({"check", project, "--offline", "--quiet"}).status, 0);
}

TEST_F(HostCheck, FindsWhatTheProjectCannotKnow)
{
    simulate();
    const QString project = file("p.json", R"({
        "stations": [{"number": 1}, {"number": 2, "enabled": false}], "variables": [
        {"name": "Scaled text", "tag": "Name", "gain": 2},
        {"name": "Scaled switch", "tag": "Running", "offset": 1},
        {"name": "Second text", "tag": "Name", "element": 1},
        {"name": "Scaled = number", "tag": "Speed", "gain": 2},
        {"name": "Far too long", "tag": "Level", "element": 2, "length": 5000},
        {"name": "Elsewhere", "tag": "Speed", "station": 2}]})");
    const Result result = hostOnPort({"check", project});
    EXPECT_EQ(result.status, 1);
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 6) << result.out;
    EXPECT_EQ(lines.at(0), QString("Scaled text: is SHORT_STRING in the controller, and gain and "
                                   "offset are for numbers"));
    EXPECT_EQ(lines.at(1),
              QString("Scaled switch: is BOOL in the controller, and gain and offset are for "
                      "numbers"));
    EXPECT_EQ(lines.at(2),
              QString("Second text: of a string only element 0 and length 1 can be read"));
    EXPECT_EQ(lines.at(3), QString("\"Scaled = number\": ok, INT"));
    EXPECT_TRUE(lines.at(4).startsWith("Far too long: element 10: ")) << result.out;
    EXPECT_EQ(lines.at(5), QString("Elsewhere: not checked: station 2 is disabled in the project"));
    EXPECT_EQ(result.err, "micro850-host: " + project.toStdString() +
                              ": 5 variables checked, 4 with a problem, 1 not checked\n");
    const Result json = hostOnPort({"check", project, "--json", "--quiet"});
    EXPECT_NE(json.out.find(R"("type":null,"ok":null,"problem":"not checked: station 2 is )"
                            R"(disabled in the project"})"),
              std::string::npos)
        << json.out;
}

TEST_F(HostCheck, HasAnObjectForEachVariableWhenNobodyAnswers)
{
    const SilentPort nobody;
    const QString project =
        file("p.json", R"({"variables": [{"tag": "Speed"}, {"tag": "Level"}]})");
    const Result result =
        host({"check", project, "--json", "--timeout", "20", "--port", nobody.path()});
    EXPECT_EQ(result.status, 1);
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 2) << result.out;
    for (const QString& line : lines) {
        EXPECT_TRUE(line.contains(R"("ok":null,"problem":"not checked: Speed: no answer)"))
            << result.out;
    }
}

TEST_F(HostCheck, FindsNoProblemInTheExamplePlant)
{
    simulatePlant();
    const Result result =
        hostOnPort({"check", MICRO850_SOURCE_DIR "/examples/plant.project.json", "--json"});
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(linesOf(result.out).size(), 29);
    EXPECT_EQ(result.out.find(R"("ok":false)"), std::string::npos) << result.out;
}

TEST_F(HostCheck, ShowsItsProgressOnATerminalAndClearsItAtTheEnd)
{
    simulate();
    const QString project = file("p.json", twoHundredVariables());
    // What is drawn for moments only is kept by script(1).
    open("script -qec '$HOST check " + project + " --port $PORT > out.txt' drawn.txt", 100, 20);
    EXPECT_TRUE(sees("200 variables checked, 0 with a problem"));
    EXPECT_TRUE(sees("[status 0]"));
    EXPECT_FALSE(screen().join('\n').contains("checking ["));
    const std::string drawn = textOf("drawn.txt");
    EXPECT_NE(drawn.find("\rchecking [....................] 0/200\x1b[K"), std::string::npos);
    EXPECT_NE(drawn.find("\rchecking [##########..........] 100/200\x1b[K"), std::string::npos);
    EXPECT_EQ(linesOf(textOf("out.txt")).size(), 200);
}

TEST_F(HostCheck, ReportsItsFindingsSoFarOnCtrlC)
{
    // So slow that it cannot be done before the key is pressed.
    const std::string slow = R"({"faults": [{"fault": "delay", "rate": 1, "seconds": 0.1}]})";
    simulate(R"({"name": "Recipe", "type": "DINT", "length": 20})",
             {"--faults", file("slow.json", slow)});
    open("$HOST check " + file("p.json", twoHundredVariables()) + " --port $PORT > out.txt", 120,
         20);
    EXPECT_TRUE(sees("] 1")); // of 1/200: one is checked
    type({"C-c"});
    EXPECT_TRUE(sees(" checked, 0 with a problem, "));
    EXPECT_TRUE(sees(" not checked\nmicro850-host: interrupted"));
    EXPECT_TRUE(sees("[status 1]"));
    EXPECT_TRUE(seesNo("checking ["));
}

// Two mistakes of one variable, one of the port and one of a key.
const char kMistakes[] = "{ // of the press\n"
                         "  \"port\": {\"baud\": 100},\n"
                         "  \"variabels\": [],\n"
                         "  \"variables\": [\n"
                         "    {\"tag\": \"Speed\", \"type\": \"INTT\",\n"
                         "     \"element\": -1},\n"
                         "    {\"tag\": \"Level\"},\n"
                         "    {\"tag\": \"Level\"}\n"
                         "  ]\n"
                         "}\n";

TEST_F(HostCheck, ListsAllMistakesOfAFileWithTheirLines)
{
    const QString project = file("p.json", kMistakes);
    const Result result = host({"check", project});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    const std::string name = "micro850-host: " + project.toStdString();
    EXPECT_EQ(result.err,
              name + ":2: port.baud: 100 is not allowed (300 to 4000000)\n" + name +
                  ":3: unknown key \"variabels\" (did you mean variables?)\n" + name +
                  ":5: variables[0].type: \"INTT\" is not a CIP type (did you mean INT?)\n" + name +
                  ":6: variables[0].element: -1 is not allowed (0 to 65535)\n" + name +
                  ":8: variables[2].tag: the name \"Level\" is given to two variables (rename "
                  "one)\n" +
                  name + ": 5 mistakes\n");
}

TEST_F(HostCheck, HasAnObjectWithAPointerForEachMistakeWithJson)
{
    const QString project = file("p.json", kMistakes);
    const Result result = host({"check", project, "--json", "--quiet"});
    EXPECT_EQ(result.status, 2);
    const QStringList lines = linesOf(result.out);
    ASSERT_EQ(lines.size(), 5) << result.out;
    EXPECT_EQ(lines.at(2), "{\"file\":\"" + project +
                               "\",\"ok\":false,\"line\":5,\"pointer\":\"/variables/0/type\","
                               "\"problem\":\"variables[0].type: \\\"INTT\\\" is not a CIP type "
                               "(did you mean INT?)\"}");
    EXPECT_EQ(linesOf(result.err).size(), 5);
}

TEST_F(HostCheck, NamesTheLineOfASyntaxErrorOnce)
{
    const QString project = file("p.json", "{\n  \"variables\": [\n    {\"tag\" \"A\"}]}\n");
    const Result result = host({"check", project, "--json"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err.find("micro850-host: " + project.toStdString() + ":3:14: syntax error"),
              0u)
        << result.err;
    EXPECT_EQ(linesOf(result.err).size(), 1) << result.err;
    EXPECT_NE(result.out.find("\"line\":3,\"pointer\":\"\""), std::string::npos) << result.out;
    const Result twice =
        host({"check", file("t.json", "{\"variables\": [{\"tag\": \"A\",\n\"tag\": \"B\"}]}")});
    EXPECT_NE(twice.err.find("t.json:2: variables[0]: the key \"tag\" is given twice"),
              std::string::npos)
        << twice.err;
}

// Correcting what the messages name leads to a valid file.
TEST_F(HostCheck, FindsNoMistakeAfterThoseOfTheListAreMended)
{
    simulate();
    std::string text = R"({"variabels": [{"tag": "Speed", "type": "INTT", "element": -1}]})";
    const std::pair<const char*, std::pair<const char*, const char*>> steps[] = {
        {"\"variabels\"", {"variabels", "variables"}},
        {"variables[0].type: \"INTT\" is not a CIP type (did you mean INT?)", {"INTT", "INT"}},
        {"variables[0].element: -1 is not allowed (0 to 65535)", {"-1", "0"}}};
    for (const auto& step : steps) {
        const Result result = hostOnPort({"check", file("p.json", text)});
        EXPECT_EQ(result.status, 2);
        EXPECT_NE(result.err.find(step.first), std::string::npos) << result.err;
        text.replace(text.find(step.second.first), std::string(step.second.first).size(),
                     step.second.second);
    }
    const Result result = hostOnPort({"check", file("p.json", text)});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "Speed: ok, INT\n");
}

TEST_F(HostCheck, TellsAHundredMistakesAtMost)
{
    std::string variables;
    for (int i = 0; i < 300; ++i)
        variables += std::string(i > 0 ? ",\n" : "") + "{\"tag\": \"\"}";
    const Result result = host({"check", file("p.json", "{\"variables\": [" + variables + "]}")});
    EXPECT_EQ(result.status, 2);
    const QStringList lines = linesOf(result.err);
    ASSERT_EQ(lines.size(), 101);
    EXPECT_TRUE(lines.at(99).contains(":100: variables[99].tag: ")) << lines.at(99).toStdString();
    EXPECT_TRUE(lines.at(100).endsWith("there may be more mistakes (mend these first)"));
}

} // namespace
