#ifndef MICRO850_HOST_WRITELIMITS_H
#define MICRO850_HOST_WRITELIMITS_H

// The limits that a project sets for the values that are written to a variable.

#include "Project.h"

namespace micro850::host {

/// "minimum 0, maximum 80"; empty when there are none.
std::string limitsText(const Variable& variable);

/// A controller's value as a number that limits can be compared with: as the variable shows it.
CipValue limitedNumber(const CipType& type, const CipValue& value, const Variable& variable);

/// Why the number must not be written: "95 is outside its limits (maximum 80)", with the number as
/// `text`. Empty when it may be.
std::string limitsProblem(const CipValue& number, const std::string& text,
                          const Variable& variable);

} // namespace micro850::host

#endif
