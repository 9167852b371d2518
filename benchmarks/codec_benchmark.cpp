// What it costs to build a poll, to take a GGA answer apart and to read one of its fields, with the
// real log library at level info: the codec's debug line is switched off, as on a terminal.
//
// Heap: the codec must not allocate; a run that does fails. Reach: extracting and checking one GGA
// takes under 150 ns (CPU time, the shortest).
#include "allocation_count.h"
#include "bench_log.h"
#include "bench_settings.h"
#include "gps_nmea_parser.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

using buffer = std::array<char, NMEA_BUFFER_SIZE>;

constexpr char poll[] = "GPGPQ,GGA";
constexpr char gga[] =
    "$GPGGA,082710.00,5130.00000,N,00007.50000,W,1,08,1.01,35.9,M,47.0,M,,*73\r\n";
constexpr char gga_body[] = "GPGGA,082710.00,5130.00000,N,00007.50000,W,1,08,1.01,35.9,M,47.0,M,,";

void report_heap(benchmark::State &state, uint64_t before) {
    const uint64_t allocations = allocation_count() - before;
    state.counters["heap"] = static_cast<double>(allocations);
    if (allocations != 0)
        state.SkipWithError("the codec used the heap");
}

void create_poll(benchmark::State &state) {
    buffer sentence = {};
    const uint64_t before = allocation_count();
    for ([[maybe_unused]] auto _ : state) {
        if (ls_hal_create_nmea_sentence(poll, sentence.data()) != 0)
            state.SkipWithError("not built");
        benchmark::DoNotOptimize(sentence);
        benchmark::ClobberMemory();
    }
    report_heap(state, before);
}
BENCHMARK(create_poll)->Apply(bench_repeat);

void extract_gga(benchmark::State &state) {
    buffer answer = {};
    memcpy(answer.data(), gga, sizeof(gga));
    buffer body = {};
    const uint64_t before = allocation_count();
    for ([[maybe_unused]] auto _ : state) {
        if (ls_hal_extract_nmea_msg(answer.data(), body.data()) != 0)
            state.SkipWithError("not extracted");
        benchmark::DoNotOptimize(body);
        benchmark::ClobberMemory();
    }
    report_heap(state, before);
}
BENCHMARK(extract_gga)->Apply(bench_repeat);

// Arguments: the field; 2 is the latitude, 9 the altitude.
void get_token(benchmark::State &state) {
    std::array<char, NMEA_TOKEN_SIZE> token = {};
    const auto n = static_cast<int32_t>(state.range(0));
    const uint64_t before = allocation_count();
    for ([[maybe_unused]] auto _ : state) {
        if (ls_hal_get_token(gga_body, token.data(), n) != 0)
            state.SkipWithError("no such field");
        benchmark::DoNotOptimize(token);
        benchmark::ClobberMemory();
    }
    report_heap(state, before);
}
BENCHMARK(get_token)->Arg(2)->Arg(9)->Apply(bench_repeat);

// --- the same by calls of the C library: how else one would write it

uint8_t sum_of(const char *text, size_t size) {
    uint8_t sum = 0;
    for (size_t i = 0; i < size; ++i)
        sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(text[i]));
    return sum;
}

void create_poll_reference(benchmark::State &state) {
    buffer sentence = {};
    for ([[maybe_unused]] auto _ : state) {
        snprintf(sentence.data(), sentence.size(), "$%s*%02X\r\n", poll,
                 sum_of(poll, strlen(poll)));
        benchmark::DoNotOptimize(sentence);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(create_poll_reference)->Apply(bench_repeat);

void extract_gga_reference(benchmark::State &state) {
    buffer answer = {};
    memcpy(answer.data(), gga, sizeof(gga));
    buffer body = {};
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(answer);
        const char *start = strchr(answer.data(), '$');
        const char *end = start == nullptr ? nullptr : strchr(start, '*');
        const size_t size = end == nullptr ? 0 : static_cast<size_t>(end - start) - 1;
        if (size == 0 || strtoul(end + 1, nullptr, 16) != sum_of(start + 1, size))
            state.SkipWithError("not extracted");
        memcpy(body.data(), start + 1, size);
        body[size] = '\0';
        benchmark::DoNotOptimize(body);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(extract_gga_reference)->Apply(bench_repeat);

void get_token_reference(benchmark::State &state) {
    std::array<char, NMEA_TOKEN_SIZE> token = {};
    buffer body = {};
    memcpy(body.data(), gga_body, sizeof(gga_body));
    for ([[maybe_unused]] auto _ : state) {
        benchmark::DoNotOptimize(body);
        const char *start = body.data();
        for (int64_t comma = 0; start != nullptr && comma < state.range(0); ++comma)
            if (start = strchr(start, ','); start != nullptr)
                ++start;
        const char *end = start == nullptr ? nullptr : strchr(start, ',');
        if (end == nullptr || static_cast<size_t>(end - start) >= token.size())
            state.SkipWithError("no such field");
        memcpy(token.data(), start, static_cast<size_t>(end - start));
        token[static_cast<size_t>(end - start)] = '\0';
        benchmark::DoNotOptimize(token);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(get_token_reference)->Arg(2)->Arg(9)->Apply(bench_repeat);

} // namespace

int main(int argc, char **argv) {
    if (!bench_log_at_info())
        return 1;
    benchmark::Initialize(&argc, argv);
    const uint64_t before = allocation_count();
    benchmark::DoNotOptimize(operator new(1)); // freed with the process
    if (allocation_count() == before) {
        fputs("allocations are not counted\n", stderr);
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
