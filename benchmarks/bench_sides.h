// Times of an action and of its reference, taken in turns, so that what disturbs the machine
// disturbs both.
#ifndef BENCH_SIDES_H
#define BENCH_SIDES_H

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <vector>

template <typename Action>
double bench_seconds(Action action) {
    const auto start = std::chrono::steady_clock::now();
    action();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

inline double bench_median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

// Seconds of each turn.
struct bench_sides {
    std::vector<double> own;
    std::vector<double> reference;

    void report(benchmark::State &state) const {
        if (own.empty())
            return;
        state.counters["own_us"] = bench_median(own) * 1e6;
        state.counters["reference_us"] = bench_median(reference) * 1e6;
    }
};

#endif
