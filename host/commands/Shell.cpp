#include "ShellSession.h"
#include "StandardStreams.h"
#include "UserError.h"
#include "VisibleText.h"

#include <memory>

namespace micro850::host {

namespace {

struct ShellOptions
{
    LineOptions line;
    bool quiet = false;
    std::string complete;
};

// For shells that run this program: they complete with the names of the project.
int complete(const ShellOptions& options)
{
    const Route route = routeOf(options.line, "shell", Output(false, true));
    std::string text;
    const Completions found =
        completionsOf(textOf(options.complete), shellVocabulary(route.project));
    for (const QString& candidate : found.candidates)
        text += visible(candidate.toStdString()) + '\n';
    writeStandardOutput(text);
    return kExitDone;
}

int run(ShellOptions options)
{
    const Output output(false, options.quiet);
    findProjectForPort(options.line);
    if (!options.complete.empty())
        return complete(options);
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
    shell.text("--complete", options->complete,
               "Print what Tab would offer behind this text, and end");
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
