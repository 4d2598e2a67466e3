#ifndef MICRO850_HOST_COMMANDS_CONNECTION_H
#define MICRO850_HOST_COMMANDS_CONNECTION_H

#include "Commands.h"
#include "DriverLibrary.h"
#include "LineFactory.h"
#include "Project.h"

namespace micro850::host {

/// The project that the options name, or one that has only the port.
Project projectOf(const LineOptions& options);
/// For commands whose project file is project.json unless another one, or a gateway, is named.
void setDefaultProject(LineOptions& options);
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
