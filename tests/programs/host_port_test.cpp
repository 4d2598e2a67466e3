#include "program_fixture.h"

#include <QtCore/QDir>

namespace {

using HostPort = ProgramTest;

TEST_F(HostPort, OfABareNameIsLookedForInTheCurrentFolder)
{
    simulate();
    const Result bare = host({"read", "Speed", "--port", "plc"});
    EXPECT_EQ(bare.out, "Speed = 1234\n") << bare.err;
    ASSERT_TRUE(QDir(path(".")).mkdir("lines"));
    ASSERT_TRUE(QFile::link(port(), path("lines/one")));
    const Result below = host({"read", "Speed", "--port", "lines/one"});
    EXPECT_EQ(below.out, "Speed = 1234\n") << below.err;
}

TEST_F(HostPort, OfAProjectIsLookedForInTheCurrentFolderToo)
{
    simulate();
    const QString project =
        file("p.json", R"({"port": {"device": "plc"}, "variables": [{"tag": "Speed"}]})");
    const Result result = host({"read", "Speed", "--project", project});
    EXPECT_EQ(result.out, "Speed = 1234\n") << result.err;
}

// /dev/ptmx is there on every system and is a terminal device; opening it harms nobody.
TEST_F(HostPort, OfABareNameIsThatInDevIfTheFolderHasNoSuchDevice)
{
    const Result result = host({"read", "Speed", "--port", "ptmx", "--timeout", "20"});
    EXPECT_EQ(result.err.find("no such device"), std::string::npos) << result.err;
    file("ptmx", "no device");
    const Result shadowed = host({"read", "Speed", "--port", "ptmx", "--timeout", "20"});
    EXPECT_EQ(shadowed.err, result.err);
}

TEST_F(HostPort, ThatIsMissingOrNoDeviceIsReported)
{
    const Result none = host({"read", "Speed", "--port", "none"});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.err, "micro850-host: none: cannot be opened: there is no such device in this "
                        "folder or in /dev (choose the port with --port)\n");
    file("notes", "text");
    const Result notes = host({"read", "Speed", "--port", "notes"});
    EXPECT_EQ(notes.err, "micro850-host: notes: cannot be opened: it is not a device (choose the "
                         "port with --port)\n");
}

// Such a link is left when a simulator is killed.
TEST_F(HostPort, ThatIsALinkToNothingIsReportedWithWhereItLed)
{
    ASSERT_TRUE(QFile::link(path("gone"), path("dead")));
    const Result result = host({"read", "Speed", "--port", "dead"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "micro850-host: dead: cannot be opened: the link leads nowhere: " +
                              path("gone").toStdString() +
                              " is gone (choose the port with --port)\n");
}

} // namespace
