#include "Configuration.h"

#include "UserError.h"

#include <gtest/gtest.h>

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace micro850;
using gateway::BrokerSettings;
using gateway::Configuration;
using gateway::WebSettings;

/// For the messages of failed expectations.
void PrintTo(const QStringList& list, std::ostream* out)
{
    *out << list.join('\n').toStdString();
}

namespace {

/// A folder with two projects, press.json and oven.json, and a configuration that a test writes.
class ConfigurationTest : public ::testing::Test
{
protected:
    ConfigurationTest()
    {
        project("press.json", "/dev/ttyUSB0");
        project("oven.json", "tcp://plc:2000");
    }
    QString path(const QString& name) const { return m_folder.filePath(name); }
    void write(const QString& name, const std::string& text) const
    {
        QFile file(path(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray::fromStdString(text));
    }
    void project(const QString& name, const std::string& device) const
    {
        write(name,
              R"({"port": {"device": ")" + device + R"("}, "variables": [{"tag": "Speed"}]})");
    }
    Configuration read(const std::string& text) const
    {
        write("gateway.json", text);
        return Configuration::fromFile(path("gateway.json"));
    }
    /// The mistakes without the name of the file in front, "FOLDER" standing for the folder.
    QStringList mistakes(const std::string& text) const
    {
        write("gateway.json", text);
        std::vector<std::string> found;
        Configuration::fromFile(path("gateway.json"), found);
        QStringList lines;
        for (const std::string& each : found) {
            QString line = QString::fromStdString(each);
            line.replace(path("gateway.json") + ": ", "").replace(m_folder.path(), "FOLDER");
            lines.append(line);
        }
        return lines;
    }
    /// The mistakes of a configuration with this and one good line.
    QStringList mistakesOf(const std::string& rest) const
    {
        return mistakes(R"({"lines": [{"name": "press", "project": "press.json"}], )" + rest + "}");
    }
    /// The mistakes of a configuration with one line of this name.
    QStringList mistakesOfName(const std::string& name) const
    {
        return mistakes(R"({"lines": [{"name": )" + name + R"(, "project": "press.json"}]})");
    }
    /// The mistakes of two lines with these devices.
    QStringList mistakesOfDevices(const std::string& one, const std::string& other) const
    {
        project("press.json", one);
        project("oven.json", other);
        return mistakes(kTwoLines);
    }

    static const char kTwoLines[];

    QTemporaryDir m_folder;
};

const char ConfigurationTest::kTwoLines[] =
    R"({"lines": [{"name": "press", "project": "press.json"}, {"name": "oven", "project": "oven.json"}]})";

const char kNameRule[] = " is not a name of a line (1 to 64 of A-Z, a-z, 0-9, \"_\", \"-\" and "
                         "\".\", a letter or digit first)";

} // namespace

TEST_F(ConfigurationTest, ReadsLinesAndTheirProjectsFromItsFolder)
{
    const Configuration configuration = read(kTwoLines);
    ASSERT_EQ(configuration.lines.size(), 2);
    EXPECT_EQ(configuration.lines[0].name, "press");
    EXPECT_EQ(configuration.lines[0].projectFile, path("press.json"));
    EXPECT_EQ(configuration.lines[0].project.port.device, "/dev/ttyUSB0");
    EXPECT_EQ(configuration.lines[1].project.variables.first().tag, "Speed");
    EXPECT_TRUE(configuration.lines[1].projectText.contains("tcp://plc:2000"));
}

TEST_F(ConfigurationTest, HasDefaultsForWhatIsLeftOut)
{
    const Configuration configuration = read(kTwoLines);
    EXPECT_EQ(configuration.socket.path, "/run/micro850/gateway.sock");
    EXPECT_EQ(configuration.socket.mostClients, 256);
    EXPECT_EQ(configuration.history.file, "");
    EXPECT_EQ(configuration.history.keepDays, 90);
    EXPECT_EQ(configuration.history.keepMegabytes, 1024);
}

TEST_F(ConfigurationTest, ReadsSocketAndHistory)
{
    const Configuration configuration = read(R"({
        "$schema": "gateway.schema.json", // for the editor
        "lines": [{"name": "press", "project": "press.json"}],
        "socket": {"path": "g.sock", "mostClients": 3},
        "history": {"file": "../h.sqlite", "keepDays": 7, "keepMegabytes": 64}})");
    EXPECT_EQ(configuration.socket.path, path("g.sock"));
    EXPECT_EQ(configuration.socket.mostClients, 3);
    EXPECT_EQ(configuration.history.file, QDir::cleanPath(path("../h.sqlite")));
    EXPECT_EQ(configuration.history.keepDays, 7);
    EXPECT_EQ(configuration.history.keepMegabytes, 64);
}

TEST_F(ConfigurationTest, TakesRelativePathsFromItsOwnFolderAndNotFromTheCurrentOne)
{
    write("gateway.json", kTwoLines);
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir(path(".")).mkpath("deeper") && QDir::setCurrent(path("deeper")));
    const Configuration configuration = Configuration::fromFile("../gateway.json");
    QDir::setCurrent(before);
    EXPECT_EQ(QFileInfo(configuration.lines[1].projectFile).canonicalFilePath(),
              QFileInfo(path("oven.json")).canonicalFilePath());
}

TEST_F(ConfigurationTest, ReadsWhereValuesAreDelivered)
{
    project("press.json", "/dev/ttyUSB0");
    write("gateway.json", R"({"lines": [{"name": "press", "project": "press.json"}],
        "mqtt": {"broker": {"host": "broker.plant", "tls": {"authorities": "ca.pem"},
                            "credentials": "c.json", "version": "3.1.1"},
                 "prefix": "plant/p7", "queue": {"file": "m.sqlite"}, "orders": {}},
        "sparkplug": {"broker": {"host": "10.0.0.7"}, "queue": {"file": "s.sqlite"},
                      "group": "g", "node": "n", "orders": {"maximumAgeMs": 2500}}})");
    const BrokerSettings brokers = Configuration::fromFile(path("gateway.json")).brokers;
    ASSERT_TRUE(brokers.mqtt && brokers.sparkplug);
    EXPECT_EQ(brokers.mqtt->broker.port, 8883);
    EXPECT_TRUE(brokers.mqtt->broker.isEncrypted);
    EXPECT_FALSE(brokers.mqtt->broker.isVersion5);
    EXPECT_EQ(brokers.mqtt->broker.authoritiesFile, path("ca.pem"));
    EXPECT_EQ(brokers.mqtt->broker.credentialsFile, path("c.json"));
    EXPECT_EQ(brokers.mqtt->queue.file, path("m.sqlite"));
    EXPECT_TRUE(brokers.mqtt->takesOrders);
    EXPECT_EQ(brokers.mqtt->maximumAgeMs, 10000);
    EXPECT_EQ(brokers.mqtt->discoveryPrefix, QString());
    EXPECT_EQ(brokers.sparkplug->broker.port, 1883);
    EXPECT_TRUE(brokers.sparkplug->takesOrders);
    EXPECT_EQ(brokers.sparkplug->maximumAgeMs, 2500);
    EXPECT_EQ(gateway::sparkplugSettingsOf(gateway::jsonOf(*brokers.sparkplug)).maximumAgeMs, 2500);
    // Each connection has its own, and the same after a restart.
    EXPECT_NE(brokers.mqtt->broker.clientId, brokers.sparkplug->broker.clientId);
    EXPECT_EQ(brokers.mqtt->broker.clientId,
              Configuration::fromFile(path("gateway.json")).brokers.mqtt->broker.clientId);
}

TEST_F(ConfigurationTest, ServesNoPageUnlessItIsConfigured)
{
    const std::string lines = R"("lines": [{"name": "press", "project": "press.json"}])";
    EXPECT_FALSE(read('{' + lines + '}').web.isOn);
    const WebSettings web = read('{' + lines + R"(, "web": {}})").web;
    EXPECT_TRUE(web.isOn);
    EXPECT_EQ(web.http.address, "127.0.0.1");
    EXPECT_EQ(web.http.port, 8850);
    EXPECT_EQ(web.tokenFile, "");
    EXPECT_FALSE(web.takesWrites);
    EXPECT_FALSE(web.isOpen());
    EXPECT_EQ(web.hosts, QStringList());
    EXPECT_EQ(web.http.mostConnections, 128);
    EXPECT_EQ(web.http.mostPerAddress, 16);
}

TEST_F(ConfigurationTest, ReadsWhereThePageIs)
{
    const WebSettings web = read(R"({"lines": [{"name": "press", "project": "press.json"}],
        "web": {"address": "0:0::0", "port": 443, "tokenFile": "token", "writes": true,
                "hosts": ["Panel7.Plant.Example.", "0:0:0::1"],
                "certificate": "c.pem", "key": "/k.pem", "proxies": ["::ffff:10.0.0.9"],
                "connections": 40, "connectionsPerAddress": 8}})")
                                .web;
    EXPECT_EQ(web.http.address, "::");
    EXPECT_EQ(web.http.port, 443);
    EXPECT_EQ(web.tokenFile, path("token"));
    EXPECT_TRUE(web.takesWrites);
    EXPECT_TRUE(web.isOpen());
    EXPECT_EQ(web.hosts, QStringList({"panel7.plant.example", "::1"}));
    EXPECT_EQ(web.http.certificateFile, path("c.pem"));
    EXPECT_EQ(web.http.keyFile, "/k.pem");
    EXPECT_EQ(web.http.proxies, QStringList("10.0.0.9"));
    EXPECT_EQ(web.http.mostConnections, 40);
    EXPECT_EQ(web.http.mostPerAddress, 8);
}

TEST_F(ConfigurationTest, RefusesAPageThatLetsOthersInWithoutAToken)
{
    EXPECT_EQ(mistakesOf(R"("web": {"address": "0.0.0.0"})"),
              QStringList("web: at 0.0.0.0 others can connect, so a token is needed (make one with "
                          "\"micro850-gateway token FILE\", and name it in \"tokenFile\")"));
    EXPECT_EQ(mistakesOf(R"("web": {"proxies": ["127.0.0.1"]})"),
              QStringList("web: behind a proxy others can connect, so a token is needed (make one "
                          "with \"micro850-gateway token FILE\", and name it in \"tokenFile\")"));
    EXPECT_EQ(
        mistakesOf(R"("web": {"writes": true})"),
        QStringList("web.writes: writing needs a token (make one with \"micro850-gateway token "
                    "FILE\", and name it in \"tokenFile\")"));
    EXPECT_EQ(
        mistakesOf(R"("web": {"address": "panel7", "writes": 1, "key": "k", "prot": 1})").size(),
        4);
    EXPECT_EQ(mistakesOf(R"("web": true)"),
              QStringList("web: true is not an object { ... } (use {} for this machine alone)"));
}

TEST_F(ConfigurationTest, RefusesABrokerThatCannotBe)
{
    project("press.json", "/dev/ttyUSB0");
    const auto of = [this](const std::string& broker, const std::string& rest) {
        return mistakesOf(R"("mqtt": {"broker": {)" + broker + R"(}, "prefix": "p", )" + rest +
                          "}");
    };
    const std::string good = R"("host": "b")";
    const std::string queue = R"("queue": {"file": "m.sqlite"})";
    EXPECT_EQ(of(good, queue), QStringList());
    EXPECT_EQ(of("", queue), QStringList("mqtt.broker: the key \"host\" is missing"));
    EXPECT_EQ(of(R"("host": "b:1883")", queue),
              QStringList("mqtt.broker.host: \"b:1883\" is not the name or the address of a host "
                          "(such as \"broker.plant.example\" or \"192.168.0.10\", with the port "
                          "in \"port\")"));
    EXPECT_EQ(of(R"("host": "b", "version": "4")", queue),
              QStringList("mqtt.broker.version: \"4\" is not a version of MQTT that is spoken "
                          "(\"5\" or \"3.1.1\")"));
    EXPECT_EQ(of(R"("host": "b", "tls": {"key": "k"})", queue),
              QStringList("mqtt.broker.tls: \"certificate\" and \"key\" go together (add the other "
                          "one)"));
    EXPECT_EQ(of(good, queue + R"(, "intervalMs": 99)"),
              QStringList("mqtt.intervalMs: 99 is not allowed (0, or 100 to 86400000)"));
    EXPECT_EQ(of(good, R"("queue": {"file": "press.json"})"),
              QStringList("mqtt.queue.file: FOLDER/press.json is there and is no database "
                          "(choose another path)"));
    EXPECT_EQ(of(good + R"(, "credentials": "m.sqlite")", queue),
              QStringList("mqtt.queue.file: FOLDER/m.sqlite is a file that the gateway reads "
                          "(choose another path)"));
    EXPECT_EQ(mistakesOf(R"("history": {"file": "x.sqlite"}, "mqtt": {"broker": {"host": "b",
                  "clientId": "c"}, "prefix": "p", "queue": {"file": "x.sqlite"}}, "sparkplug":
                  {"broker": {"host": "b", "clientId": "c"}, "group": "g", "node": "n",
                   "queue": {"file": "x.sqlite"}})"),
              QStringList({"sparkplug.broker.clientId: \"c\" is that of \"mqtt\" too (each "
                           "connection needs its own)",
                           "mqtt.queue.file: FOLDER/x.sqlite is the file of another section too "
                           "(choose another path)",
                           "sparkplug.queue.file: FOLDER/x.sqlite is the file of another section "
                           "too (choose another path)"}));
}

TEST_F(ConfigurationTest, RefusesAFileThatIsMissingOrNoJson)
{
    std::vector<std::string> found;
    Configuration::fromFile(path("none.json"), found);
    EXPECT_EQ(found, std::vector<std::string>(
                         {path("none.json").toStdString() +
                          ": cannot be read: No such file or directory (check the path)"}));
    ASSERT_EQ(mistakes("{\"lines\": [").size(), 1);
    EXPECT_EQ(mistakes("[]"),
              QStringList({"[] is not an object { ... }", "the key \"lines\" is missing"}));
}

TEST_F(ConfigurationTest, RefusesAConfigurationWithoutLines)
{
    EXPECT_EQ(mistakes("{}"), QStringList("the key \"lines\" is missing"));
    EXPECT_EQ(mistakes(R"({"lines": []})"),
              QStringList("lines: lists no line (add one, for example {\"name\": \"press\", "
                          "\"project\": \"press.project.json\"})"));
    EXPECT_EQ(mistakes(R"({"lines": 5})"), QStringList("lines: 5 is not an array [ ... ]"));
}

TEST_F(ConfigurationTest, TakesSixtyFourLinesAndNotOneMore)
{
    std::string lines;
    for (int i = 0; i < 64; ++i) {
        const QString name = QStringLiteral("p%1.json").arg(i);
        project(name, "/dev/ttyS" + std::to_string(i));
        lines += (i == 0 ? "" : ",") + std::string(R"({"name": "l)") + std::to_string(i) +
                 R"(", "project": ")" + name.toStdString() + "\"}";
    }
    EXPECT_EQ(mistakes("{\"lines\": [" + lines + "]}"), QStringList());
    EXPECT_EQ(
        mistakes("{\"lines\": [" + lines + R"(, {"name": "more", "project": "press.json"}]})"),
        QStringList("lines: lists 65 lines (at most 64; start a second gateway for the "
                    "others)"));
}

TEST_F(ConfigurationTest, SuggestsTheKeyThatWasProbablyMeant)
{
    EXPECT_EQ(mistakesOf(R"("sockt": {})"),
              QStringList("unknown key \"sockt\" (did you mean socket?)"));
    EXPECT_EQ(mistakesOf(R"("socket": {"pth": "x"})"),
              QStringList("socket: unknown key \"pth\" (did you mean path?)"));
    EXPECT_EQ(mistakesOf(R"("history": {"file": "h", "keepDay": 3})"),
              QStringList("history: unknown key \"keepDay\" (did you mean keepDays?)"));
    EXPECT_EQ(mistakes(R"({"lines": [{"name": "press", "project": "press.json", "nmae": "x"}]})"),
              QStringList("lines[0]: unknown key \"nmae\" (did you mean name?)"));
}

TEST_F(ConfigurationTest, TakesNamesThatAreSafeAsTopicsAndFileNames)
{
    for (const char* name : {"\"p\"", "\"0\"", "\"Press-2_left.a\""})
        EXPECT_EQ(mistakesOfName(name), QStringList()) << name;
    EXPECT_EQ(mistakesOfName('"' + std::string(64, 'a') + '"'), QStringList());
}

TEST_F(ConfigurationTest, RefusesOtherNames)
{
    for (const char* name :
         {"\"\"", "\"a b\"", "\"a/b\"", "\"..\"", "\".a\"", "\"-a\"", "\"_a\"", "\"+\"", "\"a#\"",
          "\"a*\"", "\"a?\"", "\"a:b\"", "\"$SYS\"", "\"\xC3\xA4\""})
        EXPECT_EQ(mistakesOfName(name),
                  QStringList("lines[0].name: " + QString::fromUtf8(name) + kNameRule));
    EXPECT_EQ(mistakesOfName("7"), QStringList("lines[0].name: 7 is not a text in quotes"));
    EXPECT_EQ(mistakesOfName('"' + std::string(65, 'a') + '"').size(), 1);
    EXPECT_EQ(mistakesOfName("\"a\\nb\"").size(), 1);
}

TEST_F(ConfigurationTest, ShowsHiddenCharactersOfANameAsEscapes)
{
    EXPECT_EQ(mistakesOfName("\"a\\u009b\\u202eb\""),
              QStringList(QStringLiteral("lines[0].name: \"a\\u009b\\u202eb\"") + kNameRule));
}

TEST_F(ConfigurationTest, RefusesTwoLinesOfTheSameName)
{
    EXPECT_EQ(mistakes(R"({"lines": [{"name": "press", "project": "press.json"},
                                     {"name": "press", "project": "oven.json"}]})"),
              QStringList("lines[1].name: the name \"press\" is given to two lines (rename one)"));
}

TEST_F(ConfigurationTest, RefusesTwoLinesOnTheSameDevice)
{
    const QString refused =
        "lines[1].project: FOLDER/oven.json uses %1, which is the device of the "
        "line \"press\" too (use another device, or one project for both)";
    EXPECT_EQ(mistakesOfDevices("/dev/null", "/dev/null"), QStringList(refused.arg("/dev/null")));
    EXPECT_EQ(mistakesOfDevices("/dev/null", "/dev/../dev/null"),
              QStringList(refused.arg("/dev/../dev/null")));
    EXPECT_EQ(mistakesOfDevices("/dev/null", "null"), QStringList(refused.arg("null")));
    // Neither is plugged in.
    EXPECT_EQ(mistakesOfDevices("ttyUSB99", "/dev/ttyUSB99"),
              QStringList(refused.arg("/dev/ttyUSB99")));
    EXPECT_EQ(mistakesOfDevices("/dev/ttyUSB98", "/dev/ttyUSB99"), QStringList());
}

TEST_F(ConfigurationTest, FollowsLinksToFindTwoLinesOnTheSameDevice)
{
    ASSERT_TRUE(QFile::link("/dev/null", path("one")) && QFile::link(path("one"), path("two")));
    EXPECT_EQ(mistakesOfDevices("/dev/null", path("two").toStdString()).size(), 1);
    ASSERT_TRUE(QFile::link("/dev/ttyUSB99", path("gone")));
    EXPECT_EQ(mistakesOfDevices(path("gone").toStdString(), "/dev/ttyUSB99").size(), 1);
    ASSERT_TRUE(QFile::link(path("circle"), path("circle")));
    EXPECT_EQ(mistakesOfDevices(path("circle").toStdString(), "/dev/ttyUSB99"), QStringList());
}

TEST_F(ConfigurationTest, RefusesTwoLinesOnTheSamePortOfADeviceServer)
{
    EXPECT_EQ(mistakesOfDevices("tcp://plc:2000", "TCP://PLC:2000").size(), 1);
    EXPECT_EQ(mistakesOfDevices("tcp://plc:2000", "rfc2217://plc:2000").size(), 1);
    EXPECT_EQ(mistakesOfDevices("tcp://plc:2000", "tcp://plc:2001"), QStringList());
    EXPECT_EQ(mistakesOfDevices("tcp://plc:2000", "tcp://other:2000"), QStringList());
}

TEST_F(ConfigurationTest, RefusesAProjectThatNamesNoDevice)
{
    write("press.json", R"({"variables": [{"tag": "Speed"}]})");
    EXPECT_EQ(mistakes(kTwoLines),
              QStringList("lines[0].project: FOLDER/press.json names no device of its line (add "
                          "\"port\": {\"device\": \"/dev/ttyUSB0\"} to it)"));
}

TEST_F(ConfigurationTest, TellsEveryMistakeInAProjectWithThatFilesNameAndTheLine)
{
    write("oven.json", "{\"port\": {\"device\": \"/dev/ttyS1\"},\n"
                       "\"variables\": [{\"tag\": \"Speed\", \"unitt\": \"rpm\"},\n"
                       "{\"tag\": \"Level\", \"station\": 7}]}");
    const QStringList found = mistakes(kTwoLines);
    ASSERT_EQ(found.size(), 2) << found.join('\n').toStdString();
    EXPECT_EQ(found.at(0),
              QString("FOLDER/oven.json:2: variables[0]: unknown key \"unitt\" (did you "
                      "mean unit?)"));
    EXPECT_TRUE(found.at(1).startsWith("FOLDER/oven.json:3: variables[1].station: "))
        << found.at(1).toStdString();
}

TEST_F(ConfigurationTest, RefusesAProjectThatCannotBeRead)
{
    QFile::remove(path("press.json"));
    EXPECT_EQ(mistakes(kTwoLines),
              QStringList("lines[0].project: FOLDER/press.json: cannot be read: No such file or "
                          "directory (check the path)"));
    ASSERT_TRUE(QDir(path(".")).mkpath("press.json"));
    EXPECT_EQ(
        mistakes(kTwoLines),
        QStringList("lines[0].project: FOLDER/press.json is not a file (name the project file)"));
    EXPECT_EQ(mistakes(R"({"lines": [{"name": "a", "project": "/dev/zero"}]})"),
              QStringList("lines[0].project: /dev/zero is not a file (name the project file)"));
    write("oven.json", "\xFF");
    EXPECT_EQ(mistakes(R"({"lines": [{"name": "a", "project": "oven.json"}]})"),
              QStringList("lines[0].project: FOLDER/oven.json is not UTF-8 (save it as UTF-8)"));
}

TEST_F(ConfigurationTest, ReadsAProjectThatBeginsWithAByteOrderMark)
{
    write("press.json", "\xEF\xBB\xBF"
                        R"({"port": {"device": "/dev/ttyS1"}, "variables": [{"tag": "A"}]})");
    const Configuration configuration = read(kTwoLines);
    EXPECT_EQ(configuration.lines[0].projectText.at(0), '{');
}

TEST_F(ConfigurationTest, TakesASocketPathThatJustFitsAndNoLongerOne)
{
    // An address has 108 bytes, the last of which is 0.
    const std::string longest = "/" + std::string(106, 'x');
    EXPECT_EQ(mistakesOf(R"("socket": {"path": ")" + longest + "\"}"), QStringList());
    EXPECT_EQ(
        mistakesOf(R"("socket": {"path": ")" + longest + "x\"}"),
        QStringList(QString::fromStdString(
            "socket.path: \"" + longest +
            "x\" has 108 bytes, too many for a socket (at most 107; choose a shorter path)")));
    // Counted in bytes, not in characters, and with the folder of the configuration.
    const std::string umlauts = QString(54, QChar(0xE4)).toStdString();
    EXPECT_EQ(mistakesOf(R"("socket": {"path": "/)" + umlauts + "\"}").size(), 1);
    EXPECT_EQ(mistakesOf(R"("socket": {"path": ")" + std::string(107, 'x') + "\"}").size(), 1);
}

TEST_F(ConfigurationTest, RefusesASocketPathWhereSomethingElseIs)
{
    EXPECT_EQ(mistakesOf(R"("socket": {"path": "press.json"})"),
              QStringList("socket.path: FOLDER/press.json is there and is not a socket (choose "
                          "another path)"));
    EXPECT_EQ(mistakesOf(R"("socket": {"path": "/"})").size(), 1);
    EXPECT_EQ(mistakesOf(R"("socket": {"path": ""})"),
              QStringList("socket.path: a path has at least one character"));
    EXPECT_EQ(mistakesOf(R"("socket": {"path": "a\nb"})"),
              QStringList(
                  "socket.path: a path has no control or format characters, such as a line feed"));
}

TEST_F(ConfigurationTest, TakesAPathWhereASocketIs)
{
    const QByteArray name = QFile::encodeName(path("g.sock"));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, name.constData(), sizeof address.sun_path);
    const int server = ::socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(::bind(server, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(mistakesOf(R"("socket": {"path": "g.sock"})"), QStringList());
    ::close(server);
}

TEST_F(ConfigurationTest, RefusesAHistoryThatIsNoFileOfItsOwn)
{
    EXPECT_EQ(mistakesOf(R"("history": {})"), QStringList("history: the key \"file\" is missing"));
    EXPECT_EQ(mistakesOf(R"("history": {"file": "."})"),
              QStringList("history.file: FOLDER is not a file (choose another path)"));
    EXPECT_EQ(mistakesOf(R"("history": {"file": "x.sock"}, "socket": {"path": "x.sock"})"),
              QStringList("history.file: is the path of the socket too (choose another one)"));
    for (const char* file : {"gateway.json", "press.json"})
        EXPECT_EQ(
            mistakesOf(R"("history": {"file": ")" + std::string(file) + "\"}"),
            QStringList(QStringLiteral(
                            "history.file: FOLDER/%1 is there and is no database (choose another "
                            "path)")
                            .arg(file)));
}

TEST_F(ConfigurationTest, RefusesSomebodysFileAsADatabaseThatItWouldRename)
{
    write("plan.txt", "half past nine: coffee");
    const std::string text = "FOLDER/plan.txt is there and is no database (choose another path)";
    EXPECT_EQ(mistakesOf(R"("history": {"file": "plan.txt"})"),
              QStringList(QString::fromStdString("history.file: " + text)));
    EXPECT_EQ(mistakesOf(R"("mqtt": {"broker": {"host": "x"}, "prefix": "p",
                                     "queue": {"file": "plan.txt"}})"),
              QStringList(QString::fromStdString("mqtt.queue.file: " + text)));

    write("empty.sqlite", "");
    EXPECT_EQ(mistakesOf(R"("history": {"file": "empty.sqlite"})"), QStringList());
    write("real.sqlite", std::string("SQLite format 3", 16) + "...");
    EXPECT_EQ(mistakesOf(R"("history": {"file": "real.sqlite"})"), QStringList());
    // It was used by a gateway, and is damaged now.
    write("plan.txt.lock", "");
    EXPECT_EQ(mistakesOf(R"("history": {"file": "plan.txt"})"), QStringList());
}

// PREFIX is the beginning of its topics; Sparkplug has its own form for everything there.
TEST_F(ConfigurationTest, RefusesThePrefixOfSparkplugForTheValues)
{
    for (const char* prefix : {"spBv1.0", "spBv1.0/hall2"})
        EXPECT_EQ(
            mistakesOf(R"("mqtt": {"broker": {"host": "x"}, "queue": {"file": "q"},
                                "prefix": ")" +
                       std::string(prefix) + "\"}"),
            QStringList(QStringLiteral("mqtt.prefix: \"%1\" is where Sparkplug has its topics "
                                       "(choose another prefix)")
                            .arg(prefix)));
}

TEST_F(ConfigurationTest, SaysWhereTheWordsOfOtherProgramsGo)
{
    const auto of = [this](const std::string& broker) {
        return mistakesOf(R"("mqtt": {"broker": {"host": "b", )" + broker +
                          R"(}, "prefix": "p", "queue": {"file": "q"}})");
    };
    for (const char* key : {"user", "username", "password"})
        EXPECT_EQ(of('"' + std::string(key) + R"(": "x")"),
                  QStringList(QStringLiteral("mqtt.broker: unknown key \"%1\" (it stands in the "
                                             "file that \"credentials\" names)")
                                  .arg(key)));
    const std::vector<std::pair<const char*, const char*>> words = {{"ca", "authorities"},
                                                                    {"cafile", "authorities"},
                                                                    {"caFile", "authorities"},
                                                                    {"cert", "certificate"},
                                                                    {"crl", "revoked"}};
    for (const auto& [word, meant] : words)
        EXPECT_EQ(
            of(R"("tls": {")" + std::string(word) + R"(": "x"})"),
            QStringList(QStringLiteral("mqtt.broker.tls: unknown key \"%1\" (did you mean %2?)")
                            .arg(word, meant)));
}

TEST_F(ConfigurationTest, TellsOneMistakeOfASectionThatIsNoObject)
{
    const QString no = QStringLiteral(" is not an object { ... }");
    EXPECT_EQ(mistakesOf(R"("mqtt": [1], "sparkplug": "x")"),
              QStringList({"mqtt: [1]" + no, "sparkplug: \"x\"" + no}));
    EXPECT_EQ(
        mistakesOf(R"("mqtt": {"broker": "b:1883", "prefix": "p", "queue": "q.sqlite",
                             "orders": true, "discovery": true})"),
        QStringList(
            {"mqtt.broker: \"b:1883\"" + no + " (such as {\"host\": \"broker.plant.example\"})",
             "mqtt.queue: \"q.sqlite\"" + no +
                 " (such as {\"file\": \"/var/lib/micro850/mqtt.sqlite\"})",
             "mqtt.orders: true" + no + " (use {} to take orders, leave the key out to take none)",
             "mqtt.discovery: true" + no +
                 " (use {} to announce variables, leave the key out to announce "
                 "none)"}));
    EXPECT_EQ(
        mistakesOf(R"("mqtt": {"broker": {"host": "b", "tls": true}, "prefix": "p",
                             "queue": {"file": "q"}})"),
        QStringList("mqtt.broker.tls: true" + no + " (use {} for the authorities of the system)"));
}

// PREFIX/status would be the gateway's and Home Assistant's.
TEST_F(ConfigurationTest, RefusesThePrefixOfHomeAssistantForTheValues)
{
    const std::string begin = R"("mqtt": {"broker": {"host": "x"}, "queue": {"file": "q"}, )";
    EXPECT_EQ(mistakesOf(begin + R"("prefix": "homeassistant", "discovery": {}})"),
              QStringList("mqtt.discovery: Home Assistant and the values have the same prefix "
                          "(choose another \"prefix\" for the values)"));
    EXPECT_EQ(mistakesOf(begin + R"("prefix": "homeassistant"})"), QStringList());
}

TEST_F(ConfigurationTest, HasLimits)
{
    const struct
    {
        const char* section;
        const char* key;
        int least;
        int most;
    } limits[] = {{"\"socket\": {", "mostClients", 1, 10000},
                  {R"("history": {"file": "h", )", "keepDays", 1, 36500},
                  {R"("history": {"file": "h", )", "keepMegabytes", 1, 1000000}};
    for (const auto& limit : limits) {
        const auto mistakesOfNumber = [&](int number) {
            return mistakesOf(std::string(limit.section) + '"' + limit.key +
                              "\": " + std::to_string(number) + "}");
        };
        EXPECT_EQ(mistakesOfNumber(limit.least), QStringList()) << limit.key;
        EXPECT_EQ(mistakesOfNumber(limit.most), QStringList()) << limit.key;
        EXPECT_EQ(mistakesOfNumber(limit.least - 1).size(), 1) << limit.key;
        EXPECT_EQ(mistakesOfNumber(limit.most + 1).size(), 1) << limit.key;
    }
}

TEST_F(ConfigurationTest, ListsAllMistakesAtOnce)
{
    write("oven.json", R"({"variables": []})");
    const QStringList found = mistakes(R"({"lines": [{"name": "a b", "project": "none.json"},
                                                     {"name": "oven", "project": "oven.json"}],
                                           "socket": {"path": "", "mostClients": 0},
                                           "history": {"keepDays": 0}, "more": 1})");
    QStringList places;
    for (const QString& line : found)
        places.append(line.section(": ", 0, 0));
    EXPECT_EQ(places.join(' ').toStdString(),
              "unknown key \"more\" (allowed lines[0].name lines[0].project FOLDER/oven.json:1 "
              "socket.path socket.mostClients history history.keepDays");
}

TEST_F(ConfigurationTest, NamesTheFirstMistakeAndTheNumberOfTheOthers)
{
    try {
        read(R"({"lines": [], "socket": {"path": "", "mostClients": 0}})");
        FAIL();
    } catch (const UserError& error) {
        const std::string what = error.what();
        EXPECT_NE(what.find("lines: lists no line"), std::string::npos) << what;
        EXPECT_NE(what.find(" (and 2 more: micro850-gateway --check lists all)"), std::string::npos)
            << what;
        EXPECT_EQ(error.status(), kExitUsage);
    }
}
