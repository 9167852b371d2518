// The daemon under thousands of timer signals a second while clients keep it busy.
//
// The handlers log, allocate and send. Were they to run on a thread that holds one of the locks
// behind these calls, the daemon would stop sooner or later; this program tries to make it do so.
// The signals are what the kernel sends for the daemon's own timers: SI_TIMER with the timer's
// value.
#include "system_fixture.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <sys/syscall.h>
#include <thread>

namespace {

constexpr uint8_t FIRST_WORKER = 50;
constexpr int WORKERS = 4;
constexpr int FIRST_TIMER_SIGNAL = 10; // offset from SIGRTMIN; one each for the three timers
constexpr int FILE_SIGNAL = 1;
constexpr milliseconds TICK = 1ms; // one signal of each timer
constexpr milliseconds LONGEST_BURST = 5ms;
constexpr int TICKS_PER_FILE_SIGNAL = 10;
// A machine that can not keep up is given time: what is to be found here is not its speed.
constexpr long MOST_THREADS = 100;

std::atomic<long> replies, good; // of the workers

// The value that each timer's signal carries, by its signal number. The kernel lists for a timer
// "signal: NUMBER/VALUE".
std::map<int, uintptr_t> timer_values(pid_t pid) {
    std::map<int, uintptr_t> values;
    std::istringstream lines(scratch_dir::read("/proc/" + std::to_string(pid) + "/timers"));
    for (std::string line; std::getline(lines, line);) {
        const size_t slash = line.find('/');
        if (!line.starts_with("signal: ") || slash == std::string::npos)
            continue;
        const int number = std::stoi(line.substr(8)) - SIGRTMIN - FIRST_TIMER_SIGNAL;
        if (number >= 0 && number < 3)
            values[number] =
                static_cast<uintptr_t>(std::stoull(line.substr(slash + 1), nullptr, 16));
    }
    return values;
}

long threads_of(pid_t pid) {
    const std::string text = scratch_dir::read("/proc/" + std::to_string(pid) + "/status");
    const size_t at = text.find("\nThreads:");
    return at == std::string::npos ? 0 : std::atol(&text[at + 9]);
}

// How many told the daemon to read the file of the static location anew.
long send_signals(pid_t pid, const std::map<int, uintptr_t> &values, seconds duration) {
    long file_signals = 0;
    auto next = std::chrono::steady_clock::now();
    const auto end = next + duration;
    for (long tick = 0; next < end; ++tick) {
        // No long burst after a delay: it would pile up as many workers.
        next = std::max(next + TICK, std::chrono::steady_clock::now() - LONGEST_BURST);
        std::this_thread::sleep_until(next);
        if (threads_of(pid) > MOST_THREADS)
            continue;
        for (const auto &[number, value] : values) {
            // As the kernel queues it for a timer. Only a process of the same user may say so.
            siginfo_t info = {};
            info.si_signo = SIGRTMIN + FIRST_TIMER_SIGNAL + number;
            info.si_code = SI_TIMER;
            std::memcpy(&info.si_value.sival_ptr, &value, sizeof value);
            syscall(SYS_rt_sigqueueinfo, pid, info.si_signo, &info);
        }
        if (tick % TICKS_PER_FILE_SIGNAL == 0)
            file_signals += sigqueue(pid, SIGRTMIN + FILE_SIGNAL, {}) == 0;
    }
    return file_signals;
}

// Five requests at a time, as fast as they are answered.
void work(uint8_t id, const std::atomic<bool> &stop) {
    bus_client client(id);
    while (!stop) {
        std::map<uint32_t, uint32_t> asked; // message: transaction
        for (const uint32_t request :
             {LS_REQUEST_GET_POSITION, LS_REQUEST_GET_POWER_MODE, LS_REQUEST_GET_TIME,
              LS_REQUEST_GET_SAT_INFO, LS_REQUEST_GET_SPEED})
            asked[request] = client.send(request);
        for (const auto &[request, transaction] : asked) {
            if (transaction == 0) // the queue stayed full for as long as a send waits
                continue;
            const auto reply = client.take(request);
            ASSERT_TRUE(reply) << "no reply to " << request;
            EXPECT_EQ(reply->hdr.txn_id, transaction);
            ++replies;
            good += !reply->payload.empty() && reply->payload[0] == LS_STATUS_OK;
        }
    }
}

} // namespace

TEST(signal_stress, everything_is_answered) {
    terminal term({"--log-level", "info"});
    const pid_t pid = term.daemon();
    const long idle_threads = threads_of(pid);
    term.write_static_location(true);
    ASSERT_TRUE(wait_until([&] { return count_of("location is ON", term.log()) != 0; }));

    std::array<bus_client, 3> registered = {bus_client(40), bus_client(41), bus_client(42)};
    const ls_register_periodic_req_pld_s without_end = {2'000'000'000, 4};
    for (bus_client &client : registered) {
        const auto reply = client.ask(LS_REQUEST_REGISTER_PERIODIC_UPDATE, payload_of(without_end));
        ASSERT_EQ(record_in<ls_periodic_reply>(reply).result, 1U);
    }
    ASSERT_TRUE(wait_until([&] { return timer_values(pid).size() == 3; }));

    std::atomic<bool> stop = false;
    std::vector<std::jthread> workers;
    for (uint8_t i = 0; i < WORKERS; ++i)
        workers.emplace_back([&, i] { work(FIRST_WORKER + i, stop); });
    const seconds duration(std::getenv("LS_TEST_LONG") != nullptr ? 20 : 3);
    const long file_signals = send_signals(pid, timer_values(pid), duration);
    stop = true;
    workers.clear();
    EXPECT_TRUE(wait_until([&] { return threads_of(pid) <= idle_threads; }));
    // The last notices may still lie in the daemon's queue; while it is full the bus refuses.
    bus_client client(FIRST_WORKER);
    EXPECT_TRUE(wait_until([&] { return client.ask(LS_REQUEST_GET_POSITION).has_value(); }));

    EXPECT_GT(replies, 0);
    // While the file is read anew there is no static location: what is asked for then fails.
    EXPECT_GE(good, replies - WORKERS * file_signals);
    for (bus_client &one : registered)
        for (int update = 0; update < 3; ++update) // the first comes without a signal
            EXPECT_TRUE(one.take(LS_NOTIFY_PERIODIC_UPDATE)) << update;
    EXPECT_EQ(term.stop(), 0);
}
