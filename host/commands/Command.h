#ifndef MICRO850_HOST_COMMANDS_COMMAND_H
#define MICRO850_HOST_COMMANDS_COMMAND_H

#include <QtCore/QString>

#include <CLI/CLI.hpp>

#include <functional>

namespace micro850::host {

/// A subcommand: its place in the command line, and what runs it and gives the exit status. It
/// throws UserError for what a person has to be told.
struct Subcommand
{
    CLI::App* app;
    std::function<int()> run;
};

Subcommand addProbe(CLI::App& app);
Subcommand addPoll(CLI::App& app);
Subcommand addRead(CLI::App& app);
Subcommand addWrite(CLI::App& app);
Subcommand addWatch(CLI::App& app);
Subcommand addLog(CLI::App& app);
Subcommand addTrace(CLI::App& app);
Subcommand addCheck(CLI::App& app);
Subcommand addImport(CLI::App& app);

/// How results are told.
struct OutputOptions
{
    bool json = false;
    bool quiet = false;

    void addTo(CLI::App& command);
};

/// The line and the driver, of the subcommands that use them. What is not given is as the project
/// says, or its default.
struct LineOptions
{
    std::string driver;
    std::string project;
    std::string port;
    int baud = 0;
    int timeoutMs = -1;
    std::string trace;

    void addTo(CLI::App& command);
};

/// A text of the command line.
inline QString textOf(const std::string& argument)
{
    return QString::fromLocal8Bit(argument.c_str());
}

/// Ends the help of the subcommands that talk to one controller.
extern const char kStatuses[];

} // namespace micro850::host

#endif
