#ifndef MICRO850_COMMON_USERERROR_H
#define MICRO850_COMMON_USERERROR_H

#include <stdexcept>
#include <string>
#include <vector>

namespace micro850 {

/// Exit statuses of the tools.
enum ExitStatus {
    kExitDone = 0,
    kExitRefused = 1, ///< the controller or the line refused
    kExitUsage = 2    ///< usage or configuration
};

/// The text with a blank in the place of each control character, none of which is then able to move
/// a terminal's cursor.
std::string oneLine(std::string text);

/// What a person is told: one line that names the input and the remedy, and the exit status it asks
/// for. Control characters that the input brought in become blanks.
class UserError : public std::runtime_error
{
public:
    explicit UserError(const std::string& message, ExitStatus status = kExitUsage);

    ExitStatus status() const { return m_status; }

private:
    ExitStatus m_status;
};

/// " (did you mean X?)" for the candidate nearest to `word`, or nothing when none is near.
std::string didYouMean(const std::string& word, const std::vector<std::string>& candidates);

} // namespace micro850

#endif
