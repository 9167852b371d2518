// The daemon under thousands of timer signals a second while clients keep it busy.
//
// The handlers log, allocate and send. Were they to run on a thread that holds one of the locks
// behind these calls, the daemon would stop sooner or later; this program tries to make it do so.
// The signals are what the kernel sends for the daemon's own timers: SI_TIMER with the timer's
// value.
//
//   signal_stress [--seconds N]    3 seconds unless told otherwise
#include "system_fixture.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

seconds stress_time(3);

constexpr uint8_t FIRST_WORKER = 50;
constexpr int WORKERS = 4;
constexpr int FIRST_TIMER_SIGNAL = 10; // offset from SIGRTMIN; one each for the three timers
constexpr int FILE_SIGNAL = 1;
constexpr milliseconds TICK = 1ms; // one signal of each timer
constexpr milliseconds LONGEST_BURST = 5ms;
constexpr int TICKS_PER_FILE_SIGNAL = 10;
// A machine that can not keep up is given time: what is to be found here is not its speed.
constexpr long MOST_THREADS = 100;

struct counts {
    std::atomic<long> requests, replies, good; // of the workers
    std::atomic<long> notifications;           // to the registered services
    std::atomic<long> timer_signals, file_signals;
};

// The value that each timer's signal carries, by its signal number. The kernel lists for a timer
// "signal: NUMBER/VALUE".
std::array<void *, 3> timer_values(pid_t pid) {
    std::array<void *, 3> values = {};
    std::istringstream lines(scratch_dir::read("/proc/" + std::to_string(pid) + "/timers"));
    for (std::string line; std::getline(lines, line);) {
        const size_t slash = line.find('/');
        if (line.rfind("signal: ", 0) != 0 || slash == std::string::npos)
            continue;
        const int number = std::stoi(line.substr(8));
        const auto value = static_cast<uintptr_t>(std::stoull(line.substr(slash + 1), nullptr, 16));
        const int slot = number - SIGRTMIN - FIRST_TIMER_SIGNAL;
        if (slot >= 0 && slot < 3)
            std::memcpy(&values[static_cast<size_t>(slot)], &value, sizeof(value));
    }
    return values;
}

long threads_of(pid_t pid) {
    const std::string text = scratch_dir::read("/proc/" + std::to_string(pid) + "/status");
    const size_t at = text.find("\nThreads:");
    return at == std::string::npos ? 0 : std::atol(&text[at + 9]);
}

void send_signals(pid_t pid, const std::array<void *, 3> &values, const std::atomic<bool> &stop,
                  counts &count) {
    auto next = std::chrono::steady_clock::now();
    for (long tick = 0; !stop; ++tick) {
        // No long burst after a delay: it would pile up as many workers.
        next = std::max(next + TICK, std::chrono::steady_clock::now() - LONGEST_BURST);
        std::this_thread::sleep_until(next);
        if (threads_of(pid) > MOST_THREADS)
            continue;
        for (int slot = 0; slot < 3; ++slot) {
            // As the kernel queues it for a timer. Only a process of the same user may say so.
            siginfo_t info = {};
            info.si_signo = SIGRTMIN + FIRST_TIMER_SIGNAL + slot;
            info.si_code = SI_TIMER;
            info.si_value.sival_ptr = values.at(static_cast<size_t>(slot));
            count.timer_signals += syscall(SYS_rt_sigqueueinfo, pid, info.si_signo, &info) == 0;
        }
        if (tick % TICKS_PER_FILE_SIGNAL == 0)
            count.file_signals += sigqueue(pid, SIGRTMIN + FILE_SIGNAL, {}) == 0;
    }
}

void ask_as_fast_as_answered(uint8_t id, const std::atomic<bool> &stop, counts &count) {
    constexpr std::array<uint32_t, 5> requests = {LS_REQUEST_GET_POSITION,
                                                  LS_REQUEST_GET_POWER_MODE, LS_REQUEST_GET_TIME,
                                                  LS_REQUEST_GET_SAT_INFO, LS_REQUEST_GET_SPEED};
    bus_client client(id);
    for (size_t i = 0; !stop; ++i) {
        const uint32_t request = requests.at(i % requests.size());
        const uint32_t txn = client.send(request);
        if (txn == 0) // the queue stayed full for as long as a send waits
            continue;
        ++count.requests;
        const auto reply = client.take([txn](const bus_message &message) {
            return message.hdr.msg_type == LS_MSG_RESPONSE && message.hdr.txn_id == txn;
        });
        if (!reply)
            return; // the counts differ
        ++count.replies;
        count.good += reply->hdr.msg_id == request && !reply->payload.empty() &&
                      reply->payload[0] == LS_STATUS_OK;
    }
}

void take_updates(bus_client &client, const std::atomic<bool> &stop, counts &count) {
    while (!stop) {
        if (client.take(LS_NOTIFY_PERIODIC_UPDATE, 100ms))
            ++count.notifications;
    }
}

} // namespace

TEST(signal_stress, everything_is_answered) {
    terminal term({"--log-level", "info"});
    const pid_t pid = term.daemon();
    const long idle_threads = threads_of(pid);
    term.write_static_location(true);
    ASSERT_TRUE(wait_until([&] { return term.log().find("location is ON") != std::string::npos; }));

    std::array<bus_client, 3> registered = {bus_client(40), bus_client(41), bus_client(42)};
    const ls_register_periodic_req_pld_s without_end = {2'000'000'000, 4};
    for (bus_client &client : registered) {
        const auto reply = client.ask(LS_REQUEST_REGISTER_PERIODIC_UPDATE, payload_of(without_end));
        ASSERT_EQ(record_in<ls_periodic_reply>(reply).result, 1U);
    }
    std::array<void *, 3> values = {};
    ASSERT_TRUE(wait_until([&] {
        values = timer_values(pid);
        return values[0] != nullptr && values[1] != nullptr && values[2] != nullptr;
    })) << scratch_dir::read("/proc/" + std::to_string(pid) + "/timers");

    counts count = {};
    std::atomic<bool> stop_signals = false;
    std::atomic<bool> stop_workers = false;
    std::atomic<bool> stop_updates = false;
    std::vector<std::thread> workers;
    std::vector<std::thread> listeners;
    listeners.reserve(registered.size());
    for (bus_client &client : registered)
        listeners.emplace_back([&] { take_updates(client, stop_updates, count); });
    for (uint8_t i = 0; i < WORKERS; ++i)
        workers.emplace_back(ask_as_fast_as_answered, static_cast<uint8_t>(FIRST_WORKER + i),
                             std::cref(stop_workers), std::ref(count));
    std::thread signals([&] { send_signals(pid, values, stop_signals, count); });

    std::this_thread::sleep_for(stress_time);
    stop_signals = true;
    signals.join();
    stop_workers = true;
    for (std::thread &worker : workers)
        worker.join();
    const bool idle = wait_until([&] { return threads_of(pid) <= idle_threads; });
    // The last notices may still lie in the daemon's queue; while it is full the bus refuses.
    for (uint8_t i = 0; i < WORKERS; ++i) {
        bus_client client(FIRST_WORKER + i);
        EXPECT_TRUE(wait_until([&] { return client.ask(LS_REQUEST_GET_POSITION).has_value(); }))
            << int{i};
    }
    stop_updates = true;
    for (std::thread &listener : listeners)
        listener.join();

    std::printf("signals to timers %ld, to the file %ld; notifications %ld; requests %ld, replies "
                "%ld, with success %ld\n",
                count.timer_signals.load(), count.file_signals.load(), count.notifications.load(),
                count.requests.load(), count.replies.load(), count.good.load());
    EXPECT_GT(count.replies, 0);
    EXPECT_EQ(count.requests, count.replies);
    // While the file is read anew there is no static location: a position asked for then fails.
    EXPECT_GE(count.good, count.replies - count.file_signals);
    EXPECT_GT(count.notifications, 3) << "the signals did not reach their handler";
    EXPECT_TRUE(idle);
    EXPECT_TRUE(term.daemon_lives());
    EXPECT_EQ(term.stop(), 0);
}

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc == 3 && std::string_view(argv[1]) == "--seconds")
        stress_time = seconds(std::atoi(argv[2]));
    return RUN_ALL_TESTS();
}
