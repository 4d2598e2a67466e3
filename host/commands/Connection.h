#ifndef MICRO850_HOST_COMMANDS_CONNECTION_H
#define MICRO850_HOST_COMMANDS_CONNECTION_H

#include "Commands.h"
#include "DriverLibrary.h"
#include "LineFactory.h"
#include "Output.h"
#include "Project.h"

namespace micro850::host {

/// The project that the options name, or one that has only the port. A port that neither they nor
/// the project name is that of the environment variable MICRO850_PORT.
Project projectOf(const LineOptions& options);
/// For commands that need a project file: unless one, or a gateway, is named, it is project.json
/// or plant.json in the current folder.
void findProject(LineOptions& options);
/// For commands that need only a port: the same when no port is known in another way.
void findProjectForPort(LineOptions& options);
/// Tells of a port and of a project that nobody named for this command.
void noteDefaults(const LineOptions& options, const Project& project, const Output& output);
/// The tags of the project in the current folder, whether it is used or not: for suggestions. None
/// when there is no such file, or it has mistakes.
QStringList tagsInFolder();
/// Throws unless the project names a device.
void requirePort(const Project& project, const LineOptions& options);

/// Opens the line. Throws UserError, with the remedy, when that fails.
void requireOpen(Line& line, const PortSettings& port, const LineOptions& options);

/// The open line and the driver, for the duration of a command.
class Connection
{
public:
    Connection(const LineOptions& options, const Project& project);
    ~Connection() { m_line->close(); }

    const DriverApi& api() const { return m_library.api(); }
    Line& line() { return *m_line; }
    const SystemClock& clock() const { return m_clock; }

private:
    DriverLibrary m_library;
    std::unique_ptr<Line> m_line;
    SystemClock m_clock;
};

} // namespace micro850::host

#endif
