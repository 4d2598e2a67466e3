#ifndef MICRO850_GATEWAY_LINES_VARIABLEOBJECT_H
#define MICRO850_GATEWAY_LINES_VARIABLEOBJECT_H

#include "Protocol.h"
#include "VariableIndex.h"

namespace micro850::gateway {

/// What a list of variables tells of one, as the protocol has it.
host::Json variableObject(const LineSettings& line, const host::Variable& variable);
/// The identity of a variable as a text, for those who want to write what they have seen.
QByteArray revisionOf(const VariableIndex& index, int number);

} // namespace micro850::gateway

#endif
