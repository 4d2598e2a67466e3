#ifndef MICRO850_GATEWAY_LINES_WORKER_H
#define MICRO850_GATEWAY_LINES_WORKER_H

namespace micro850::gateway {

/// The argument that makes the program a worker.
const char* const kWorkerArgument = "worker";

/// Runs the worker of one line until the other end of the socket is closed: it loads the driver,
/// opens the line and polls the project that the first message has. Returns the exit status of the
/// process.
int runWorker(int descriptor);

} // namespace micro850::gateway

#endif
