// The main of every benchmark program: run the benchmarks the command line selects, then print the
// program's summary of ratios against the baselines measured in the same run.
#pragma once

#include <benchmark/benchmark.h>

inline int RunBenchmarksThenSummary(int argc, char **argv, void (*summary)())
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    summary();
    return 0;
}
