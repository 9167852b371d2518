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
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {

seconds stress_time(3);

constexpr uint8_t FIRST_REGISTERED = 40; // three services with periodic updates
constexpr uint8_t FIRST_WORKER = 50;
constexpr int WORKERS = 4;
constexpr int FIRST_TIMER_SIGNAL = 10; // offset from SIGRTMIN; one each for the three timers
constexpr int FILE_SIGNAL = 1;
constexpr milliseconds TICK = 1ms; // one signal of each timer
constexpr milliseconds LONGEST_BURST = 5ms;
constexpr int TICKS_PER_FILE_SIGNAL = 10;
// A machine that can not keep up is given time: what is to be found here is not its speed.
constexpr long MOST_THREADS = 100;
// The C library keeps the stacks and arenas of the most workers there were at once, a sanitizer all
// freed memory for a while.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long RSS_BOUND_KIB = 512L * 1024;
#else
constexpr long RSS_BOUND_KIB = 24L * 1024;
#endif

struct counts {
    std::atomic<long> requests, replies, good, not_sent; // of the workers
    std::atomic<long> notifications;                     // to the registered services
    std::atomic<long> timer_signals, file_signals, queue_full;
    std::atomic<long> held_back; // ticks without signals because the daemon was behind
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

// The number behind `name` in /proc/PID/status, in the base it is written in.
unsigned long status_number(pid_t pid, const std::string &name, int base) {
    const std::string text = scratch_dir::read("/proc/" + std::to_string(pid) + "/status");
    const size_t at = text.find("\n" + name + ":");
    return at == std::string::npos
               ? 0
               : std::strtoul(text.c_str() + at + name.size() + 2, nullptr, base);
}

long rss_kib(pid_t pid) {
    return static_cast<long>(status_number(pid, "VmRSS", 10));
}

long threads_of(pid_t pid) {
    return static_cast<long>(status_number(pid, "Threads", 10));
}

// As the kernel queues it for a timer. Only a process of the same user may say so.
bool send_timer_signal(pid_t pid, int number, void *value) {
    siginfo_t info = {};
    info.si_signo = number;
    info.si_code = SI_TIMER;
    info.si_value.sival_ptr = value;
    return syscall(SYS_rt_sigqueueinfo, pid, number, &info) == 0;
}

void send_signals(pid_t pid, const std::array<void *, 3> &values, const std::atomic<bool> &stop,
                  counts &count) {
    auto next = std::chrono::steady_clock::now();
    for (long tick = 0; !stop; ++tick) {
        // No long burst after a delay: it would pile up as many workers.
        next = std::max(next + TICK, std::chrono::steady_clock::now() - LONGEST_BURST);
        std::this_thread::sleep_until(next);
        if (threads_of(pid) > MOST_THREADS) {
            ++count.held_back;
            continue;
        }
        for (size_t slot = 0; slot < values.size(); ++slot) {
            const int number = SIGRTMIN + FIRST_TIMER_SIGNAL + static_cast<int>(slot);
            ++(send_timer_signal(pid, number, values.at(slot)) ? count.timer_signals
                                                               : count.queue_full);
        }
        if (tick % TICKS_PER_FILE_SIGNAL == 0)
            ++(sigqueue(pid, SIGRTMIN + FILE_SIGNAL, {}) == 0 ? count.file_signals
                                                              : count.queue_full);
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
        if (txn == 0) { // the queue stayed full for as long as a send waits
            ++count.not_sent;
            continue;
        }
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

    std::array<bus_client, 3> registered = {bus_client(FIRST_REGISTERED),
                                            bus_client(FIRST_REGISTERED + 1),
                                            bus_client(FIRST_REGISTERED + 2)};
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

    std::this_thread::sleep_for(stress_time / 3);
    const long rss_warm = rss_kib(pid);
    std::this_thread::sleep_for(stress_time - stress_time / 3);
    stop_signals = true;
    signals.join();
    const bool drained = wait_until([&] { return status_number(pid, "ShdPnd", 16) == 0; });
    stop_workers = true;
    for (std::thread &worker : workers)
        worker.join();
    const bool idle = wait_until([&] { return threads_of(pid) <= idle_threads; });
    int served_afterwards = 0;
    for (uint8_t i = 0; i < WORKERS; ++i)
        served_afterwards +=
            bus_client(FIRST_WORKER + i).ask(LS_REQUEST_GET_POSITION).has_value() ? 1 : 0;
    const long rss_end = rss_kib(pid);
    stop_updates = true;
    for (std::thread &listener : listeners)
        listener.join();
    const bool lives = term.daemon_lives();
    const int end = term.stop();

    std::printf("signal stress, %lld s\n"
                "  timer signals   %8ld   file signals %ld, full queue %ld, ticks held back %ld\n"
                "  notifications   %8ld\n"
                "  requests        %8ld   replies %ld, with success %ld, not sent %ld\n"
                "  served after it %8d of %d, workers %s\n"
                "  resident memory %8ld KiB warm, %ld KiB at the end\n"
                "  daemon          %s, signals %s, end of all processes %d\n",
                static_cast<long long>(stress_time.count()), count.timer_signals.load(),
                count.file_signals.load(), count.queue_full.load(), count.held_back.load(),
                count.notifications.load(), count.requests.load(), count.replies.load(),
                count.good.load(), count.not_sent.load(), served_afterwards, WORKERS,
                idle ? "all ended" : "NEVER END", rss_warm, rss_end, lives ? "alive" : "DEAD",
                drained ? "all taken" : "STILL PENDING", end);
    EXPECT_GT(count.replies, 0);
    EXPECT_EQ(count.requests, count.replies);
    // While the file is read anew there is no static location: a position asked for then fails.
    EXPECT_GE(count.good, count.replies - count.file_signals);
    EXPECT_EQ(served_afterwards, WORKERS);
    EXPECT_GT(count.notifications, 3) << "the signals did not reach their handler";
    EXPECT_TRUE(idle);
    EXPECT_LE(rss_end, rss_warm + RSS_BOUND_KIB);
    EXPECT_TRUE(drained);
    EXPECT_TRUE(lives);
    EXPECT_EQ(end, 0);
}

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    if (argc == 3 && std::string_view(argv[1]) == "--seconds")
        stress_time = seconds(std::atoi(argv[2]));
    if (argc != 1 && (argc != 3 || stress_time < 1s)) {
        std::fprintf(stderr, "usage: signal_stress [--seconds N]\n");
        return 2;
    }
    return RUN_ALL_TESTS();
}
