#ifndef MICRO850_GATEWAY_SPARKPLUG_DATATYPES_H
#define MICRO850_GATEWAY_SPARKPLUG_DATATYPES_H

// How values of the controller's types travel.

#include "Payload.h"
#include "Protocol.h"

namespace micro850::gateway::sparkplug {

/// The data type of a variable of this type. A scaled one is a real number. A date, with or without
/// a time, is a DateTime that takes the controller's clock for UTC; durations and times of day are
/// their whole number. Several elements are an array.
DataType dataTypeOf(const CipType& type, bool isScaled, int elements);

/// The value of this data type; nothing when there is none, or when it is of another type.
WireValue wireValueOf(const host::GatewayValue& value, DataType type);

/// What an order's metric, of a variable of this type, tells to write: for each element the value
/// as the variable shows it. Throws UserError for a value of another type, one that is outside of
/// its type, no value, and another number of elements. `cipType` is that of the variable.
QVector<host::Json> orderedValues(const Metric& metric, DataType type, const CipType& cipType,
                                  int elements);

} // namespace micro850::gateway::sparkplug

#endif
