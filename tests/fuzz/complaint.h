#ifndef MICRO850_TESTS_FUZZ_COMPLAINT_H
#define MICRO850_TESTS_FUZZ_COMPLAINT_H

#include "UserError.h"
#include "fuzz_check.h"

#include <algorithm>
#include <string>

namespace fuzz {

/// Checks the message for bad input: one line, without characters that move a terminal's cursor,
/// and with the exit status of wrong usage.
inline void checkComplaint(const micro850::UserError& error, const std::string& begin)
{
    const std::string what = error.what();
    FUZZ_CHECK(what.compare(0, begin.size(), begin) == 0 && what.size() > begin.size());
    FUZZ_CHECK(std::none_of(what.begin(), what.end(), [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == '\x7F';
    }));
    FUZZ_CHECK(error.status() == micro850::kExitUsage);
}

} // namespace fuzz

#endif
