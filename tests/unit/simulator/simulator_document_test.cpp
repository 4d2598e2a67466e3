// Compares docs/simulator.md with the simulator: a wrong document is worse than none.

#include "FaultyLine.h"
#include "bytes.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>

namespace micro850::sim {
namespace {

std::string document()
{
    std::ifstream file(MICRO850_SOURCE_DIR "/docs/simulator.md");
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// The text of the document's code block in this language.
std::string block(const std::string& kind)
{
    const std::string text = document();
    const std::string fence = "```" + kind + "\n";
    const std::size_t start = text.find(fence) + fence.size();
    return text.substr(start, text.find("```", start) - start);
}

Bytes identityRequest(std::uint8_t number)
{
    const Bytes data = hex("00 01 0B 00") + Bytes{number} + hex("00 00 00 01 02 20 01 24 01");
    return hex("10 06") + framed(data);
}

TEST(SimulatorDocument, ShowsTheFaultsThatItsScriptCauses)
{
    VirtualClock clock;
    Controller controller(clock, TagTable());
    FaultyLine line(clock, controller, faultsFromText(block("json"), "docs/simulator.md"), 7);
    std::string printed;
    line.setObserver([&](const FaultyLine::Event& event) {
        printed += "micro850-sim: " + describe(event) + "\n";
    });
    for (std::uint8_t number = 1; number <= 8; ++number)
        line.receive(identityRequest(number));
    EXPECT_EQ(printed, block("text"));
}

TEST(SimulatorDocument, DescribesEveryFault)
{
    const std::string text = document();
    for (const std::string& name : faultNames())
        EXPECT_NE(text.find("`" + name + "`"), std::string::npos) << name;
}

std::string helpText()
{
    std::string text;
    FILE* const pipe = ::popen(MICRO850_SIM " --help", "r");
    if (!pipe)
        return text;
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, pipe))
        text += buffer;
    EXPECT_EQ(::pclose(pipe), 0);
    return text;
}

TEST(SimulatorDocument, DescribesEveryOptionOfTheProgram)
{
    const std::string text = document();
    const std::string help = helpText();
    int options = 0;
    for (std::size_t at = 0; (at = help.find("--", at)) != std::string::npos; ++options) {
        const std::size_t end = help.find_first_of(" ,:\n=", at);
        const std::string option = help.substr(at, end - at);
        EXPECT_NE(text.find("`" + option), std::string::npos) << option;
        at = end;
    }
    EXPECT_GE(options, 13);
}

} // namespace
} // namespace micro850::sim
