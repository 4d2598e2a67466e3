// micro850-gateway: a service that owns the lines to controllers and shares them among its clients.

#include "Check.h"
#include "ChildProcess.h"
#include "ClientSettings.h"
#include "CommandLine.h"
#include "DeliveryProcess.h"
#include "Publishers.h"
#include "Requests.h"
#include "Service.h"
#include "StandardStreams.h"
#include "TokenCommand.h"
#include "UserError.h"
#include "VisibleText.h"
#include "Worker.h"

#include <QtCore/QCoreApplication>

#include <clocale>
#include <exception>
#include <iostream>
#include <sys/socket.h>

using namespace micro850;

namespace {

const char kSocketHelp[] =
    "Socket of the service (default $MICRO850_GATEWAY, or else /run/micro850/gateway.sock)";

std::string defaultSocket()
{
    const QByteArray named = qgetenv("MICRO850_GATEWAY");
    return named.isEmpty() ? gateway::ClientSettings().path.toStdString() : named.toStdString();
}

std::string footer(const char* example)
{
    return std::string("Example:\n  ") + example +
           "\n\nExit status: 0 done, 1 the gateway or the system refused, 2 usage or "
           "configuration.";
}

struct TokenArguments
{
    std::string file;
    gateway::TokenFileOptions options;
};

void addTokenCommand(CommandLine& line, TokenArguments& arguments)
{
    CommandOptions token = line.addCommand(
        "token", "Make a token for the page and the programs, and print it once", [&arguments] {
            return gateway::makeToken(QString::fromLocal8Bit(arguments.file.c_str()),
                                      arguments.options);
        });
    token.requiredText("FILE", arguments.file, "File to write, which only its owner can read");
    token.text("--owner", arguments.options.owner, "User who gets the file: that of the service");
    token.flag("--replace", arguments.options.replace,
               "Replace the token in the file; sessions and programs with the old one are out");
    token.footer(footer("micro850-gateway token --owner micro850 /etc/micro850/web.token"));
}

// Throws UserError unless the service has started this process.
void requireService(const std::string& what)
{
    int type = 0;
    socklen_t size = sizeof type;
    if (::getsockopt(gateway::kChildDescriptor, SOL_SOCKET, SO_TYPE, &type, &size) != 0)
        throw UserError("only the service starts " + what + " (use micro850-gateway CONFIG.json)");
}

int run(int argc, char** argv)
{
    CommandLine line("micro850-gateway", MICRO850_VERSION,
                     "Owns the lines to Micro850 controllers and shares them among its clients.",
                     footer("micro850-gateway --check /etc/micro850/gateway.json"));
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
    std::string socket = defaultSocket();
    bool json = false;
    CommandOptions status =
        line.addCommand("status", "Show how the running service and its lines do", [&] {
            return gateway::printStatus(QString::fromLocal8Bit(socket.c_str()), json);
        });
    status.text("--socket", socket, kSocketHelp);
    status.flag("--json", json, "Print the answer of the service as JSON, with times in UTC");
    status.footer(footer("micro850-gateway status --json"));
    CommandOptions reload =
        line.addCommand("reload", "Make the running service read its configuration again", [&] {
            return gateway::reloadService(QString::fromLocal8Bit(socket.c_str()));
        });
    reload.text("--socket", socket, kSocketHelp);
    reload.footer(footer("micro850-gateway reload"));
    TokenArguments token;
    addTokenCommand(line, token);
    line.addHiddenCommand(gateway::kWorkerArgument, [] {
        requireService("a worker");
        return gateway::runWorker(gateway::kChildDescriptor);
    });
    line.addHiddenCommand(gateway::kDeliveryArgument, [] {
        requireService("a process that delivers");
        return gateway::runDelivery(gateway::kChildDescriptor, gateway::makePublisher);
    });
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
