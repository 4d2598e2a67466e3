#ifndef MICRO850_TESTS_WEAK_LOCAL_HOOK_H
#define MICRO850_TESTS_WEAK_LOCAL_HOOK_H

// Included before a file of the driver: a program can then replace the hook in that file, and the
// compiler does not take its empty body for granted.

struct RW_VAR;
__attribute__((weak)) void WriteDataToLocal(RW_VAR* request);

#endif
