#include "Connection.h"

#include "NetworkAddress.h"
#include "SharedLine.h"
#include "UserError.h"
#include "Writable.h"

#include <QtCore/QFile>

namespace micro850::host {

namespace {

const char kPortVariable[] = "MICRO850_PORT";
// The first one that is there is taken.
const char* const kProjectFiles[] = {"project.json", "plant.json"};

// `source` is what named the device.
QString checkedDevice(const QString& device, const std::string& source)
{
    try {
        if (isNetworkAddress(device))
            networkAddress(device);
    } catch (const UserError& error) {
        throw UserError(source + ": " + error.what());
    }
    return device;
}

QString defaultDevice()
{
    return QString::fromLocal8Bit(qgetenv(kPortVariable));
}

// Empty when the folder has none.
std::string projectInFolder()
{
    for (const char* const file : kProjectFiles) {
        if (QFile::exists(QLatin1String(file)))
            return file;
    }
    return std::string();
}

Project readProject(const LineOptions& options)
{
    if (options.project.empty()) {
        Project project;
        project.stations.append(StationSettings());
        return project;
    }
    try {
        return Project::fromFile(textOf(options.project));
    } catch (const UserError& error) {
        // Nobody asked for this file.
        const char* const remedy = options.projectIsFound
                                       ? " (read because no port and no other project is named; "
                                         "name one with --port or --project)"
                                       : "";
        throw UserError(error.what() + std::string(remedy), error.status());
    }
}

void setPort(Project& project, const LineOptions& options)
{
    PortSettings& port = project.port;
    if (!options.port.empty())
        port.device = checkedDevice(textOf(options.port), "--port");
    else if (port.device.isEmpty() && options.gateway.empty())
        port.device = checkedDevice(defaultDevice(), kPortVariable);
    if (options.baud != 0)
        port.baud = options.baud;
    if (options.timeoutMs >= 0)
        port.timeoutMs = options.timeoutMs;
    if (!options.lowLatency)
        port.lowLatency = false;
}

// Whether the text would be an address with tcp:// in front of it.
bool isPlace(const QString& device)
{
    try {
        networkAddress(QStringLiteral("tcp://") + device);
        return true;
    } catch (const UserError&) {
        return false;
    }
}

// Whether the user means a device server, but wrote no address of one.
bool meansServer(const QString& device)
{
    const QString scheme = device.section(QLatin1Char(':'), 0, 0).toLower();
    const bool hasScheme = device.contains(QLatin1Char(':')) &&
                           (scheme == QLatin1String("tcp") || scheme == QLatin1String("rfc2217"));
    const bool dotted = device.count(QLatin1Char('.')) == 3 && device.at(0).isDigit();
    return hasScheme || (dotted && isPlace(device + QStringLiteral(":1"))) ||
           (device.contains(QLatin1String("::")) && isPlace(QStringLiteral("[%1]:1").arg(device)));
}

QString remedyFor(const QString& device, bool chosen)
{
    if (meansServer(device))
        return QStringLiteral(" (for a device server write tcp://HOST:PORT)");
    if (isPlace(device))
        return QStringLiteral(" (for a device server write tcp://%1)").arg(device);
    return chosen ? QString() : QStringLiteral(" (choose the port with --port)");
}

} // namespace

void requirePort(const Project& project, const LineOptions& options)
{
    if (!project.port.device.isEmpty())
        return;
    const std::string where = options.project.empty() ? "" : options.project + ": port.device: ";
    throw UserError(where + "no port is given (name it with -p DEVICE, in " + kPortVariable +
                    (where.empty() ? ", or in a project: --project FILE, or project.json or "
                                     "plant.json in this folder)"
                                   : ", or in the file)"));
}

void findProject(LineOptions& options)
{
    if (const SharedLine* const shared = SharedLine::current())
        shared->adopt(options);
    if (!options.project.empty() || !options.gateway.empty())
        return;
    options.project = projectInFolder();
    options.projectIsFound = !options.project.empty();
    if (!options.projectIsFound)
        throw UserError(
            "no project is given, and this folder has no project.json and no plant.json "
            "(name the file; micro850-host import makes one from a list of variables)");
}

void findProjectForPort(LineOptions& options)
{
    if (const SharedLine* const shared = SharedLine::current())
        shared->adopt(options);
    if (!options.project.empty() || !options.gateway.empty() || !options.port.empty() ||
        !defaultDevice().isEmpty())
        return;
    options.project = projectInFolder();
    options.projectIsFound = !options.project.empty();
}

QStringList tagsInFolder()
{
    QStringList tags;
    const std::string file = projectInFolder();
    if (file.empty())
        return tags;
    try {
        for (const Variable& variable : Project::fromFile(textOf(file)).variables)
            tags += variable.tag;
    } catch (const UserError&) { // it is not the user's concern
    }
    return tags;
}

void noteDefaults(const LineOptions& options, const Project& project, const Output& output)
{
    if (SharedLine::current()) // the shell has told
        return;
    const QString& device = project.port.device;
    if (options.port.empty() && !device.isEmpty() && device == defaultDevice())
        output.note(
            QStringLiteral("%1: its port is used, %2").arg(QLatin1String(kPortVariable), device));
    if (options.projectIsFound)
        output.note(
            QStringLiteral("%1: this project of the folder is used").arg(textOf(options.project)) +
            (device.isEmpty() ? QString() : QStringLiteral(", with the port ") + device));
}

Project projectOf(const LineOptions& options)
{
    Project project = readProject(options);
    requireWritableVariables(project, textOf(options.project));
    setPort(project, options);
    return project;
}

void requireOpen(Line& line, const PortSettings& port, const LineOptions& options)
{
    QString error;
    if (line.open(error))
        return;
    const QString text = port.device + QStringLiteral(": cannot be opened: ") + error;
    if (port.isNetwork())
        throw UserError(text.toStdString(), kExitRefused);
    throw UserError((text + remedyFor(port.device, !options.port.empty())).toStdString());
}

Connection::Connection(const LineOptions& options, const Project& project)
    : m_library(textOf(options.driver)), m_line(lineFor(project.port))
{
    requireOpen(*m_line, project.port, options);
}

} // namespace micro850::host
