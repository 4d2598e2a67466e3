// micro850-host: a reference host. It loads the driver as a panel runtime does and reads, writes
// and watches a controller's tags.

#include "Commands.h"
#include "PlainText.h"
#include "StandardStreams.h"
#include "UserError.h"
#include "VisibleText.h"

#include <QtCore/QCoreApplication>

#include <clocale>
#include <exception>
#include <iostream>
#include <unistd.h>

using namespace micro850;

namespace {

int run(int argc, char** argv)
{
    CommandLine line("micro850-host", MICRO850_VERSION,
                     "Reads, writes and watches the tags of a Micro850 controller.",
                     std::string("micro850-host COMMAND --help shows more, with an example.\n") +
                         host::kStatuses);
    host::addCommands(line);
    host::addShell(line);
    return line.run(argc, argv);
}

} // namespace

int main(int argc, char** argv)
{
    prepareStandardStreams();
    // Through it Qt finds its plug-ins. The program runs no event loop.
    QCoreApplication application(argc, argv);
    // Numbers are read and printed alike everywhere: 0.5, whatever the user's locale.
    std::setlocale(LC_NUMERIC, "C");
    try {
        return run(argc, argv);
    } catch (const UserError& error) {
        std::cerr << "micro850-host: " << textFor(STDERR_FILENO, error.what()) << '\n';
        return error.status();
    } catch (const std::exception& error) {
        std::cerr << "micro850-host: " << visible(error.what()) << '\n';
        return kExitRefused;
    }
}
