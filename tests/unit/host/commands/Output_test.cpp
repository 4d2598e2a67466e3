#include "Output.h"

#include "Elements.h"
#include "wire.h"

#include <gtest/gtest.h>

using namespace micro850::host;
using micro850::CipValue;
using wire::hex;

namespace {

std::string json(const char* type, const char* bytes)
{
    return jsonOf(decodeElement(micro850::cipTypeNamed(type), hex(bytes))).dump();
}

} // namespace

TEST(Json, WritesEachKindOfValueInItsOwnForm)
{
    EXPECT_EQ(json("BOOL", "01"), "true");
    EXPECT_EQ(json("SINT", "FB"), "-5");
    EXPECT_EQ(json("BYTE", "A5"), "165");
    EXPECT_EQ(json("SHORT_STRING", "02 41 22"), R"("A\"")");
}

TEST(Json, KeepsEveryDigitOfWideAndRealNumbers)
{
    EXPECT_EQ(json("LINT", "00 00 00 00 00 00 00 80"), "-9223372036854775808");
    EXPECT_EQ(json("ULINT", "FF FF FF FF FF FF FF FF"), "18446744073709551615");
    EXPECT_EQ(json("LWORD", "FF FF FF FF FF FF FF FF"), "18446744073709551615");
    EXPECT_EQ(json("REAL", "CD CC CC 3D"), "0.1");
    EXPECT_EQ(json("LREAL", "9A 99 99 99 99 99 B9 3F"), "0.1");
}

TEST(Json, WritesANumberThatIsNotFiniteAsText)
{
    EXPECT_EQ(json("REAL", "00 00 80 7F"), R"("inf")");
    EXPECT_EQ(json("REAL", "00 00 80 FF"), R"("-inf")");
    EXPECT_EQ(json("REAL", "00 00 C0 7F"), R"("nan")");
    EXPECT_EQ(json("REAL", "00 00 C0 FF"), R"("nan")"); // its sign means nothing
}

TEST(Json, WritesSeveralElementsAsAnArray)
{
    const CipValue one = CipValue::ofSigned(1);
    EXPECT_EQ(jsonOf(QVector<CipValue>{one, CipValue::ofSigned(-1)}).dump(), "[1,-1]");
    EXPECT_EQ(jsonOf(QVector<CipValue>{one}).dump(), "1");
}

TEST(Output, PrintsEachResultOnOneLineWithoutAControlCharacter)
{
    const auto printed = [](bool json) {
        testing::internal::CaptureStdout();
        Output(json, false)
            .data({{"name", "a\n\xC2\x9B\x7F"}}, QString("a\n\x1b[2J") + QChar(0x9B));
        return testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(printed(false), "a\\n\\x1b[2J\\u009b\n");
    EXPECT_EQ(printed(true), "{\"name\":\"a\\n\\u009b\\u007f\"}\n");
}

TEST(Output, PrintsEachErrorAndNoteOnOneLineWithoutAControlCharacter)
{
    testing::internal::CaptureStderr();
    Output(false, false).error("a\nb");
    Output(false, false).note("a\x07");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "micro850-host: a\\nb\nmicro850-host: a\\x07\n");
}

TEST(Progress, FillsItsBarWithTheWork)
{
    EXPECT_EQ(progressText("checking", 0, 40), QString("checking [....................] 0/40"));
    EXPECT_EQ(progressText("checking", 10, 40), QString("checking [#####...............] 10/40"));
    EXPECT_EQ(progressText("checking", 40, 40), QString("checking [####################] 40/40"));
    EXPECT_EQ(progressText("nothing", 0, 0), QString("nothing [####################] 0/0"));
}
