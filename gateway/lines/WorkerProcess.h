#ifndef MICRO850_GATEWAY_LINES_WORKERPROCESS_H
#define MICRO850_GATEWAY_LINES_WORKERPROCESS_H

#include <QtCore/QString>

#include <optional>

namespace micro850::gateway {

/// A worker that was started, and this end of the socket to it.
struct WorkerProcess
{
    int pid = -1; ///< below 0: no process of its own
    int socket = -1;
};

/// Starts this program with an argument that makes it a process of the service. Throws UserError
/// when the system refuses. The caller owns the socket and must ask for the end of the process.
WorkerProcess startProcess(const char* argument);
/// The same as a worker; see runWorker().
WorkerProcess startWorker();

/// How the process ended, "signal 9" or "exit status 1"; none while it runs. Waits for nothing. A
/// process can be asked once; after that it is unknown to the system.
std::optional<QString> endOf(int pid);

} // namespace micro850::gateway

#endif
