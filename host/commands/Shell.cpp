#include "ShellSession.h"

#include <memory>

namespace micro850::host {

namespace {

struct ShellOptions
{
    LineOptions line;
    bool quiet = false;
};

int run(ShellOptions options)
{
    const Output output(false, options.quiet);
    findProjectForPort(options.line);
    const Route route = routeOf(options.line, "shell", output);
    requirePort(route.project, options.line);
    ShellLine line(options.line, route);
    ShellSession session(line, route, output);
    const int status = session.run();
    line.close();
    return status;
}

} // namespace

void addShell(CommandLine& line)
{
    const auto options = std::make_shared<ShellOptions>();
    CommandOptions shell = line.addCommand("shell", "Take commands, all over one connection",
                                           [options] { return run(*options); });
    shell.text("--project", options->line.project, "Project file: its port and its variables");
    options->line.addTo(shell);
    shell.flag("--quiet,-q", options->quiet, "Only errors on standard error: no notes");
    shell.footer(
        "Every command of the program, without its name and without options of the line. A watch "
        "goes\non in the background: its lines appear above the prompt. The shell's own "
        "commands:\n"
        "  help [COMMAND]      what there is\n"
        "  set [NAME [VALUE]]  interval SECONDS of poll and watch; json, raw, quiet: on or off\n"
        "  stop [NUMBER]       end a watch, or all\n"
        "  quit                or Ctrl-D\n"
        "Tab completes commands, options, variables, tags that were read, and files; arrows and "
        "Ctrl-R\nrecall earlier lines. Quotes are those of a POSIX shell; # begins a comment.\n"
        "Without a terminal, commands are read from standard input up to the first that fails.\n"
        "Example:\n  micro850-host shell --port /tmp/plc\n"
        "Exit status: 0, without a terminal that of the command that failed.");
}

} // namespace micro850::host
