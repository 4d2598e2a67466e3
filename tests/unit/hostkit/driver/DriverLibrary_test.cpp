#include "DriverLibrary.h"

#include "UserError.h"

#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>

using micro850::host::DriverLibrary;

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

// The driver's library with its note of the Qt major version changed, as bytes. The note's parts:
// sizes of owner and content, type 1, owner, content.
QByteArray libraryWithNote(char owner, char major)
{
    QFile file(QStringLiteral(MICRO850_LIBRARY));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    QByteArray bytes = file.readAll();
    const char note[] = "\x09\0\0\0\x04\0\0\0\x01\0\0\0micro850\0\0\0\0\x05\0\0";
    const int at = bytes.indexOf(QByteArray(note, sizeof note));
    EXPECT_GT(at, 0);
    bytes[at + 12] = owner;
    bytes[at + 24] = major;
    return bytes;
}

std::string complaintOf(const QTemporaryDir& folder, const QByteArray& library)
{
    QFile file(folder.filePath(QStringLiteral("libmicro850.so")));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(library);
    file.close();
    const std::string text = complaint(qPrintable(file.fileName()));
    return text.substr(std::min(text.size(), text.find("libmicro850.so")));
}

} // namespace

TEST(DriverLibrary, ResolvesEveryEntryPoint)
{
    const DriverLibrary library(QStringLiteral(MICRO850_LIBRARY));
    const micro850::host::DriverApi& api = library.api();
    EXPECT_EQ(api.queryFinishFlag(), 1);
    EXPECT_EQ(api.addressChange(), -1);
    EXPECT_NE(api.comCommunication, nullptr);
    EXPECT_NE(api.dataCom, nullptr);
    EXPECT_NE(api.getRegisterData, nullptr);
    EXPECT_NE(api.setRegisterData, nullptr);
}

TEST(DriverLibrary, NamesAFileThatDoesNotExist)
{
    EXPECT_EQ(
        complaint("/nowhere/libmicro850.so"),
        "/nowhere/libmicro850.so: there is no such driver library (give its path with --driver)");
}

TEST(DriverLibrary, NamesAFileThatIsNotALibrary)
{
    const std::string text = complaint(MICRO850_SOURCE_DIR "/LICENSE");
    EXPECT_NE(text.find("LICENSE: the driver cannot be loaded"), std::string::npos) << text;
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(DriverLibrary, NamesTheEntryPointThatIsMissing)
{
    const std::string text = complaint(MICRO850_OTHER_LIBRARY);
    EXPECT_NE(text.find("lacks the entry point SetComInfo"), std::string::npos) << text;
}

TEST(DriverLibrary, RefusesADriverThatIsBuiltForAnotherQtBeforeItRuns)
{
    const QTemporaryDir folder;
    EXPECT_EQ(complaintOf(folder, libraryWithNote('m', 4)),
              "libmicro850.so: it is built for Qt 4, this host for Qt 5 "
              "(give a driver built with -DMICRO850_QT=5)");
    // Cut off after the note, it could not be loaded: the note is looked at first.
    EXPECT_EQ(complaintOf(folder, libraryWithNote('m', 6).left(4096)),
              "libmicro850.so: it is built for Qt 6, this host for Qt 5 "
              "(give a driver built with -DMICRO850_QT=5)");
}

TEST(DriverLibrary, RefusesADriverWithoutANoteAboutItsQt)
{
    const QTemporaryDir folder;
    EXPECT_EQ(complaintOf(folder, libraryWithNote('M', 5)),
              "libmicro850.so: it does not say which Qt it is built for, this host for Qt 5 "
              "(give a driver built with -DMICRO850_QT=5)");
}
