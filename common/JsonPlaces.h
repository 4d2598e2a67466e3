#ifndef MICRO850_COMMON_JSONPLACES_H
#define MICRO850_COMMON_JSONPLACES_H

#include <string>
#include <vector>

namespace micro850 {

/// The lines, counted from 1, on which these values of a JSON text begin; of a member of an object,
/// the line of its key. A value is named by its JSON pointer. Of a key that is given twice it is
/// the later one. 0 for a value that is not found. The text need not be valid: what follows its
/// first mistake is not found.
std::vector<int> linesOf(const std::string& text, const std::vector<std::string>& pointers);

} // namespace micro850

#endif
