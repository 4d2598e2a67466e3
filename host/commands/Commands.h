#ifndef MICRO850_HOST_COMMANDS_COMMANDS_H
#define MICRO850_HOST_COMMANDS_COMMANDS_H

#include "CommandLine.h"

#include <QtCore/QString>

namespace micro850::host {

/// Each adds one command to the command line.
void addProbe(CommandLine& line);
void addPoll(CommandLine& line);
void addRead(CommandLine& line);
void addWrite(CommandLine& line);
void addFind(CommandLine& line);
void addWatch(CommandLine& line);
void addLog(CommandLine& line);
void addHistory(CommandLine& line);
void addTrace(CommandLine& line);
void addCheck(CommandLine& line);
void addImport(CommandLine& line);
void addDoctor(CommandLine& line);
void addShell(CommandLine& line);
/// Adds all commands but the shell, which offers them.
void addCommands(CommandLine& line);

/// The form of the results.
struct OutputOptions
{
    bool json = false;
    bool quiet = false;

    void addTo(CommandOptions& command);
};

/// The line and the driver, for the commands that use them. An option that is not given has the
/// project's value, or its default.
struct LineOptions
{
    std::string driver;
    std::string project;
    /// The project was not named, but found in the current folder.
    bool projectIsFound = false;
    std::string port;
    std::string gateway;
    std::string gatewayLine;
    int baud = 0;
    int timeoutMs = -1;
    bool lowLatency = true;
    std::string trace;
    bool force = false;

    void addTo(CommandOptions& command);
};

/// A text of the command line.
inline QString textOf(const std::string& argument)
{
    return QString::fromLocal8Bit(argument.c_str());
}

/// The help of --raw.
extern const char kRawHelp[];

/// Ends the help of the commands that talk to one controller.
extern const char kStatuses[];

} // namespace micro850::host

#endif
