// micro850-host: a reference host. It loads the driver as a panel runtime does and reads, writes
// and watches a controller's tags.

#include "Command.h"
#include "UserError.h"

#include <QtCore/QCoreApplication>

#include <algorithm>
#include <exception>
#include <iostream>

using namespace micro850;

namespace {

const char kDescription[] = "Reads, writes and watches the tags of a Micro850 controller.";

// The parser would only say that a command is missing.
void requireCommand(const CLI::App& app, const std::string& word)
{
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands(nullptr))
        names.push_back(command->get_name());
    if (word.empty() || word[0] == '-' || std::count(names.begin(), names.end(), word) != 0)
        return;
    throw UserError('"' + word + "\" is not a command" + didYouMean(word, names) +
                    " (see micro850-host --help)");
}

// What the parser says, for what it did not expect with the option that may be meant.
std::string complaintOf(const CLI::App& app, const CLI::ParseError& error)
{
    const std::vector<CLI::App*> parsed = app.get_subcommands();
    const CLI::App& command = parsed.empty() ? app : *parsed.front();
    const std::string name = parsed.empty() ? "" : command.get_name() + ' ';
    const std::string help = " (see micro850-host " + name + "--help)";
    const std::vector<std::string> unexpected = command.remaining();
    if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::ExtrasError) ||
        unexpected.empty())
        return error.what() + help;
    const std::string& word = unexpected.front();
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& each : option->get_lnames())
            names.push_back(each);
    }
    // Compared without the dashes, which make any two options alike.
    const bool isOption = word.rfind("--", 0) == 0;
    const std::string meant = isOption ? didYouMean(word.substr(2), names) : "";
    return '"' + word + "\" is not expected here" + meant + help;
}

int run(int argc, char** argv)
{
    CLI::App app(kDescription, "micro850-host");
    app.set_version_flag("--version", "micro850-host " MICRO850_VERSION);
    app.require_subcommand(1);
    app.footer(std::string("micro850-host COMMAND --help tells more, with an example.\n") +
               host::kStatuses);
    const std::vector<host::Subcommand> commands = {
        host::addProbe(app), host::addPoll(app),  host::addRead(app),
        host::addWrite(app), host::addWatch(app), host::addLog(app),
        host::addTrace(app), host::addCheck(app), host::addImport(app)};
    requireCommand(app, argc > 1 ? argv[1] : "");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);
    } catch (const CLI::ParseError& error) {
        throw UserError(complaintOf(app, error));
    }
    for (const host::Subcommand& command : commands) {
        if (command.app->parsed())
            return command.run();
    }
    return kExitUsage;
}

} // namespace

int main(int argc, char** argv)
{
    // Tells where the program stands; it runs no event loop.
    QCoreApplication application(argc, argv);
    try {
        return run(argc, argv);
    } catch (const UserError& error) {
        std::cout.flush();
        std::cerr << "micro850-host: " << error.what() << '\n';
        return error.status();
    } catch (const std::exception& error) {
        std::cout.flush();
        std::cerr << "micro850-host: " << error.what() << '\n';
        return kExitRefused;
    }
}
