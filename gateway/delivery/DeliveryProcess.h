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

/// Runs a process that delivers values to a broker until the other end of the socket is closed. The
/// first message has the kind and the settings; docs/architecture.md describes the others. Returns
/// the exit status of the process. A QCoreApplication must exist.
int runDelivery(int descriptor, const MakePublisher& makePublisher);

} // namespace micro850::gateway

#endif
