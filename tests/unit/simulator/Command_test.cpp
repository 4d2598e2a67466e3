#include "Command.h"

#include "UserError.h"

#include <gtest/gtest.h>

namespace micro850::sim {
namespace {

std::string complaintAbout(const std::string& line)
{
    try {
        parseCommand(line);
    } catch (const UserError& error) {
        return error.what();
    }
    return "none";
}

TEST(Command, PowerCycleResetsTheValuesOfAllStationsByDefault)
{
    const auto command = parseCommand("power-cycle");
    ASSERT_TRUE(command);
    EXPECT_EQ(command->kind, Command::PowerCycle);
    EXPECT_FALSE(command->retain);
    EXPECT_FALSE(command->station);
}

TEST(Command, PowerCycleAcceptsRetainAndAStation)
{
    const auto command = parseCommand("  power-cycle retain  3 ");
    ASSERT_TRUE(command);
    EXPECT_TRUE(command->retain);
    EXPECT_EQ(command->station, 3);
}

TEST(Command, DownloadAcceptsAFileAndAStation)
{
    EXPECT_EQ(parseCommand("download")->file, "");
    EXPECT_EQ(parseCommand("download new.json")->file, "new.json");
    EXPECT_EQ(parseCommand("download new.json 2")->station, 2);
    EXPECT_EQ(parseCommand("download 2")->station, 2);
    EXPECT_EQ(parseCommand("download 2")->kind, Command::Download);
}

TEST(Command, StatusAcceptsAStation)
{
    EXPECT_EQ(parseCommand("status")->kind, Command::Status);
    EXPECT_FALSE(parseCommand("status")->station);
    EXPECT_EQ(parseCommand("status 2")->station, 2);
    EXPECT_EQ(complaintAbout("status all"), "status: \"all\" is not a station's number");
}

TEST(Command, IsNothingForABlankLine)
{
    EXPECT_FALSE(parseCommand(""));
    EXPECT_FALSE(parseCommand("  \t"));
}

TEST(Command, ErrorNamesTheWrongWord)
{
    EXPECT_EQ(complaintAbout("power-cicle"),
              "\"power-cicle\" is not a command (did you mean power-cycle?) (power-cycle [retain] "
              "[STATION], download [FILE] [STATION] or status [STATION])");
    EXPECT_EQ(complaintAbout("power-cycle keep"),
              "power-cycle: \"keep\" is neither \"retain\" nor a station's number");
    EXPECT_EQ(complaintAbout("download a.json b.json"),
              "download: \"b.json\" is one word too many");
}

} // namespace
} // namespace micro850::sim
