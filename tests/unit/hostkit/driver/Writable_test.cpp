#include "Writable.h"

#include "UserError.h"

#include <gtest/gtest.h>

namespace micro850::host {
namespace {

TEST(Writable, IsEveryTypeExceptTheWideOnesThatTheDriverMovesByteByByte)
{
    for (const char* name :
         {"BOOL", "SINT", "USINT", "BYTE", "INT", "REAL", "LREAL", "SHORT_STRING"})
        EXPECT_TRUE(isWritable(cipTypeNamed(name))) << name;
    for (const char* name : {"WORD", "DWORD", "LWORD", "DATE", "TIME", "STRING"})
        EXPECT_FALSE(isWritable(cipTypeNamed(name))) << name;
}

TEST(Writable, NamesTheVariableOfAProjectThatCannotBeWritable)
{
    const auto refusal = [](const char* variable) {
        try {
            const QString text = QStringLiteral(R"({"variables": [{"tag": "First"}, %1]})");
            requireWritableVariables(Project::fromText(text.arg(variable), "p.json"), "p.json");
        } catch (const UserError& error) {
            EXPECT_EQ(error.status(), kExitUsage);
            return std::string(error.what());
        }
        return std::string("accepted");
    };
    EXPECT_EQ(
        refusal(R"({"tag": "T", "type": "DATE", "writable": true})"),
        "p.json: variables[1].writable: the driver cannot write the type DATE, which it moves "
        "byte by byte (write an INT that the controller's program copies into it)");
    EXPECT_EQ(refusal(R"({"tag": "T", "type": "DATE", "writable": false})"), "accepted");
    EXPECT_EQ(refusal(R"({"tag": "T", "type": "INT", "writable": true})"), "accepted");
    EXPECT_EQ(refusal(R"({"tag": "T", "writable": true})"), "accepted");
}

std::string refusalOf(const char* type)
{
    try {
        requireWritable(cipTypeNamed(type), QStringLiteral("Tag"));
    } catch (const UserError& error) {
        return error.what();
    }
    return "accepted";
}

TEST(Writable, NamesATypeThatTheControllersProgramCanCopyFrom)
{
    const auto message = [](const std::string& type, const std::string& substitute) {
        return "Tag: the driver cannot write the type " + type +
               ", which it moves byte by byte (write " + substitute +
               " that the controller's program copies into it)";
    };
    EXPECT_EQ(refusalOf("INT"), "accepted");
    EXPECT_EQ(refusalOf("WORD"), message("WORD", "an INT"));
    EXPECT_EQ(refusalOf("DWORD"), message("DWORD", "a DINT"));
    EXPECT_EQ(refusalOf("LWORD"), message("LWORD", "a LINT"));
    EXPECT_EQ(refusalOf("STRING"), message("STRING", "a SHORT_STRING"));
}

} // namespace
} // namespace micro850::host
