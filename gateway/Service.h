#ifndef MICRO850_GATEWAY_SERVICE_H
#define MICRO850_GATEWAY_SERVICE_H

#include <QtCore/QString>

namespace micro850::gateway {

/// Runs the service of a configuration file until SIGTERM or SIGINT. A QCoreApplication must exist.
/// Throws UserError for a configuration that is wrong. Returns the exit status of the process.
int runService(const QString& configurationPath);

} // namespace micro850::gateway

#endif
