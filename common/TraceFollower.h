#ifndef MICRO850_COMMON_TRACEFOLLOWER_H
#define MICRO850_COMMON_TRACEFOLLOWER_H

#include "TraceFile.h"

namespace micro850 {

/// How the reading of a trace that grows came to its end.
enum class FollowEnd {
    Asked,   ///< as the caller wanted
    Replaced ///< the file was emptied, or another one has its name: a new recording began
};

/// Reads a trace file of either kind while it is recorded: at its end it waits for more. `isEnding`
/// is asked some times a second meanwhile. Throws UserError as readTrace() does.
FollowEnd followTrace(const std::string& path, const TraceHandler& handle,
                      const std::function<bool()>& isEnding);

} // namespace micro850

#endif
