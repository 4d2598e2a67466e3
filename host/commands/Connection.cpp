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

Target targetOf(const TagAddress& address, const Project& project, int station)
{
    Target target = {{project.stations.first().number, address.tag}, address, nullptr};
    if (const Variable* variable = project.variable(address.tag)) {
        target.tag = {variable->station, variable->tag};
        target.type = variable->type;
        target.address.element += variable->element;
        if (!address.indexed)
            target.address.elements = variable->length;
        target.address.indexed = address.indexed || variable->length > 1;
    }
    if (station >= 0)
        target.tag.station = station;
    return target;
}

Project withoutVariables(Project project, const QVector<Target>& targets)
{
    project.variables.clear();
    for (const Target& target : targets) {
        if (!project.hasStation(target.tag.station)) {
            StationSettings station;
            station.number = target.tag.station;
            project.stations.append(station);
        }
    }
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
