#include "WritePrompt.h"

#include "UserError.h"

#include "keys.h"
#include "poll_fixture.h"

using namespace micro850::host;
using State = WritePrompt::State;

namespace {

class WritePromptTest : public PollTest
{
protected:
    void begin(const char* variables, const char* stations = R"([{"number": 1}])")
    {
        start(variables, stations);
        rows = std::make_unique<TableRows>(*loop, project);
    }
    std::string refusal(int variable)
    {
        try {
            const WritePrompt prompt(*rows, variable, 0);
        } catch (const micro850::UserError& error) {
            return error.what();
        }
        return std::string();
    }
    static std::string text(const WritePrompt& prompt, int width = 200)
    {
        QStringList lines;
        for (const PageLine& each : prompt.lines(width))
            lines += each.text;
        return lines.join('|').toStdString();
    }

    std::unique_ptr<TableRows> rows;
};

} // namespace

TEST_F(WritePromptTest, AsksForTheValueShowsOldAndNewAndWritesOnlyOnY)
{
    begin(R"({"tag": "Speed", "gain": 0.1, "unit": "m/s"})");
    ASSERT_TRUE(runUntilRead());
    WritePrompt prompt(*rows, 0, 0);
    pressKeys(prompt, "55<Backspace>");
    EXPECT_EQ(text(prompt), "Speed (INT) is 123.4 m/s, new value: 5_|Enter next, Escape back");
    pressKeys(prompt, "<Enter>");
    EXPECT_EQ(prompt.state(), State::Asking);
    EXPECT_EQ(text(prompt), "Write Speed: 123.4 m/s -> 5 m/s ?|y writes, any other key does not");
    pressKeys(prompt, "y");
    EXPECT_EQ(prompt.state(), State::Confirmed);
    const WriteRequest request = prompt.request();
    EXPECT_EQ(request.value, wire::hex("32 00")); // 50, of which a tenth is shown
    EXPECT_EQ(request.oldText, QString("123.4 m/s"));
    EXPECT_EQ(request.newText, QString("5 m/s"));
}

TEST_F(WritePromptTest, IsCancelledByEveryOtherKey)
{
    begin(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    for (const char* keys :
         {"<Escape>", "5<Enter>n", "5<Enter><Enter>", "5<Enter> ", "5<Enter><Up>"}) {
        WritePrompt prompt(*rows, 0, 0);
        pressKeys(prompt, keys);
        EXPECT_EQ(prompt.state(), State::Cancelled) << keys;
    }
}

TEST_F(WritePromptTest, SaysWhyATextIsNoValueAndGoesOnAsking)
{
    begin(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    WritePrompt prompt(*rows, 0, 0);
    pressKeys(prompt, "70000<Enter>");
    EXPECT_EQ(prompt.state(), State::Typing);
    EXPECT_NE(text(prompt).find("is not a value of type INT (-32768 to 32767)|"), std::string::npos)
        << text(prompt);
    pressKeys(prompt, "<Backspace><Enter>");
    EXPECT_EQ(text(prompt), "Write Speed: 1234 -> 7000 ?|y writes, any other key does not");
}

TEST_F(WritePromptTest, TellsThatTheNumberIsRounded)
{
    begin(R"({"tag": "Speed", "gain": 0.5})");
    ASSERT_TRUE(runUntilRead());
    WritePrompt prompt(*rows, 0, 0);
    pressKeys(prompt, "0.7<Enter>");
    EXPECT_EQ(text(prompt), "0.7 is stored as 1, which is 0.5|Write Speed: 617 -> 0.5 ?|y writes, "
                            "any other key does not");
}

TEST_F(WritePromptTest, KeepsTheLimitsOfTheProject)
{
    begin(R"({"tag": "Speed", "gain": 0.5, "minimum": 0, "maximum": 80.2})");
    ASSERT_TRUE(runUntilRead());
    WritePrompt prompt(*rows, 0, 0);
    EXPECT_EQ(text(prompt), "Speed (INT, minimum 0, maximum 80.2) is 617, new value: _|"
                            "Enter next, Escape back");
    for (const char* below : {"-1", "-0.1"}) { // the second one is rounded to 0
        pressKeys(prompt, QStringLiteral("%1<Enter>").arg(below));
        EXPECT_EQ(prompt.state(), State::Typing);
        EXPECT_EQ(text(prompt).substr(0, text(prompt).find('|')),
                  std::string(below) + " is outside its limits (minimum 0, maximum 80.2)");
        pressKeys(prompt, "<Backspace><Backspace><Backspace><Backspace>");
    }
    pressKeys(prompt, "80.5<Enter>");
    EXPECT_EQ(prompt.state(), State::Typing);
    pressKeys(prompt, "<Backspace><Backspace><Enter>");
    EXPECT_EQ(prompt.state(), State::Asking) << text(prompt);
}

TEST_F(WritePromptTest, RefusesAVariableThatTheProjectProtectsBeforeItAsks)
{
    begin(
        R"({"tag": "Level", "length": 3, "writable": false}, {"tag": "Speed", "writable": true})");
    ASSERT_TRUE(runUntilRead());
    EXPECT_EQ(refusal(0),
              R"(Level: the project says "writable": false, so it is not written here)");
    EXPECT_EQ(refusal(1), "");
}

TEST_F(WritePromptTest, SaysThatTheOldValueIsStale)
{
    begin(R"({"tag": "Speed", "unit": "rpm"})");
    ASSERT_TRUE(runUntilRead());
    plc.silent = true;
    ASSERT_TRUE(runUntil([&] { return loop->quality(0) == Quality::Stale; }));
    WritePrompt prompt(*rows, 0, 0);
    EXPECT_EQ(text(prompt), "Speed (INT) is 1234 rpm (stale), new value: _|"
                            "Enter next, Escape back");
    pressKeys(prompt, "9<Enter>");
    EXPECT_EQ(text(prompt), "Write Speed: 1234 rpm (stale) -> 9 rpm ?|"
                            "y writes, any other key does not");
}

TEST_F(WritePromptTest, NamesTheElementOfAnArray)
{
    begin(R"({"tag": "Level", "length": 10, "name": "Fill = 5"})");
    ASSERT_TRUE(runUntilRead());
    WritePrompt prompt(*rows, 0, 3);
    pressKeys(prompt, "1<Enter>");
    EXPECT_EQ(text(prompt), "Write \"Fill = 5\"[3]: 103 -> 1 ?|y writes, any other key does not");
    EXPECT_EQ(prompt.request().index, 3);
}

TEST_F(WritePromptTest, ShowsTheValueOfNowWhileTheTableIsHeld)
{
    begin(R"({"tag": "Speed"})");
    ASSERT_TRUE(runUntilRead());
    rows->hold(true);
    plc.tags["Speed"].elements[0] = wire::little(8, 2);
    runFor(200);
    WritePrompt prompt(*rows, 0, 0);
    pressKeys(prompt, "9<Enter>");
    EXPECT_EQ(text(prompt), "Write Speed: 8 -> 9 ?|y writes, any other key does not");
}

TEST_F(WritePromptTest, RefusesWhatCannotBeWrittenWithTheReason)
{
    plc.tags["Day"] = {0x00CD, {wire::hex("01 00")}}; // a DATE
    begin(R"({"tag": "Nope"}, {"tag": "Day"}, {"tag": "Speed", "station": 2, "name": "Other"})",
          R"([{"number": 1}, {"number": 2, "enabled": false}])");
    ASSERT_TRUE(runUntil([&] { return loop->values().wasRead(1); }));
    EXPECT_EQ(refusal(0), "Nope: it was never read, so its type is not known (wait for its first "
                          "value)");
    EXPECT_NE(refusal(1).find("DATE"), std::string::npos) << refusal(1);
    EXPECT_EQ(refusal(2), "Other: its station is disabled in the project, so it cannot be written");
}

TEST_F(WritePromptTest, FitsANarrowWindow)
{
    begin(R"({"tag": "Speed", "name": "A variable with a very long name indeed"})");
    ASSERT_TRUE(runUntilRead());
    WritePrompt prompt(*rows, 0, 0);
    pressKeys(prompt, "12<Enter>");
    for (const PageLine& each : prompt.lines(40))
        EXPECT_LE(each.text.size(), 40);
    EXPECT_EQ(text(prompt, 40), "Write A variable with a very long name|indeed: 1234 -> 12 ?|"
                                "y writes, any other key does not");
}
