// micro850-gateway: a service that owns the lines to controllers and shares them among its clients.

#include "Check.h"
#include "CommandLine.h"
#include "Service.h"
#include "StandardStreams.h"
#include "UserError.h"
#include "VisibleText.h"
#include "Worker.h"

#include <QtCore/QCoreApplication>

#include <clocale>
#include <exception>
#include <iostream>

using namespace micro850;

namespace {

const char kFooter[] =
    "Example:\n"
    "  micro850-gateway --check /etc/micro850/gateway.json\n"
    "\n"
    "Exit status: 0 done, 1 the gateway or the system refused, 2 usage or configuration.";

int run(int argc, char** argv)
{
    CommandLine line("micro850-gateway", MICRO850_VERSION,
                     "Owns the lines to Micro850 controllers and shares them among its clients.",
                     kFooter);
    std::string configuration;
    bool isCheck = false;
    CommandOptions options = line.withoutCommand([&] {
        if (configuration.empty())
            throw UserError("a configuration file is needed, or a command (see micro850-gateway "
                            "--help)");
        const QString path = QString::fromLocal8Bit(configuration.c_str());
        return isCheck ? gateway::checkConfiguration(path) : gateway::runService(path);
    });
    options.text("CONFIG", configuration, "Configuration file of the service to run");
    options.flag("--check", isCheck, "Only check the configuration and its projects");
    line.addHiddenCommand(gateway::kWorkerArgument,
                          [] { return gateway::runWorker(gateway::kWorkerDescriptor); });
    return line.run(argc, argv);
}

} // namespace

int main(int argc, char** argv)
{
    prepareStandardStreams();
    const QCoreApplication application(argc, argv);
    // Numbers are read and printed alike everywhere: 0.5, whatever the user's locale.
    std::setlocale(LC_NUMERIC, "C");
    try {
        return run(argc, argv);
    } catch (const UserError& error) {
        std::cerr << "micro850-gateway: " << error.what() << '\n';
        return error.status();
    } catch (const std::exception& error) {
        std::cerr << "micro850-gateway: " << visible(error.what()) << '\n';
        return kExitRefused;
    }
}
