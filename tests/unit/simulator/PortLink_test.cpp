#include "PortLink.h"

#include "UserError.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace micro850::sim {
namespace {

namespace fs = std::filesystem;

// No test has so many terminals.
const char kGone[] = "/dev/pts/999999";
const char kOther[] = "/dev/pts/999998";

class PortLinkTest : public ::testing::Test
{
protected:
    PortLinkTest()
        : m_folder(fs::temp_directory_path() / ("micro850-link-" + std::to_string(::getpid())))
    {
        fs::create_directories(m_folder);
    }
    ~PortLinkTest() override { fs::remove_all(m_folder); }

    fs::path name() const { return m_folder / "plc"; }
    std::string complaint(const std::string& terminal) const
    {
        try {
            const PortLink link(name(), terminal);
        } catch (const UserError& error) {
            return error.what();
        }
        return "";
    }
    /// The complaint without the name and what to do about it.
    std::string reason(const std::string& terminal) const
    {
        const std::string whole = complaint(terminal);
        const std::string begin = "--link " + name().string() + ": ";
        const std::string end = " (choose another name)";
        EXPECT_EQ(whole.substr(0, begin.size()), begin);
        return whole.substr(begin.size(), whole.size() - begin.size() - end.size());
    }
    /// Only what the test made; nothing was put aside.
    std::ptrdiff_t files() const
    {
        return std::distance(fs::directory_iterator(m_folder), fs::directory_iterator());
    }

private:
    fs::path m_folder;
};

TEST_F(PortLinkTest, IsThereForAsLongAsItLives)
{
    {
        PortLink link(name(), kGone);
        EXPECT_EQ(fs::read_symlink(name()), kGone);
        const PortLink moved(std::move(link));
        link = PortLink();
        EXPECT_TRUE(fs::is_symlink(name()));
    }
    EXPECT_EQ(files(), 0);
}

TEST_F(PortLinkTest, TakesOverALinkToATerminalThatIsGone)
{
    fs::create_symlink(kOther, name());
    const PortLink link(name(), kGone);
    EXPECT_EQ(fs::read_symlink(name()), kGone);
    EXPECT_EQ(files(), 1);
}

// The number of a killed simulator's terminal can be given to the next one.
TEST_F(PortLinkTest, TakesOverALinkToItsOwnTerminal)
{
    const std::string terminal = "/dev/pts/4";
    fs::create_symlink(terminal, name());
    EXPECT_EQ(complaint(terminal), "");
    EXPECT_EQ(files(), 0);
}

TEST_F(PortLinkTest, RefusesALinkToATerminalThatIsThere)
{
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_EQ(::grantpt(terminal) + ::unlockpt(terminal), 0);
    fs::create_symlink(::ptsname(terminal), name());
    EXPECT_EQ(reason(kGone), "leads to " + std::string(::ptsname(terminal)) + ", which is in use");
    EXPECT_EQ(fs::read_symlink(name()), ::ptsname(terminal));
    ::close(terminal);
    EXPECT_EQ(complaint(kGone), "");
}

TEST_F(PortLinkTest, TakesOverALinkThatIsOlderThanTheTerminalOfThatNumber)
{
    const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_EQ(::grantpt(terminal) + ::unlockpt(terminal), 0);
    fs::create_symlink(::ptsname(terminal), name());
    const timespec longAgo[] = {{1, 0}, {1, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, name().c_str(), longAgo, AT_SYMLINK_NOFOLLOW), 0);
    EXPECT_EQ(complaint(kGone), "");
    EXPECT_EQ(files(), 0);
    ::close(terminal);
}

TEST_F(PortLinkTest, RefusesAnyOtherFile)
{
    for (const char* target : {"/etc/passwd", "gone", "/dev/pts/", "/dev/pts/7x", "/dev/ptmx"}) {
        fs::create_symlink(target, name());
        EXPECT_EQ(reason(kGone), std::string("there is a link of this name to ") + target);
        EXPECT_EQ(fs::read_symlink(name()), target);
        fs::remove(name());
    }
    {
        std::ofstream(name()) << "text";
    }
    EXPECT_EQ(reason(kGone), "there is a file of this name");
    EXPECT_EQ(fs::file_size(name()), 4u);
    fs::remove(name());
    fs::create_directory(name());
    EXPECT_EQ(reason(kGone), "there is a file of this name");
    EXPECT_EQ(files(), 1);
}

TEST_F(PortLinkTest, LeavesAloneWhatHasItsNameByTheEnd)
{
    {
        std::optional<PortLink> link(std::in_place, name(), kGone);
        fs::remove(name());
        {
            std::ofstream(name()) << "text";
        }
        link.reset();
        EXPECT_EQ(fs::file_size(name()), 4u);
        fs::remove(name());
    }
    std::optional<PortLink> link(std::in_place, name(), kGone);
    fs::remove(name());
    fs::create_symlink(kOther, name());
    link.reset();
    EXPECT_EQ(fs::read_symlink(name()), kOther);
}

TEST_F(PortLinkTest, ReportsAFolderThatCannotBeWritten)
{
    try {
        const PortLink link("/none/plc", kGone);
        FAIL();
    } catch (const UserError& error) {
        EXPECT_STREQ(error.what(), "--link /none/plc: No such file or directory (choose a name in "
                                   "a folder that can be written)");
    }
}

} // namespace
} // namespace micro850::sim
