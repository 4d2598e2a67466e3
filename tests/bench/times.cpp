// times KIND VARIABLES [BENCHMARK OPTIONS]: measures the time of each operation of a workload.

#include "workload.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv)
{
    const int variables = argc > 2 ? std::atoi(argv[2]) : 0;
    if (variables < 1) {
        std::fprintf(stderr, "usage: times KIND VARIABLES [BENCHMARK OPTIONS]\n");
        return 2;
    }
    Workload workload(argv[1], variables);
    for (const char* name : {"step", "cyclic", "fetch", "set", "rebuild"}) {
        const auto operation = workload.operation(name);
        benchmark::RegisterBenchmark(name, [operation](benchmark::State& state) {
            for (auto repetition : state) {
                (void)repetition;
                operation();
            }
        });
    }
    int rest = argc - 2;
    benchmark::Initialize(&rest, argv + 2);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
