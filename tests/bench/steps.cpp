// steps KIND NUMBER [VARIABLES]: the given number of transactions of one kind, for a counter of
// instructions or allocations to watch; the difference between two runs is what the transactions
// cost. Prints the bytes on the wire of one transaction.

#include "workload.h"

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    const int steps = argc > 2 ? std::atoi(argv[2]) : 0;
    const int variables = argc > 3 ? std::atoi(argv[3]) : 10;
    if (argc < 3 || argc > 4 || steps < 1 || variables < 1) {
        std::fprintf(stderr, "usage: steps KIND NUMBER [VARIABLES], all numbers from 1\n");
        return 2;
    }
    Workload workload(argv[1], variables);
    for (int i = 0; i < steps; ++i)
        workload.step();
    std::printf("wire %d\n", workload.wireBytes());
    return 0;
}
