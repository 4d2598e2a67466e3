#ifndef MICRO850_COMMON_USERERROR_H
#define MICRO850_COMMON_USERERROR_H

#include <stdexcept>
#include <string>
#include <vector>

namespace micro850 {

/// Exit statuses of the programs.
enum ExitStatus {
    kExitDone = 0,
    kExitRefused = 1, ///< the controller or the line refused
    kExitUsage = 2    ///< usage or configuration
};

/// A message for the user: one line that names the input and the remedy. What comes from the input
/// is made visible as VisibleText describes, and a very long message loses its middle. Its exit
/// status says whose fault it was.
class UserError : public std::runtime_error
{
public:
    explicit UserError(const std::string& message, ExitStatus status = kExitUsage);

    ExitStatus status() const { return m_status; }

private:
    ExitStatus m_status;
};

/// " (did you mean X?)" for the candidate nearest to `word`, with the prefix in front of it, or
/// nothing when none is near.
std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates,
                       const std::string& prefix = std::string());

} // namespace micro850

#endif
