#include "program_fixture.h"

#include <QtCore/QFile>

namespace {

/// The gateway's command line, in a folder with a configuration of one line.
class GatewayCommand : public ProgramTest
{
protected:
    GatewayCommand()
    {
        file("press.json",
             R"({"port": {"device": "/dev/ttyUSB0"}, "variables": [{"tag": "Speed"}]})");
        m_configuration = configuration(R"("socket": {"path": "g.sock"})");
    }
    QString configuration(const std::string& rest)
    {
        return file("gateway.json",
                    R"({"lines": [{"name": "press", "project": "press.json"}], )" + rest + "}");
    }
    Result gateway(const QStringList& arguments) const
    {
        return runProgram(MICRO850_GATEWAY, arguments, {}, path("."));
    }
    std::string pathText(const char* name) const { return path(name).toStdString(); }

    QString m_configuration;
};

void expectRefused(const Result& result, const std::string& text)
{
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, text);
}

} // namespace

TEST_F(GatewayCommand, ChecksAConfigurationAndSumsItUp)
{
    const Result result = gateway({"--check", "gateway.json"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, "gateway.json: ok: 1 line, 1 variable (0 writable), socket " +
                              pathText("g.sock") + ", no history\n");
    EXPECT_EQ(gateway({"gateway.json", "--check"}).out, result.out);
}

TEST_F(GatewayCommand, CountsWhatMayBeWrittenAndTellsTheHistory)
{
    file("press.json", R"({"port": {"device": "/dev/ttyUSB0"},
                           "variables": [{"tag": "A", "writable": true}, {"tag": "B"}]})");
    configuration(R"("history": {"file": "h.sqlite", "keepDays": 1, "keepMegabytes": 5})");
    EXPECT_EQ(gateway({"--check", "gateway.json"}).out,
              "gateway.json: ok: 1 line, 2 variables (1 writable), socket "
              "/run/micro850/gateway.sock, history " +
                  pathText("h.sqlite") + ", at most 1 day and 5 MB\n");
}

TEST_F(GatewayCommand, ListsEveryMistakeOfAConfiguration)
{
    configuration(R"("sockt": {}, "history": {"keepDays": 0})");
    expectRefused(
        gateway({"--check", "gateway.json"}),
        "micro850-gateway: gateway.json: unknown key \"sockt\" (did you mean socket?)\n"
        "micro850-gateway: gateway.json: history: the key \"file\" is missing\n"
        "micro850-gateway: gateway.json: history.keepDays: 0 is not allowed (1 to 36500)\n");
}

TEST_F(GatewayCommand, DoesNotRunAServiceWithAWrongConfiguration)
{
    configuration(R"("sockt": {}, "history": {"keepDays": 0})");
    const Result result = gateway({"gateway.json"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("gateway.json: unknown key \"sockt\" (did you mean socket?)"),
              std::string::npos)
        << result.err;
    EXPECT_FALSE(QFile::exists(path("g.sock")));
}

TEST_F(GatewayCommand, NamesAConfigurationThatIsMissing)
{
    for (const QStringList& arguments :
         {QStringList{"none.json"}, QStringList{"--check", "none.json"}})
        expectRefused(gateway(arguments),
                      "micro850-gateway: none.json: cannot be read: No such file or directory "
                      "(check the path)\n");
}

TEST_F(GatewayCommand, LetsNoTerminalObeyTheNameOfAConfiguration)
{
    const QString name = "\x1b[31m.json";
    QFile::rename(m_configuration, path(name));
    EXPECT_EQ(gateway({"--check", name}).out.find("\\x1b[31m.json: ok"), 0u);
    EXPECT_EQ(gateway({"--check", name + "?"}).err.find('\x1b'), std::string::npos);
}

TEST_F(GatewayCommand, ExplainsHowItIsUsed)
{
    expectRefused(gateway({}),
                  "micro850-gateway: a configuration file is needed, or a command (see "
                  "micro850-gateway --help)\n");
    expectRefused(gateway({"stats"}), "micro850-gateway: \"stats\" is not a command (did you mean "
                                      "status?) (see micro850-gateway --help)\n");
    expectRefused(gateway({"--chek", "gateway.json"}),
                  "micro850-gateway: \"--chek\" is not expected here (did you mean --check?) (see "
                  "micro850-gateway --help)\n");
    expectRefused(
        gateway({"gateway.json", "more.json"}),
        "micro850-gateway: \"more.json\" is not expected here (see micro850-gateway --help)\n");
    expectRefused(
        gateway({"status", "--socket"}),
        "micro850-gateway: --socket: its value is missing (see micro850-gateway status --help)\n");
    EXPECT_EQ(gateway({"--version"}).out, "micro850-gateway " MICRO850_VERSION "\n");
}

TEST_F(GatewayCommand, HidesTheCommandThatStartsAWorker)
{
    EXPECT_EQ(gateway({"--help"}).out.find("worker"), std::string::npos);
    // It is started by the service only, which gives it a socket.
    expectRefused(gateway({"worker"}), "micro850-gateway: only the service starts a worker (use "
                                       "micro850-gateway CONFIG.json)\n");
}

TEST_F(GatewayCommand, SaysThatNoGatewayAnswers)
{
    for (const char* command : {"status", "reload"}) {
        const Result result = gateway({command, "--socket", "none.sock"});
        EXPECT_EQ(result.status, 1) << command;
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err.find("none.sock: there is no such socket"), std::string::npos)
            << result.err;
    }
}

TEST_F(GatewayCommand, SaysThatAFileIsNoSocket)
{
    file("gw.log", "");
    const Result result = gateway({"status", "--socket", "gw.log"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "micro850-gateway: gw.log: is not a socket (name the socket of "
                          "micro850-gateway)\n");
}

TEST_F(GatewayCommand, NotesTheFoldersThatAreMissingBeforeAStart)
{
    configuration(R"("socket": {"path": "/run/micro850-none/g.sock"},
                     "history": {"file": "none/h.sqlite"})");
    const Result noted = gateway({"--check", "gateway.json"});
    EXPECT_EQ(noted.status, 0);
    EXPECT_EQ(noted.err,
              "micro850-gateway: note: gateway.json: socket.path: the folder /run/micro850-none is "
              "not there now (systemd makes it for the installed service; else create it before "
              "the start)\n"
              "micro850-gateway: note: gateway.json: history.file: the folder " +
                  pathText("none") +
                  " is not there, and nothing is recorded until it is (create it, writable for the "
                  "user of the service)\n");
}

TEST_F(GatewayCommand, RefusesASocketWhoseFolderIsMissing)
{
    configuration(R"("socket": {"path": "none/g.sock"})");
    expectRefused(gateway({"--check", "gateway.json"}),
                  "micro850-gateway: gateway.json: socket.path: the folder " + pathText("none") +
                      " is not there, and the service would not start (create it, or choose "
                      "another path)\n");
}

TEST_F(GatewayCommand, SaysThatAFileIsAProject)
{
    expectRefused(gateway({"--check", "press.json"}),
                  "micro850-gateway: press.json: is a project of one line, not a configuration of "
                  "the gateway (name it under \"lines\" of a configuration, or check it with "
                  "micro850-host check)\n");
}

TEST_F(GatewayCommand, AsksTheGatewayThatTheEnvironmentNames)
{
    for (const char* command : {"status", "reload"}) {
        const Result named = runProgram(MICRO850_GATEWAY, {command},
                                        {QStringLiteral("MICRO850_GATEWAY=none.sock")}, path("."));
        EXPECT_EQ(named.status, 1);
        EXPECT_EQ(named.err.find("micro850-gateway: none.sock: there is no such socket"), 0u)
            << named.err;
        const Result chosen = runProgram(MICRO850_GATEWAY, {command, "--socket", "other.sock"},
                                         {QStringLiteral("MICRO850_GATEWAY=none.sock")}, path("."));
        EXPECT_EQ(chosen.err.find("micro850-gateway: other.sock: "), 0u) << chosen.err;
    }
}
