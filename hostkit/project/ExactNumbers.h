#ifndef MICRO850_HOST_EXACTNUMBERS_H
#define MICRO850_HOST_EXACTNUMBERS_H

// Comparisons of numbers that do not round: a double cannot hold every integer of 64 bits.

#include "CipValue.h"

#include <optional>

namespace micro850::host {

/// Below 0, 0 or above 0, as `a` is smaller than, equal to or larger than `b`. Both are numbers,
/// true counts as 1, and neither is NaN.
int compareNumbers(const CipValue& a, const CipValue& b);

/// True when two values of the same type differ by more than `deadband`, 0 or above. A value that
/// is no finite number differs from every other one; NaN does not differ from NaN. Texts and groups
/// of bits differ when they are not equal. A real number may differ by the rounding of its last
/// digit more.
bool differsByMore(const CipValue& a, const CipValue& b, double deadband);

/// True for a number within the limits, where there are some; never for NaN or no number.
bool isWithinLimits(const CipValue& value, const std::optional<CipValue>& minimum,
                    const std::optional<CipValue>& maximum);

} // namespace micro850::host

#endif
