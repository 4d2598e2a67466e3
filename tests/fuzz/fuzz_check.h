#ifndef MICRO850_TESTS_FUZZ_CHECK_H
#define MICRO850_TESTS_FUZZ_CHECK_H

/// Prints the place and the text of a condition that does not hold and ends the program.
#define FUZZ_CHECK(condition) ((condition) ? void() : fuzz::fail(__FILE__, __LINE__, #condition))

namespace fuzz {

[[noreturn]] void fail(const char* file, int line, const char* condition);

} // namespace fuzz

#endif
