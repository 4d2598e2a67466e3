#ifndef MICRO850_COMMON_PLAINTEXT_H
#define MICRO850_COMMON_PLAINTEXT_H

#include <string>

namespace micro850 {

/// True when the environment says that the terminal takes UTF-8.
bool localeHasUnicode();

/// UTF-8 text in ASCII, for a terminal that can show nothing else: "deg C" for a degree sign and C,
/// letters without their marks, "?" for what has no substitute.
std::string plainText(const std::string& utf8);

/// The text as the stream shows it: plain on a terminal without UTF-8, else as it is.
std::string textFor(int stream, const std::string& utf8);

} // namespace micro850

#endif
