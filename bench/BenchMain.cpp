// The benchmarks run on real maps in a private bpffs, so they need root like the kernel-map tests;
// without it they exit with 77 (a skip for ctest), or fail when CI=true.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <benchmark/benchmark.h>
#include <kovrasandbox/Bpffs.h>

#include "Bench.h"

namespace kovra::bench {
void registerWalkBenchmarks();
void registerOpenAndClearBenchmarks();
void registerServiceBenchmarks();
}  // namespace kovra::bench

int main(int argc, char** argv) {
    try {
        kovra::sandbox::enterPrivateBpffs();
    } catch (const kovra::sandbox::Error& problem) {
        fprintf(stderr, "benchmarks cannot run: %s\n", problem.what());
        const char* ci = getenv("CI");
        return ci != nullptr && strcmp(ci, "true") == 0 ? 1 : 77;
    }
    kovra::bench::registerWalkBenchmarks();
    kovra::bench::registerOpenAndClearBenchmarks();
    kovra::bench::registerServiceBenchmarks();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return kovra::bench::anyFailed ? 1 : 0;
}
