// steps KIND OPERATION NUMBER VARIABLES: repeats an operation of a workload. valgrind's callgrind
// counts only that operation if it is started with --instr-atstart=no. Prints how many bytes one
// transaction has on the wire and how many bytes of heap are in use at the end.

#include "workload.h"

#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <malloc.h>

int main(int argc, char** argv)
{
    const int number = argc == 5 ? std::atoi(argv[3]) : 0;
    const int variables = argc == 5 ? std::atoi(argv[4]) : 0;
    if (number < 1 || variables < 1) {
        std::fprintf(stderr, "usage: steps KIND OPERATION NUMBER VARIABLES, numbers from 1\n");
        return 2;
    }
    Workload workload(argv[1], variables);
    const auto operation = workload.operation(argv[2]);
    if (!operation) {
        std::fprintf(stderr, "steps: no operation \"%s\"\n", argv[2]);
        return 2;
    }
    operation(); // the first time is not measured: it includes work that happens once
    CALLGRIND_START_INSTRUMENTATION;
    for (int i = 0; i < number; ++i)
        operation();
    CALLGRIND_STOP_INSTRUMENTATION;
    const auto heap = mallinfo2();
    std::printf("wire %d heap %zu\n", workload.wireBytes(), heap.uordblks + heap.hblkhd);
    return 0;
}
