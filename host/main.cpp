// micro850-host: a reference host. It loads the driver as a panel runtime does and reads, writes
// and watches a controller's tags.

#include "Commands.h"
#include "UserError.h"

#include <CLI/CLI.hpp>
#include <QtCore/QCoreApplication>

#include <exception>
#include <functional>
#include <iostream>

namespace {

using Command = std::function<int(const host::Options&)>;

/// The options as the command line parser wants them.
struct Arguments
{
    std::string driver, project, port, trace;
    int baud = 0;
    int station = -1;
    double seconds = 0;
    double interval = 0;
    std::vector<std::string> rest;

    host::Options options() const
    {
        host::Options options;
        options.driver = QString::fromLocal8Bit(driver.c_str());
        options.project = QString::fromLocal8Bit(project.c_str());
        options.port = QString::fromLocal8Bit(port.c_str());
        options.trace = QString::fromLocal8Bit(trace.c_str());
        options.baud = baud;
        options.station = station;
        options.seconds = seconds;
        options.interval = interval;
        for (const std::string& argument : rest)
            options.arguments += QString::fromLocal8Bit(argument.c_str());
        return options;
    }
};

const char kStatuses[] =
    "Exit status: 0 done, 1 the controller or the line refused, 2 usage or configuration.";

void addLineOptions(CLI::App& command, Arguments& arguments)
{
    command.add_option("--port", arguments.port, "Serial device, e.g. /dev/ttyUSB0");
    command.add_option("--baud", arguments.baud, "Speed of the line (38400 unless a project says)")
        ->check(CLI::Range(300, 4000000));
    command.add_option("--driver", arguments.driver, "The driver library, libmicro850.so");
    command.add_option("--trace", arguments.trace, "Record all frames: FILE.txt or FILE.pcapng");
}

CLI::App* addPoll(CLI::App& app, Arguments& arguments)
{
    CLI::App* poll = app.add_subcommand("poll", "Show the values of a project's variables live");
    poll->add_option("PROJECT", arguments.project, "Project file (default project.json)");
    poll->add_option("--seconds", arguments.seconds, "End after so many seconds")
        ->check(CLI::Range(0.1, 1e9));
    poll->add_option("--interval", arguments.interval,
                     "Without a terminal: print changes once in so many seconds")
        ->check(CLI::Range(0.0, 1e9));
    addLineOptions(*poll, arguments);
    poll->footer(std::string("On a terminal a table, elsewhere one line a change.\n"
                             "Example:\n  micro850-host poll examples/plant.project.json "
                             "--port /tmp/plc\n"
                             "Exit status: 0 every variable was read, 1 some never was, "
                             "2 usage or configuration."));
    return poll;
}

void addSingle(CLI::App& command, Arguments& arguments)
{
    command.add_option("--project", arguments.project,
                       "Project file: its port, and its variables by their names");
    command.add_option("--station", arguments.station, "Station number (default 1)")
        ->check(CLI::Range(0, 65535));
    addLineOptions(command, arguments);
}

CLI::App* addRead(CLI::App& app, Arguments& arguments)
{
    CLI::App* read = app.add_subcommand("read", "Read tags once");
    read->add_option("TAG", arguments.rest, "TAG, TAG[INDEX] or TAG[FIRST..LAST]")->required();
    addSingle(*read, arguments);
    read->footer(
        std::string("Example:\n  micro850-host read Speed 'Level[0..9]' --port /tmp/plc\n") +
        kStatuses);
    return read;
}

CLI::App* addWrite(CLI::App& app, Arguments& arguments)
{
    CLI::App* write = app.add_subcommand("write", "Write tags, and read them back");
    write->add_option("TAG=VALUE", arguments.rest, "TAG=VALUE or TAG[INDEX]=VALUE")->required();
    addSingle(*write, arguments);
    write->footer(std::string("Example:\n  micro850-host write Setpoint=22.5 'Recipe[3]=0x10' "
                              "--port /tmp/plc\n") +
                  kStatuses);
    return write;
}

int run(int argc, char** argv)
{
    Arguments arguments;
    CLI::App app("Reads, writes and watches the tags of a Micro850 controller.", "micro850-host");
    app.set_version_flag("--version", "micro850-host " MICRO850_VERSION);
    app.require_subcommand(1);
    app.footer(kStatuses);
    const std::vector<std::pair<CLI::App*, Command>> commands = {
        {addPoll(app, arguments), host::poll},
        {addRead(app, arguments), host::read},
        {addWrite(app, arguments), host::write}};
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);
    } catch (const CLI::ParseError& error) {
        throw micro850::UserError(std::string(error.what()) + " (see micro850-host --help)");
    }
    for (const auto& command : commands) {
        if (command.first->parsed())
            return command.second(arguments.options());
    }
    return micro850::kExitUsage;
}

} // namespace

int main(int argc, char** argv)
{
    // Tells where the program stands; it runs no event loop.
    QCoreApplication application(argc, argv);
    try {
        return run(argc, argv);
    } catch (const micro850::UserError& error) {
        std::cout.flush();
        std::cerr << "micro850-host: " << error.what() << '\n';
        return error.status();
    } catch (const std::exception& error) {
        std::cout.flush();
        std::cerr << "micro850-host: " << error.what() << '\n';
        return micro850::kExitRefused;
    }
}
