#include "fuzz_check.h"

#include <cstdio>
#include <cstdlib>

void fuzz::fail(const char* file, int line, const char* condition)
{
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, condition);
    std::abort();
}
