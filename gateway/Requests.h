#ifndef MICRO850_GATEWAY_REQUESTS_H
#define MICRO850_GATEWAY_REQUESTS_H

#include <QtCore/QString>

namespace micro850::gateway {

/// Asks the gateway at the socket how it does, and prints it. Throws UserError
/// when none answers. Returns the exit status.
int printStatus(const QString& socket, bool json);

/// Makes the gateway at the socket read its configuration again. Prints its
/// mistakes on standard error. Throws UserError when none answers. Returns the
/// exit status.
int reloadService(const QString& socket);

} // namespace micro850::gateway

#endif
