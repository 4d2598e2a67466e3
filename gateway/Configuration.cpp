#include "Configuration.h"

#include "BrokerSection.h"
#include "ConfigurationPart.h"
#include "JsonFile.h"
#include "NetworkAddress.h"
#include "SerialLine.h"
#include "UserError.h"
#include "Visible.h"
#include "WebSection.h"
#include "Writable.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>
#include <QtCore/QMap>

#include <sys/stat.h>
#include <sys/un.h>

namespace micro850::gateway {

namespace {

// Each is a process of its own.
const int kMostLines = 64;
const int kLongestName = 64;
// With the 0 at its end the path has to fit into the address of a socket.
const int kLongestSocketPath = int(sizeof(sockaddr_un::sun_path)) - 1;

// A name becomes a level of a topic and a part of file names; clients choose by patterns with * and
// ?. Letters that look alike would make two lines look like one.
bool isLineName(const QString& name)
{
    const auto isWord = [](QChar c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    };
    if (name.isEmpty() || name.size() > kLongestName || !isWord(name.at(0)))
        return false;
    return std::all_of(name.begin(), name.end(),
                       [&](QChar c) { return isWord(c) || c == '_' || c == '-' || c == '.'; });
}

QString lineNameOf(const JsonNode& node)
{
    const QString name = QString::fromStdString(node.text());
    if (!isLineName(name))
        node.fail(node.found() + " is not a name of a line (1 to " + std::to_string(kLongestName) +
                  R"( of A-Z, a-z, 0-9, "_", "-" and ".", a letter or digit first))");
    return name;
}

QByteArray projectTextOf(const JsonNode& node, const QString& file)
{
    const QFileInfo info(file);
    if (info.exists() && !info.isFile())
        node.fail(file.toStdString() + " is not a file (name the project file)");
    QByteArray text;
    try {
        text = QByteArray::fromStdString(fileContent(file.toStdString()));
    } catch (const UserError& error) {
        node.fail(error.what());
    }
    // The worker gets it inside a JSON text.
    if (text.startsWith("\xEF\xBB\xBF"))
        text.remove(0, 3);
    if (QString::fromUtf8(text).toUtf8() != text)
        node.fail(file.toStdString() + " is not UTF-8 (save it as UTF-8)");
    return text;
}

// The end of a chain of links, also when nothing is there at the moment.
QString targetOf(QString path)
{
    const int kMostLinks = 40;
    for (int i = 0; i < kMostLinks && QFileInfo(path).isSymLink(); ++i)
        path = QFileInfo(path).symLinkTarget();
    const QString real = QFileInfo(path).canonicalFilePath();
    return real.isEmpty() ? QDir::cleanPath(path) : real;
}

// The same for two names of one line. A port of a device server serves one program, whatever the
// protocol.
QString identityOf(const QString& device)
{
    if (host::isNetworkAddress(device)) {
        const host::NetworkAddress address = host::networkAddress(device);
        return QStringLiteral("//") + address.text().toLower();
    }
    const QString path = host::devicePath(device);
    const bool missing = !device.startsWith('/') && !QFileInfo(path).exists();
    return targetOf(missing ? QStringLiteral("/dev/") + device : path);
}

// None when its project has mistakes, which are noted.
std::optional<LineSettings> lineOf(const JsonNode& node, const QString& folder, Mistakes& mistakes)
{
    LineSettings line;
    const JsonNode project = node.at("project");
    line.projectFile = pathOf(project, folder);
    line.projectText = projectTextOf(project, line.projectFile);
    const QString text = QString::fromUtf8(line.projectText);
    const std::vector<host::ProjectMistake> found =
        host::Project::mistakesInText(text, line.projectFile);
    for (const host::ProjectMistake& mistake : found)
        mistakes.add(mistake.message);
    if (!found.empty())
        return std::nullopt;
    line.project = host::Project::fromText(text, line.projectFile);
    host::requireWritableVariables(line.project, line.projectFile);
    if (line.project.port.device.isEmpty())
        project.fail(line.projectFile.toStdString() +
                     " names no device of its line (add \"port\": {\"device\": "
                     "\"/dev/ttyUSB0\"} to it)");
    return line;
}

/// The names and the devices of the lines read so far.
class Taken
{
public:
    void takeName(const JsonNode& node, const QString& name)
    {
        if (m_names.contains(name))
            node.fail("the name \"" + name.toStdString() + "\" is given to two lines (rename one)");
        m_names.insert(name, true);
    }
    void takeDevice(const JsonNode& node, const LineSettings& line)
    {
        const QString& device = line.project.port.device;
        const QString identity = identityOf(device);
        if (m_devices.contains(identity))
            node.fail(line.projectFile.toStdString() + " uses " + device.toStdString() +
                      ", which is the device of the line \"" +
                      m_devices.value(identity).toStdString() +
                      "\" too (use another device, or one project for both)");
        m_devices.insert(identity, line.name);
    }

private:
    QMap<QString, bool> m_names;
    QMap<QString, QString> m_devices; ///< the line's name by the identity of its device
};

void readLine(const JsonNode& node, const QString& folder, Taken& taken,
              QVector<LineSettings>& lines, Mistakes& mistakes)
{
    QString name;
    mistakes.runs([&] { node.expectKeys({"name", "project"}); });
    mistakes.runs([&] {
        const JsonNode given = node.at("name");
        name = lineNameOf(given);
        taken.takeName(given, name);
    });
    mistakes.runs([&] {
        if (std::optional<LineSettings> line = lineOf(node, folder, mistakes)) {
            line->name = name;
            taken.takeDevice(node.at("project"), *line);
            lines.append(*line);
        }
    });
}

void readLines(const JsonNode& root, const QString& folder, QVector<LineSettings>& lines,
               Mistakes& mistakes)
{
    const JsonNode list = root.at("lines");
    const JsonNode::Elements elements = list.elements();
    if (elements.empty())
        list.fail("lists no line (add one, for example {\"name\": \"press\", \"project\": "
                  "\"press.project.json\"})");
    if (elements.size() > std::size_t(kMostLines))
        list.fail("lists " + std::to_string(elements.size()) + " lines (at most " +
                  std::to_string(kMostLines) + "; start a second gateway for the others)");
    Taken taken;
    for (const JsonNode& line : elements)
        readLine(line, folder, taken, lines, mistakes);
}

QString socketPathOf(const JsonNode& node, const QString& folder)
{
    const QString path = pathOf(node, folder);
    const QByteArray bytes = QFile::encodeName(path);
    if (bytes.size() > kLongestSocketPath)
        node.fail('"' + path.toStdString() + "\" has " + std::to_string(bytes.size()) +
                  " bytes, too many for a socket (at most " + std::to_string(kLongestSocketPath) +
                  "; choose a shorter path)");
    struct stat status = {};
    if (::stat(bytes.constData(), &status) == 0 && !S_ISSOCK(status.st_mode))
        node.fail(path.toStdString() + " is there and is not a socket (choose another path)");
    return path;
}

void readSocket(const JsonNode& node, const QString& folder, ClientSettings& socket,
                Mistakes& mistakes)
{
    mistakes.runs([&] { node.expectKeys({"path", "mostClients"}); });
    mistakes.runs([&] {
        if (node.has("path"))
            socket.path = socketPathOf(node.at("path"), folder);
    });
    mistakes.runs([&] {
        socket.mostClients =
            static_cast<int>(node.integer("mostClients", 1, 10000, socket.mostClients));
    });
}

void readHistory(const JsonNode& node, const QString& folder, HistorySettings& history,
                 Mistakes& mistakes)
{
    mistakes.runs([&] { node.expectKeys({"file", "keepDays", "keepMegabytes"}); });
    mistakes.runs([&] { history.file = databasePathOf(node.at("file"), folder); });
    mistakes.runs([&] {
        history.keepDays = static_cast<int>(node.integer("keepDays", 1, 36500, history.keepDays));
    });
    mistakes.runs([&] {
        history.keepMegabytes =
            static_cast<int>(node.integer("keepMegabytes", 1, 1000000, history.keepMegabytes));
    });
}

/// A file that the gateway writes, or replaces.
struct OwnFile
{
    JsonNode node;
    QString path;
};

std::vector<OwnFile> ownFilesOf(const JsonNode& root, const Configuration& configuration)
{
    std::vector<OwnFile> files;
    const auto add = [&](const JsonNode& section, const QString& path) {
        if (!path.isEmpty())
            files.push_back({section.at("file"), path});
    };
    if (!configuration.history.file.isEmpty())
        add(root.at("history"), configuration.history.file);
    if (configuration.brokers.mqtt && !configuration.brokers.mqtt->queue.file.isEmpty())
        add(root.at("mqtt").at("queue"), configuration.brokers.mqtt->queue.file);
    if (configuration.brokers.sparkplug && !configuration.brokers.sparkplug->queue.file.isEmpty())
        add(root.at("sparkplug").at("queue"), configuration.brokers.sparkplug->queue.file);
    return files;
}

QStringList readFilesOf(const QString& path, const Configuration& configuration)
{
    QStringList read(path);
    for (const LineSettings& line : configuration.lines)
        read.append(line.projectFile);
    const auto add = [&read](const BrokerAddress& broker) {
        for (const QString& file : {broker.credentialsFile, broker.authoritiesFile,
                                    broker.certificateFile, broker.keyFile, broker.revokedFile})
        {
            if (!file.isEmpty())
                read.append(file);
        }
    };
    if (configuration.brokers.mqtt)
        add(configuration.brokers.mqtt->broker);
    if (configuration.brokers.sparkplug)
        add(configuration.brokers.sparkplug->broker);
    const WebSettings& web = configuration.web;
    for (const QString& file : {web.tokenFile, web.http.certificateFile, web.http.keyFile}) {
        if (!file.isEmpty())
            read.append(file);
    }
    return read;
}

// The gateway writes its databases and replaces the socket.
void checkOwnFiles(const JsonNode& root, const QString& path, const Configuration& configuration,
                   Mistakes& mistakes)
{
    const QStringList read = readFilesOf(path, configuration);
    QMap<QString, bool> taken;
    for (const OwnFile& file : ownFilesOf(root, configuration)) {
        mistakes.runs([&, target = targetOf(file.path)] {
            if (file.path == configuration.socket.path)
                file.node.fail("is the path of the socket too (choose another one)");
            for (const QString& other : read) {
                if (targetOf(QFileInfo(other).absoluteFilePath()) == target)
                    file.node.fail(file.path.toStdString() +
                                   " is a file that the gateway reads (choose another path)");
            }
            if (taken.contains(target))
                file.node.fail(file.path.toStdString() +
                               " is the file of another section too (choose another path)");
            taken.insert(target, true);
        });
    }
}

void readAll(const JsonNode& root, const QString& folder, Configuration& configuration,
             Mistakes& mistakes)
{
    mistakes.runs([&] {
        root.expectKeys({"$schema", "lines", "socket", "history", "mqtt", "sparkplug", "web"});
    });
    mistakes.runs([&] { root.text("$schema", ""); }); // for editors
    mistakes.runs([&] { readLines(root, folder, configuration.lines, mistakes); });
    if (root.has("socket"))
        readSocket(root.at("socket"), folder, configuration.socket, mistakes);
    if (root.has("history"))
        readHistory(root.at("history"), folder, configuration.history, mistakes);
    readBrokers(root, folder, configuration.brokers, mistakes);
    readWeb(root, folder, configuration.web, mistakes);
}

} // namespace

Configuration Configuration::fromFile(const QString& path, std::vector<std::string>& mistakes)
{
    Configuration configuration;
    Mistakes collected(mistakes);
    collected.runs([&] {
        const JsonNode root = JsonNode::fromFile(path.toStdString());
        if (root.has("variables") && !root.has("lines"))
            root.fail("is a project of one line, not a configuration of the gateway (name it under "
                      "\"lines\" of a configuration, or check it with micro850-host check)");
        readAll(root, QFileInfo(path).absolutePath(), configuration, collected);
        checkOwnFiles(root, path, configuration, collected);
    });
    return configuration;
}

Configuration Configuration::fromFile(const QString& path)
{
    std::vector<std::string> mistakes;
    Configuration configuration = fromFile(path, mistakes);
    if (!mistakes.empty())
        throw UserError(complaintOf(mistakes));
    return configuration;
}

std::string complaintOf(const std::vector<std::string>& mistakes)
{
    const std::size_t more = mistakes.size() - 1;
    if (more == 0)
        return mistakes.front();
    return mistakes.front() + " (and " + std::to_string(more) +
           " more: micro850-gateway --check lists all)";
}

} // namespace micro850::gateway
