#ifndef MICRO850_GATEWAY_CHECK_H
#define MICRO850_GATEWAY_CHECK_H

#include <QtCore/QString>

namespace micro850::gateway {

/// Checks a configuration file and the projects that it names. Prints every mistake on standard
/// error, or one line of summary on standard output. Returns the exit status.
int checkConfiguration(const QString& path);

} // namespace micro850::gateway

#endif
