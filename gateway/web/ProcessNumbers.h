#ifndef MICRO850_GATEWAY_WEB_PROCESSNUMBERS_H
#define MICRO850_GATEWAY_WEB_PROCESSNUMBERS_H

#include <optional>

namespace micro850::gateway {

/// What this process uses, in base units.
struct ProcessNumbers
{
    double residentBytes = 0;
    double virtualBytes = 0;
    double processorSeconds = 0; ///< of all threads, in the kernel too
    double openDescriptors = 0;
    std::optional<double> mostDescriptors; ///< none: no limit
    double startedAt = 0;                  ///< seconds since 1970 UTC
};

/// As the system tells them; 0 for what it does not tell.
ProcessNumbers processNumbers();

} // namespace micro850::gateway

#endif
