#ifndef MICRO850_GATEWAY_DELIVERY_DELIVERYPROCESS_H
#define MICRO850_GATEWAY_DELIVERY_DELIVERYPROCESS_H

#include "Publisher.h"

#include <memory>

namespace micro850::gateway {

/// The argument that makes the program a process that delivers.
const char* const kDeliveryArgument = "deliver";

/// Makes the publisher of a kind ("mqtt", "sparkplug") with these settings. Throws UserError.
using MakePublisher = std::function<std::unique_ptr<Publisher>(
    const QString& kind, const host::Json& settings, PublisherNeeds& needs)>;

/// Runs a process that delivers values to a broker until the other end of the socket is closed, or
/// until it is told to stop. Returns the exit status of the process. A QCoreApplication must exist.
///
/// Messages are objects, one on a line. From the service:
///   {"request":"open","kind":"mqtt","settings":{...},"run":"...","version":"..."}   the first one
///   {"event":"catalogue","lines":[...],"variables":[...]}   again after each change
///   {"event":"current","values":[...]}   what variables have now; it is not queued
///   {"event":"current","time":ms,"line":...,"station":...,"state":...,"text":...}   a state
///   likewise
///   {"event":"values","first":N,"times":[ms,...],"values":[...]}   to be delivered; `times` are
///   those
///       when they were told, without it those of the values
///   {"event":"state"|"notice","number":N,...}   as of "current", to be delivered
///   {"event":"status","lines":[...]}   once a second
///   {"id":K,"reply":{...}}   the reply to an order
///   {"request":"stop"}   the last one
/// Values, states and notices are numbered together, from 1 on within a run. To the service:
///   {"event":"opening","patienceMs":ms}   it may be silent for so long
///   {"event":"opened","run":"...","number":N}   what its queue had committed last
///   {"event":"kept","number":N}   all up to this number are the process's business now
///   {"event":"status","status":{...}}   once a second
///   {"event":"log","priority":"note"|"warning","text":...}
///   {"event":"failed","text":...}   why it ends
///   {"request":"write","id":K,"line":...,"name":...,"station":...,"element":...,"value":...}
///       an order
int runDelivery(int descriptor, const MakePublisher& makePublisher);

} // namespace micro850::gateway

#endif
