// What it costs to start one detached thread and hand it a message, as the daemon does for every
// request: with the daemon's stack, with the default stack, and with a small one. No reach: this
// is the floor under every buffered reply.
#include "bench_settings.h"

#include <atomic>
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>

namespace {

constexpr int64_t daemon_stack_kib = 1024;
constexpr int64_t default_stack = 0;

sem_t handed_over;
std::atomic<int> running;

void *take_over(void *) {
    sem_post(&handed_over);
    --running;
    return nullptr;
}

// Argument: KiB of stack, 0 = what the system gives.
void start_worker(benchmark::State &state) {
    const int64_t stack_kib = state.range(0);
    for ([[maybe_unused]] auto _ : state) {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
        if (stack_kib != default_stack)
            pthread_attr_setstacksize(&attributes, static_cast<size_t>(stack_kib) * 1024);
        pthread_t thread{};
        ++running;
        if (pthread_create(&thread, &attributes, take_over, nullptr) != 0) {
            --running;
            state.SkipWithError("no thread");
        } else {
            sem_wait(&handed_over);
        }
        pthread_attr_destroy(&attributes);
    }
    while (running != 0)
        sched_yield();
}
BENCHMARK(start_worker)
    ->ArgName("stack_kib")
    ->Arg(daemon_stack_kib)
    ->Arg(64)
    ->Arg(default_stack)
    ->UseRealTime()
    ->Apply(bench_repeat);

// The thread's part left out: the hand-over alone, between two threads that are there already,
// would be the least a pool could cost.
sem_t wanted;

void *serve(void *) {
    while (true) {
        sem_wait(&wanted);
        if (running == 0)
            return nullptr;
        sem_post(&handed_over);
    }
}

void wake_a_thread_that_waits(benchmark::State &state) {
    running = 1;
    pthread_t thread{};
    if (pthread_create(&thread, nullptr, serve, nullptr) != 0) {
        state.SkipWithError("no thread");
        return;
    }
    for ([[maybe_unused]] auto _ : state) {
        sem_post(&wanted);
        sem_wait(&handed_over);
    }
    running = 0;
    sem_post(&wanted);
    pthread_join(thread, nullptr);
}
BENCHMARK(wake_a_thread_that_waits)->UseRealTime()->Apply(bench_repeat);

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    sem_init(&handed_over, 0, 0);
    sem_init(&wanted, 0, 0);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
