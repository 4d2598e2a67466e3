#ifndef MICRO850_COMMON_STANDARDSTREAMS_H
#define MICRO850_COMMON_STANDARDSTREAMS_H

#include <string>

namespace micro850 {

/// Call it first in main(). From then on a write to a closed pipe, or beyond the limit on the size
/// of files, fails with an error and does not kill the program. A standard stream that the caller
/// left closed is opened such that its use fails, so that no file gets its number.
void prepareStandardStreams();

/// Writes the UTF-8 text to standard output at once, plain on a terminal without UTF-8. Throws UserError, with exit status 1, when it cannot
/// be written.
void writeStandardOutput(const std::string& text);

} // namespace micro850

#endif
