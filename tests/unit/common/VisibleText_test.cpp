#include "VisibleText.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

namespace micro850 {
namespace {

TEST(Visible, LeavesPrintableTextOfAnyScript)
{
    for (const char* text : {"", "Speed = 5", R"(a\nb "c")", "Füllstand", "温度", "e\u0301", "🙂",
                             "\u0600", "\u00A0"})
        EXPECT_EQ(visible(text), text);
}

TEST(Visible, EscapesWhatATerminalObeys)
{
    EXPECT_EQ(visible("ok\nValveOpen = false"), "ok\\nValveOpen = false");
    EXPECT_EQ(visible("a\r\tb"), "a\\r\\tb");
    EXPECT_EQ(visible("\x1b]0;title\x07"), "\\x1b]0;title\\x07");
    EXPECT_EQ(visible(std::string("a\0b", 3)), "a\\x00b");
    EXPECT_EQ(visible("\x7f"), "\\x7f");
    EXPECT_EQ(visible("\u009b2J\u0080"), "\\u009b2J\\u0080");
}

TEST(Visible, EscapesWhatNobodySees)
{
    EXPECT_EQ(visible("a\u202Eb\u2066c"), "a\\u202eb\\u2066c");
    EXPECT_EQ(visible("\u2028\u2029\u200B\uFEFF\u00AD"), "\\u2028\\u2029\\u200b\\ufeff\\u00ad");
    EXPECT_EQ(visible("\U000E0041\uFFFF"), "\\U000e0041\\uffff");
}

TEST(Visible, EscapesBytesThatAreNotUtf8)
{
    EXPECT_EQ(visible("\xff\x9b"), "\\xff\\x9b");
    EXPECT_EQ(visible("a\xc3"), "a\\xc3");                          // cut off
    EXPECT_EQ(visible("\xc0\x8a"), "\\xc0\\x8a");                   // a line feed, too long
    EXPECT_EQ(visible("\xe0\x82\x9b"), "\\xe0\\x82\\x9b");          // U+009B, too long
    EXPECT_EQ(visible("\xf0\x80\x82\x9b"), "\\xf0\\x80\\x82\\x9b"); // the same in four bytes
    EXPECT_EQ(visible("\xed\xa0\x80"), "\\xed\\xa0\\x80");          // a surrogate
    EXPECT_EQ(visible("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80"); // beyond Unicode
    EXPECT_EQ(visible("\xe2\x41\xf0\x9f\n"), "\\xe2A\\xf0\\x9f\\n");
}

TEST(Visible, ChangesNothingTheSecondTime)
{
    const std::string once = visible("a\n\u009b\xff\\n");
    EXPECT_EQ(visible(once), once);
}

TEST(VisibleValue, IsShownAsItIsWhenItIsPlain)
{
    for (const char* text : {"", "ok", " a ", R"(C:\new)", R"(5" pipe)", "Füllstand"})
        EXPECT_EQ(visibleValue(text), text);
}

TEST(VisibleValue, IsQuotedWhenItNeedsEscapesOrBeginsWithAQuote)
{
    EXPECT_EQ(visibleValue("ok\nx"), R"("ok\nx")");
    EXPECT_EQ(visibleValue("\u009b \"q\" \\n\n"), R"("\u009b \"q\" \\n\n")");
    EXPECT_EQ(visibleValue(R"("ok\nx")"), R"("\"ok\\nx\"")");
    EXPECT_EQ(visibleValue("\""), R"("\"")");
}

TEST(VisibleJson, KeepsTheTextsAndHoldsNoCharacterThatATerminalObeys)
{
    const std::string text = "\x01\n\x7f\u009b\u202E\U000E0041\u00FC\u6E29 \"\\";
    const std::string json = visibleJson(nlohmann::json(text).dump());
    EXPECT_EQ(nlohmann::json::parse(json), text);
    EXPECT_EQ(json, R"("\u0001\n\u007f\u009b\u202e\udb40\udc41)"
                    "\u00FC\u6E29"
                    R"( \"\\")");
}

TEST(VisibleJson, KeepsTheLinesBetweenValues)
{
    EXPECT_EQ(visibleJson("{\n}\u009b"), "{\n}\\u009b");
}

TEST(Shortened, KeepsBothEndsAndWholeCharacters)
{
    EXPECT_EQ(shortened("abcdefghij", 10), "abcdefghij");
    EXPECT_EQ(shortened("abcdefghijk", 10), "abcde...jk");
    EXPECT_EQ(shortened("ääääääääää", 10), "ää...ä");
    EXPECT_EQ(shortened(std::string(100, '\x80'), 10).size(), 5U); // three bytes less at both ends
    EXPECT_EQ(shortened("abcdef", 2), "...");
}

TEST(InQuotes, IsShortAndVisible)
{
    EXPECT_EQ(inQuotes("INTT"), "\"INTT\"");
    EXPECT_EQ(inQuotes("a\nb"), "\"a\\nb\"");
    EXPECT_EQ(inQuotes(std::string(1000000, '1')).size(), 62U);
}

} // namespace
} // namespace micro850
