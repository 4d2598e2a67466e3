#include "CommandLine.h"

#include "UserError.h"

#include <gtest/gtest.h>

using namespace micro850;

namespace {

int runLine(CommandLine& line, std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "prog");
    std::vector<char*> pointers;
    for (std::string& argument : arguments)
        pointers.push_back(argument.data());
    return line.run(static_cast<int>(pointers.size()), pointers.data());
}

/// A program with one command, "go".
class CommandLineTest : public ::testing::Test
{
protected:
    CommandLineTest() : line("prog", "1.2", "Does things.", "The end.")
    {
        CommandOptions go = line.addCommand("go", "Go", [this] { return ++runs; });
        go.requiredTexts("WHERE", places, "Places");
        go.text("--name", name, "A name");
        go.choice("--pace", pace, {"slow", "fast"}, "How");
        go.integer("--steps", steps, 1, 10, "How many");
        go.number("--length", length, 0.5, 2.0, "How long");
        go.flag("--loud", loud, "Sing");
        go.flagThatClears("--no-rest", rests, "Do not rest");
    }
    int run(const std::vector<std::string>& arguments) { return runLine(line, arguments); }
    std::string complaint(const std::vector<std::string>& arguments)
    {
        try {
            run(arguments);
        } catch (const micro850::UserError& error) {
            return error.what();
        }
        return "none";
    }

    CommandLine line;
    std::vector<std::string> places;
    std::string name = "nobody";
    std::string pace;
    int steps = 0;
    double length = 0;
    bool loud = false;
    bool rests = true;
    int runs = 0;
};

TEST_F(CommandLineTest, SetsTheVariablesAndReturnsTheStatusOfTheCommand)
{
    EXPECT_EQ(run({"go", "home", "away", "--name", "Ann", "--pace", "fast", "--steps", "3",
                   "--length", "1.5", "--loud", "--no-rest"}),
              1);
    EXPECT_EQ(places, (std::vector<std::string>{"home", "away"}));
    EXPECT_EQ(name, "Ann");
    EXPECT_EQ(pace, "fast");
    EXPECT_EQ(steps, 3);
    EXPECT_EQ(length, 1.5);
    EXPECT_TRUE(loud);
    EXPECT_FALSE(rests);
}

TEST_F(CommandLineTest, LeavesVariablesOfOptionsThatAreNotGiven)
{
    run({"go", "home"});
    EXPECT_EQ(name, "nobody");
    EXPECT_FALSE(loud);
    EXPECT_TRUE(rests);
}

TEST_F(CommandLineTest, SuggestsTheCommandOrTheOptionThatWasProbablyMeant)
{
    EXPECT_EQ(complaint({"goo"}), "\"goo\" is not a command (did you mean go?) (see prog --help)");
    EXPECT_EQ(complaint({"go", "home", "--nam=x"}),
              "\"--nam=x\" is not expected here (did you mean --name?) (see prog go --help)");
    EXPECT_EQ(complaint({"go", "home", "--nam=some-longer-text"}),
              "\"--nam=some-longer-text\" is not expected here (did you mean --name?) (see prog go "
              "--help)");
}

TEST_F(CommandLineTest, SaysThatTheValueOfAnOptionIsMissing)
{
    for (const char* option : {"--name", "--steps", "--length", "--pace"})
        EXPECT_EQ(complaint({"go", "home", option}),
                  std::string(option) + ": its value is missing (see prog go --help)");
    EXPECT_EQ(runs, 0);
}

TEST_F(CommandLineTest, RejectsValuesOutsideTheirRange)
{
    EXPECT_NE(complaint({"go", "home", "--steps", "11"}), "none");
    EXPECT_NE(complaint({"go", "home", "--length", "0.4"}), "none");
    EXPECT_NE(complaint({"go", "home", "--pace", "medium"}), "none");
    EXPECT_NE(complaint({"go"}), "none");
    for (const char* text : {"nan", "inf", "0x1p0", "1,5", "1e999", ""})
        EXPECT_EQ(complaint({"go", "home", "--length", text}),
                  std::string("--length: \"") + text +
                      "\" is not a decimal number such as 0.5 (see prog go --help)");
    EXPECT_EQ(runs, 0);
}

/// A program that works without a command, has one command, "show", and starts itself as "part".
class MainCommandTest : public ::testing::Test
{
protected:
    MainCommandTest() : line("prog", "1.2", "Does things.", "The end.")
    {
        CommandOptions main = line.withoutCommand([this] {
            ran = "main " + file;
            return 3;
        });
        main.text("FILE", file, "What to do");
        line.addCommand("show", "Show", [this] {
            ran = "show";
            return 4;
        });
        line.addHiddenCommand("part", [this] {
            ran = "part";
            return 5;
        });
    }
    int run(const std::vector<std::string>& arguments) { return runLine(line, arguments); }

    CommandLine line;
    std::string file = "none";
    std::string ran;
};

TEST_F(MainCommandTest, RunsTheProgramsOwnWorkWhenNoCommandIsNamed)
{
    EXPECT_EQ(run({"plant.json"}), 3);
    EXPECT_EQ(ran, "main plant.json");
}

TEST_F(MainCommandTest, RunsItWithoutAnyArgument)
{
    EXPECT_EQ(run({}), 3);
    EXPECT_EQ(ran, "main none");
}

TEST_F(MainCommandTest, RunsTheCommandThatIsNamed)
{
    EXPECT_EQ(run({"show"}), 4);
    EXPECT_EQ(ran, "show");
}

TEST_F(MainCommandTest, RunsAHiddenCommandThatTheHelpDoesNotName)
{
    EXPECT_EQ(run({"part"}), 5);
    EXPECT_EQ(ran, "part");
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(run({"--help"}), 0);
    const std::string help = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(help.find("show"), std::string::npos) << help;
    EXPECT_EQ(help.find("part"), std::string::npos) << help;
}

TEST_F(MainCommandTest, TakesNoMistypedCommandForAnArgument)
{
    try {
        run({"shwo"});
        FAIL();
    } catch (const UserError& error) {
        EXPECT_STREQ(error.what(),
                     "\"shwo\" is not a command (did you mean show?) (see prog --help)");
    }
    EXPECT_EQ(ran, "");
}

} // namespace
