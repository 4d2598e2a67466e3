#include "Configuration.h"

#include "StandardStreams.h"
#include "UserError.h"

#include <QtCore/QCoreApplication>

#include <iostream>

int main(int argc, char** argv)
{
    using namespace micro850;
    prepareStandardStreams();
    const QCoreApplication application(argc, argv);
    try {
        if (argc != 2)
            throw UserError("one configuration file is needed (micro850-gateway CONFIG.json)");
        gateway::Configuration::fromFile(QString::fromLocal8Bit(argv[1]));
        return kExitDone;
    } catch (const UserError& error) {
        std::cerr << "micro850-gateway: " << error.what() << '\n';
        return error.status();
    }
}
