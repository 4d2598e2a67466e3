#include "Connection.h"

#include "NetworkAddress.h"
#include "UserError.h"
#include "Writable.h"

namespace micro850::host {

namespace {

QString checkedDevice(const QString& device)
{
    try {
        if (isNetworkAddress(device))
            networkAddress(device);
    } catch (const UserError& error) {
        throw UserError(std::string("--port: ") + error.what());
    }
    return device;
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
    throw UserError(where + "no port is given (name it with --port DEVICE" +
                    (where.empty() ? " or --project FILE" : " or in the file") + ")");
}

void setDefaultProject(LineOptions& options)
{
    if (options.project.empty() && options.gateway.empty())
        options.project = "project.json";
}

Project projectOf(const LineOptions& options)
{
    Project project;
    if (options.project.empty())
        project.stations.append(StationSettings());
    else
        project = Project::fromFile(textOf(options.project));
    requireWritableVariables(project, textOf(options.project));
    if (!options.port.empty())
        project.port.device = checkedDevice(textOf(options.port));
    if (options.baud != 0)
        project.port.baud = options.baud;
    if (options.timeoutMs >= 0)
        project.port.timeoutMs = options.timeoutMs;
    if (!options.lowLatency)
        project.port.lowLatency = false;
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
