#ifndef MICRO850_GATEWAY_LOOP_CHILDPROCESS_H
#define MICRO850_GATEWAY_LOOP_CHILDPROCESS_H

#include <csignal>

namespace micro850::gateway {

// What the processes that the service starts have in common.

/// The descriptor of their end of the socket pair.
const int kChildDescriptor = 3;
/// Ends one in order, also while it waits for something. The system sends it when the service is
/// gone.
const int kEndSignal = SIGUSR1;

/// Ignores the signals that go to a whole group: they are the service's business, whose end is that
/// of its processes. From now on serviceIsGone() notes kEndSignal.
void setChildSignals();
/// True after kEndSignal.
bool serviceIsGone();
/// Lets the system end this process after a while, even if it hangs.
void limitTimeToEnd();

} // namespace micro850::gateway

#endif
