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
