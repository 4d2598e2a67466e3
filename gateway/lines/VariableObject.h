#ifndef MICRO850_GATEWAY_LINES_VARIABLEOBJECT_H
#define MICRO850_GATEWAY_LINES_VARIABLEOBJECT_H

#include "LineSettings.h"
#include "Protocol.h"

namespace micro850::gateway {

/// What a list of variables tells of one, as the protocol has it.
host::Json variableObject(const LineSettings& line, const host::Variable& variable);

} // namespace micro850::gateway

#endif
