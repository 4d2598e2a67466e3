#include "DriverLibrary.h"

#include "UserError.h"

#include <gtest/gtest.h>

using host::DriverLibrary;

namespace {

std::string complaint(const char* path)
{
    try {
        DriverLibrary library(QString::fromLatin1(path));
    } catch (const micro850::UserError& error) {
        EXPECT_EQ(error.status(), micro850::kExitUsage);
        return error.what();
    }
    return "none";
}

} // namespace

TEST(DriverLibrary, ResolvesEveryEntryPoint)
{
    const DriverLibrary library(QStringLiteral(MICRO850_LIBRARY));
    const host::DriverApi& api = library.api();
    EXPECT_EQ(api.queryFinishFlag(), 1);
    EXPECT_EQ(api.addressChange(), -1);
    EXPECT_NE(api.comCommunication, nullptr);
    EXPECT_NE(api.dataCom, nullptr);
    EXPECT_NE(api.getRegisterData, nullptr);
    EXPECT_NE(api.setRegisterData, nullptr);
}

TEST(DriverLibrary, NamesAFileThatIsNotThere)
{
    EXPECT_EQ(
        complaint("/nowhere/libmicro850.so"),
        "/nowhere/libmicro850.so: there is no such driver library (give its path with --driver)");
}

TEST(DriverLibrary, NamesAFileThatIsNoLibrary)
{
    const std::string text = complaint(MICRO850_SOURCE_DIR "/LICENSE");
    EXPECT_NE(text.find("LICENSE: the driver cannot be loaded"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(DriverLibrary, NamesTheEntryPointThatALibraryLacks)
{
    const std::string text = complaint(MICRO850_OTHER_LIBRARY);
    EXPECT_NE(text.find("lacks the entry point SetComInfo"), std::string::npos) << text;
}
