#include "terminal_fixture.h"

#include <QtCore/QDir>

namespace {

using HostPort = ProgramTest;

/// Without an option that names the port.
class DefaultPort : public TerminalTest
{
protected:
    Result hostWith(const QString& variable, const QStringList& arguments) const
    {
        return runProgram(MICRO850_HOST, arguments, {"MICRO850_PORT=" + variable}, path("."));
    }
    /// A project of the folder whose variable Tank is three elements of Level.
    void project(const QString& name, const QString& device) const
    {
        file(name, R"({"port": {"device": ")" + device.toStdString() +
                       R"("}, "variables": [{"name": "Tank", "tag": "Level", "length": 3},
                                            {"tag": "Speed"}]})");
    }
};

TEST_F(HostPort, OfABareNameIsLookedForInTheCurrentFolder)
{
    simulate();
    const Result bare = host({"read", "Speed", "--port", "plc"});
    EXPECT_EQ(bare.out, "Speed  INT  1234\n") << bare.err;
    ASSERT_TRUE(QDir(path(".")).mkdir("lines"));
    ASSERT_TRUE(QFile::link(port(), path("lines/one")));
    const Result below = host({"read", "Speed", "--port", "lines/one"});
    EXPECT_EQ(below.out, "Speed  INT  1234\n") << below.err;
}

TEST_F(HostPort, OfAProjectIsLookedForInTheCurrentFolderToo)
{
    simulate();
    const QString project =
        file("p.json", R"({"port": {"device": "plc"}, "variables": [{"tag": "Speed"}]})");
    const Result result = host({"read", "Speed", "--project", project});
    EXPECT_EQ(result.out, "Speed  INT  1234\n") << result.err;
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
                        "folder or in /dev\n");
    file("notes", "text");
    const Result notes = host({"read", "Speed", "--port", "notes"});
    EXPECT_EQ(notes.err, "micro850-host: notes: cannot be opened: it is not a device\n");
}

// Such a link is left when a simulator is killed.
TEST_F(HostPort, ThatIsALinkToNothingIsReportedWithWhereItLed)
{
    ASSERT_TRUE(QFile::link(path("gone"), path("dead")));
    const Result result = host({"read", "Speed", "--port", "dead"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "micro850-host: dead: cannot be opened: the link leads nowhere: " +
                              path("gone").toStdString() + " is gone\n");
}

TEST_F(HostPort, OfAProjectThatIsMissingIsReportedWithTheOptionThatChoosesAnother)
{
    const QString project =
        file("p.json", R"({"port": {"device": "/none"}, "variables": [{"tag": "Speed"}]})");
    EXPECT_EQ(host({"read", "Speed", "--project", project}).err,
              "micro850-host: /none: cannot be opened: there is no such device (choose the port "
              "with --port)\n");
}

TEST_F(HostPort, ThatIsAnAddressInAnotherFormIsReportedWithTheRightOne)
{
    for (const QString port : {"tcp:127.0.0.1:7200", "tcp:/127.0.0.1:7200", "rfc2217:plc:2000",
                               "127.0.0.1", "::1", "fe80::1%eth0"})
    {
        const Result result = host({"read", "Speed", "--port", port});
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(linesOf(result.err).size(), 1) << result.err;
        EXPECT_NE(result.err.find(" (for a device server write tcp://HOST:PORT)\n"),
                  std::string::npos)
            << result.err;
    }
}

TEST_F(HostPort, ThatIsAMalformedAddressIsRefusedBeforeAnythingIsOpened)
{
    const Result none = host({"read", "Speed", "--port", "tcp://plc"});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.err, "micro850-host: --port: \"tcp://plc\" names no port (write it behind the "
                        "host, as in tcp://HOST:2000)\n");
    const Result kind = host({"probe", "--port", "udp://plc:2000"});
    EXPECT_EQ(kind.status, 2);
    EXPECT_EQ(kind.err, "micro850-host: --port: \"udp://plc:2000\" is not a way to reach a line "
                        "(tcp://HOST:PORT, rfc2217://HOST:PORT, or a device such as "
                        "/dev/ttyUSB0)\n");
    const QString project =
        file("p.json", R"({"port": {"device": "tcp://::1:2"}, "variables": [{"tag": "Speed"}]})");
    const Result file = host({"check", project});
    EXPECT_EQ(file.status, 2);
    EXPECT_EQ(file.err, "micro850-host: " + project.toStdString() +
                            ":1: port.device: \"tcp://::1:2\" has more than one colon (an IPv6 "
                            "address stands in brackets, as in tcp://[::1]:2000)\n");
}

TEST_F(HostPort, MayHaveAColonInItsName)
{
    simulate();
    ASSERT_TRUE(QFile::link(port(), path("usb-0:1:1.0-port0")));
    const Result result = host({"read", "Speed", "--port", "usb-0:1:1.0-port0"});
    EXPECT_EQ(result.out, "Speed  INT  1234\n") << result.err;
}

TEST_F(HostPort, ThatLooksLikeAnAddressWithoutItsBeginningIsReportedWithTheBeginning)
{
    const Result result = host({"read", "Speed", "--port", "plc:2000"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "micro850-host: plc:2000: cannot be opened: there is no such device in "
                          "this folder or in /dev (for a device server write tcp://plc:2000)\n");
}

TEST_F(HostPort, OfAServerThatIsNotThereIsReportedInWords)
{
    // Nobody listens at port 1 of the loop-back address.
    const Result result = host({"read", "Speed", "--port", "tcp://127.0.0.1:1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "micro850-host: tcp://127.0.0.1:1: cannot be opened: 127.0.0.1:1 refuses "
                          "the connection (does the device server run there, on this port?)\n");
    const Result name = host({"probe", "--port", "rfc2217://no-such-name.invalid:2000"});
    EXPECT_EQ(name.status, 1);
    EXPECT_NE(name.err.find("no-such-name.invalid"), std::string::npos) << name.err;
}

TEST_F(HostPort, OfRawTcpCannotBeScannedForSpeeds)
{
    const Result result = host({"probe", "--scan", "--port", "tcp://127.0.0.1:1"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "micro850-host: --scan: the server of tcp://127.0.0.1:1 sets the speed "
                          "itself (leave --scan out, or use rfc2217:// if the server speaks it)\n");
}

TEST_F(HostPort, MayBeNamedByTheShortOption)
{
    simulate();
    EXPECT_EQ(host({"read", "Speed", "-p", port()}).status, 0);
}

TEST_F(DefaultPort, IsThatOfTheEnvironment)
{
    simulate();
    for (const QStringList& command :
         {QStringList{"read", "Speed"}, QStringList{"probe"}, QStringList{"write", "Speed=1"},
          QStringList{"watch", "Speed", "--seconds", "1"}})
    {
        const Result result = hostWith(port(), command);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(linesOf(result.err).value(0),
                  "micro850-host: MICRO850_PORT: its port is used, " + port());
    }
    EXPECT_EQ(hostWith(port(), {"write", "Speed=1", "-q"}).err, "");
}

TEST_F(DefaultPort, OfTheEnvironmentYieldsToTheOptionAndToTheProject)
{
    simulate();
    EXPECT_EQ(hostWith("/none", {"read", "Speed", "-p", port()}).status, 0);
    project("p.json", port());
    EXPECT_EQ(hostWith("/none", {"read", "Speed", "--project", "p.json"}).status, 0);
    file("bare.json", R"({"variables": [{"tag": "Speed"}]})");
    EXPECT_EQ(hostWith(port(), {"read", "Speed", "--project", "bare.json"}).status, 0);
    const Result check = hostWith(port(), {"check", "bare.json"});
    EXPECT_EQ(check.out, "Speed: ok, INT\n") << check.err;
}

TEST_F(DefaultPort, OfTheEnvironmentThatIsNoAddressIsReportedWithItsName)
{
    const Result result = hostWith("tcp://plc", {"read", "Speed"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "micro850-host: MICRO850_PORT: \"tcp://plc\" names no port (write it "
                          "behind the host, as in tcp://HOST:2000)\n");
    const Result none = hostWith("none", {"read", "Speed"});
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.err, "micro850-host: MICRO850_PORT: its port is used, none\n"
                        "micro850-host: none: cannot be opened: there is no such device in this "
                        "folder or in /dev (choose the port with --port)\n");
}

TEST_F(DefaultPort, IsThatOfAProjectInTheFolderWhichIsNamed)
{
    simulate();
    project("plant.json", port());
    const Result plant = hostWith("", {"read", "Tank"});
    EXPECT_EQ(plant.out, "Tank[0]  INT  10\nTank[1]  INT  11\nTank[2]  INT  12\n");
    EXPECT_EQ(plant.err, "micro850-host: plant.json: this project of the folder is used, with the "
                         "port " +
                             port().toStdString() + "\n");
    EXPECT_EQ(hostWith("", {"read", "Tank", "-q"}).err, "");
    project("project.json", port());
    for (const QStringList& command :
         {QStringList{"probe"}, QStringList{"watch", "Tank", "--seconds", "1"},
          QStringList{"poll", "--seconds", "1"}, QStringList{"check"}})
    {
        const Result result = hostWith("", command);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(linesOf(result.err).value(0).section(": ", 1, 2),
                  "project.json: this project of the folder is used, with the port " + port());
    }
}

TEST_F(DefaultPort, OfTheFolderYieldsToAllOthers)
{
    simulate();
    project("project.json", "/none");
    EXPECT_EQ(hostWith(port(), {"read", "Speed"}).err,
              "micro850-host: MICRO850_PORT: its port is used, " + port().toStdString() + "\n");
    EXPECT_EQ(hostWith("", {"read", "Speed", "--port", port()}).err, "");
    project("other.json", port());
    EXPECT_EQ(hostWith("", {"read", "Speed", "--project", "other.json"}).err, "");
}

TEST_F(DefaultPort, OfAFileInTheFolderThatIsNoProjectIsReportedWithTheReasonWhyItWasRead)
{
    file("plant.json", "[1]");
    const Result result = hostWith("", {"read", "Speed"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(linesOf(result.err).size(), 1) << result.err;
    EXPECT_EQ(result.err.find("micro850-host: plant.json:1: [1] is not an object"), 0U)
        << result.err;
    EXPECT_NE(result.err.find(" (read because no port and no other project is named; name one "
                              "with --port or --project)\n"),
              std::string::npos)
        << result.err;
}

TEST_F(DefaultPort, OfTheFolderIsNotWrittenToWithoutATerminal)
{
    simulate();
    project("plant.json", port());
    const Result result = hostWith("", {"write", "Speed=7"});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(linesOf(result.err).value(1),
              "micro850-host: plant.json: write uses the port of a project that it found only on a "
              "terminal, where it asks (name the file with --project plant.json, or the port with "
              "--port)");
    EXPECT_EQ(hostWith("", {"read", "Speed"}).out, "Speed  INT  1234\n");
    const Result dry = hostWith("", {"write", "Speed=7", "--dry-run"});
    EXPECT_EQ(dry.status, 0) << dry.err;
    EXPECT_EQ(hostWith("", {"write", "Speed=7", "--yes"}).status, 2);
    EXPECT_EQ(hostWith("", {"write", "Speed=7", "--project", "plant.json"}).status, 0);
}

TEST_F(DefaultPort, OfTheFolderIsWrittenToWhenAPersonConfirmsIt)
{
    simulate();
    project("plant.json", port());
    const QString question =
        "write Speed: 1234 -> 7 to " + port() + ", the port of plant.json? [y/N]";
    open("unset MICRO850_PORT; $HOST write Speed=7; $HOST write Speed=7; $HOST read Speed", 200,
         20);
    ASSERT_TRUE(sees(question));
    type({"Enter"});
    ASSERT_TRUE(sees("nothing was written: not confirmed"));
    type({"y", "Enter"});
    ASSERT_TRUE(sees("[status 0]"));
    EXPECT_EQ(screen().filter(question).size(), 2);
    EXPECT_EQ(screen().join(' ').count("Speed: 1234 -> 7"), 3); // asked twice, written once
    EXPECT_EQ(screen().filter("Speed  INT  7").size(), 1);
}

} // namespace
