#ifndef MICRO850_COMMON_VISIBLETEXT_H
#define MICRO850_COMMON_VISIBLETEXT_H

#include <cstddef>
#include <string>

namespace micro850 {

/// UTF-8 text from a controller, a file or a user, safe for a terminal and always one line.
/// Characters that a terminal obeys or that nobody sees (control characters, line and paragraph
/// separators, direction marks and other format characters) become escapes such as `\n`, `\x1b`
/// and `\u009b`, a byte that is not UTF-8 becomes `\xff`. Visible text stays as it is, so that
/// visible(visible(text)) is visible(text).
std::string visible(const std::string& utf8);

/// The value of a string. One that needs escapes, or begins with a double quote, is put in double
/// quotes, and then `"` and `\` are escaped too; so no two values look alike. Others stay as they
/// are.
std::string visibleValue(const std::string& utf8);

/// JSON on which a terminal does nothing: the same characters in its strings, with `\u` escapes for
/// those that visible() escapes. Line feeds between the values stay.
std::string visibleJson(const std::string& utf8);

/// The text in double quotes, for a message: visible, and shortened.
std::string inQuotes(const std::string& utf8);

/// A text of at most about so many bytes: of a longer one the beginning, "...", and the end.
std::string shortened(const std::string& utf8, std::size_t most);

} // namespace micro850

#endif
