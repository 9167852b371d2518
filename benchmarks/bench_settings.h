// How the benchmarks of a few nanoseconds are repeated. On a machine that does other work the mean
// says more about that work; the shortest of many short repetitions is what the code costs.
#ifndef BENCH_SETTINGS_H
#define BENCH_SETTINGS_H

#include <algorithm>
#include <benchmark/benchmark.h>
#include <vector>

inline void bench_repeat(benchmark::internal::Benchmark *benchmark) {
    benchmark->MinTime(0.01)->Repetitions(40)->ReportAggregatesOnly();
    benchmark->ComputeStatistics("shortest", [](const std::vector<double> &times) {
        return *std::min_element(times.begin(), times.end());
    });
}

#endif
