#ifndef MICRO850_TESTS_FUZZ_COMPLAINT_H
#define MICRO850_TESTS_FUZZ_COMPLAINT_H

#include "UserError.h"
#include "shown_text.h"

#include <string>

namespace fuzz {

/// Checks the message for bad input: one short line, without characters that a terminal obeys,
/// and with the exit status of wrong usage.
inline void checkComplaint(const micro850::UserError& error, const std::string& begin)
{
    const std::string what = error.what();
    FUZZ_CHECK(what.compare(0, begin.size(), begin) == 0 && what.size() > begin.size());
    FUZZ_CHECK(what.size() <= 4000); // 1000 characters, each of them escaped
    checkShownText(what);
    FUZZ_CHECK(error.status() == micro850::kExitUsage);
}

} // namespace fuzz

#endif
