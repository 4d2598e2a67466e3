#ifndef MICRO850_GATEWAY_PUBLISHERS_H
#define MICRO850_GATEWAY_PUBLISHERS_H

#include "Publisher.h"

namespace micro850::gateway {

/// The publisher of a section of the configuration, "mqtt" or "sparkplug". Throws UserError.
std::unique_ptr<Publisher> makePublisher(const QString& kind, const host::Json& settings,
                                         PublisherNeeds& needs);

} // namespace micro850::gateway

#endif
