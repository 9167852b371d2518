// What a log call costs: the real libzukhal at level info, through the same macro and the same
// shared library boundary as in the daemon.
//
// Switched off, a debug line. Reach: under 5 ns (CPU time, the shortest). A call that does next to
// nothing behind the same boundary is measured beside it. Written to a file, an info line; a write
// of as many bytes is measured beside it, which no line can cost less than.
#include "bench_log.h"
#include "bench_settings.h"
#include "ls_log.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <filesystem>
#include <string>
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

void log_written(benchmark::State &state) {
    for ([[maybe_unused]] auto _ : state)
        log_info("%s: Sending buffered position data", "ls_hal_get_position");
}
BENCHMARK(log_written)->Apply(bench_repeat);

void write_alone(benchmark::State &state) {
    const std::string line(100, 'x');
    const int fd = open(std::filesystem::temp_directory_path().c_str(),
                        O_TMPFILE | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    for ([[maybe_unused]] auto _ : state)
        if (write(fd, line.data(), line.size()) < 0)
            state.SkipWithError("no file to write to");
    close(fd);
}
BENCHMARK(write_alone)->Apply(bench_repeat);

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
