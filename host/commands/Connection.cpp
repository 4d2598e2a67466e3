#include "Connection.h"

#include "UserError.h"

namespace micro850::host {

void requirePort(const Project& project, const LineOptions& options)
{
    if (!project.port.device.isEmpty())
        return;
    const std::string where = options.project.empty() ? "" : options.project + ": port.device: ";
    throw UserError(where + "no port is given (name it with --port DEVICE" +
                    (where.empty() ? " or --project FILE" : " or in the file") + ")");
}

Project projectOf(const LineOptions& options)
{
    Project project;
    if (options.project.empty())
        project.stations.append(StationSettings());
    else
        project = Project::fromFile(textOf(options.project));
    if (!options.port.empty())
        project.port.device = textOf(options.port);
    if (options.baud != 0)
        project.port.baud = options.baud;
    if (options.timeoutMs >= 0)
        project.port.timeoutMs = options.timeoutMs;
    return project;
}

void requireOpen(Line& line, const PortSettings& port)
{
    QString error;
    if (line.open(error))
        return;
    throw UserError((port.device + QStringLiteral(": cannot be opened: ") + error +
                     QStringLiteral(" (choose the port with --port)"))
                        .toStdString());
}

Connection::Connection(const LineOptions& options, const Project& project)
    : m_library(textOf(options.driver)), m_line(project.port)
{
    requireOpen(m_line, project.port);
}

} // namespace micro850::host
