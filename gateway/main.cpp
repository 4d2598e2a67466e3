#include "Service.h"
#include "Worker.h"

#include "StandardStreams.h"
#include "UserError.h"

#include <QtCore/QCoreApplication>

#include <cstring>
#include <iostream>

int main(int argc, char** argv)
{
    using namespace micro850;
    prepareStandardStreams();
    const QCoreApplication application(argc, argv);
    try {
        if (argc == 2 && std::strcmp(argv[1], gateway::kWorkerArgument) == 0)
            return gateway::runWorker(gateway::kWorkerDescriptor);
        if (argc != 2)
            throw UserError("one configuration file is needed (micro850-gateway CONFIG.json)");
        return gateway::runService(QString::fromLocal8Bit(argv[1]));
    } catch (const UserError& error) {
        std::cerr << "micro850-gateway: " << error.what() << '\n';
        return error.status();
    }
}
