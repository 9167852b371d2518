// What a log call costs whose level is switched off: the real libzukhal at level info, a debug
// line, through the same macro and the same shared library boundary as in the daemon.
//
// Reach: under 5 ns (CPU time, the shortest). A call that does next to nothing behind the same
// boundary is measured beside it.
#include "bench_log.h"
#include "bench_settings.h"
#include "ls_log.h"

#include <benchmark/benchmark.h>
#include <unistd.h>

static constexpr char log_module[] = "benchmark";

namespace {

void log_switched_off(benchmark::State &state) {
    int value = 42;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(value);
        log_debug("%s: Bytes read = %d\n", __func__, value);
    }
}
BENCHMARK(log_switched_off)->Apply(bench_repeat);

// A floating-point argument: the call says that vector registers are in use.
void log_switched_off_double(benchmark::State &state) {
    double value = 51.5;
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(value);
        log_debug("%s: latitude = %f\n", __func__, value);
    }
}
BENCHMARK(log_switched_off_double)->Apply(bench_repeat);

// A call across a library boundary that does next to nothing: no log call can cost less.
void call_across_the_boundary(benchmark::State &state) {
    for ([[maybe_unused]] auto _ : state)
        benchmark::DoNotOptimize(get_zuk_type());
}
BENCHMARK(call_across_the_boundary)->Apply(bench_repeat);

} // namespace

int main(int argc, char **argv) {
    if (!bench_log_at_info())
        return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
