#ifndef MICRO850_HOST_COMMANDS_H
#define MICRO850_HOST_COMMANDS_H

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace host {

/// What the command line says.
struct Options
{
    QString driver;
    QString project;
    QString port;
    int baud = 0;     ///< 0: as the project says, or 38400
    int station = -1; ///< -1: as the project says, or 1
    QString trace;
    double seconds = 0;  ///< 0: until interrupted
    double interval = 0; ///< seconds between two lines of changes, 0: at once
    QStringList arguments;
};

/// The subcommands. Each gives its exit status or throws UserError.
int poll(const Options& options);
int read(const Options& options);
int write(const Options& options);

} // namespace host

#endif
