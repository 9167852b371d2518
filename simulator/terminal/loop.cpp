#include "loop.h"

#include "ls_clock.h"
#include "ls_descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <ctime>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace sim {
namespace {

// State of the loop; the one thread of the simulated terminal owns it.
struct watched {
    int fd;
    std::function<void()> handler;
};
std::vector<watched> watches;
struct timer {
    std::function<std::optional<double>()> when;
    std::function<void()> handler;
    std::optional<double> due; // as of the present round
};
std::vector<timer> timers;
int timer_fd = -1;

// A timer that its owner asks for again and again in the past must not take the whole processor.
constexpr double SHORTEST_WAIT_S = 20e-6;

void arm(std::optional<double> at) {
    if (timer_fd < 0)
        timer_fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    itimerspec setting{};
    if (at.has_value()) {
        const double when = std::max(*at, loop_now() + SHORTEST_WAIT_S);
        setting.it_value.tv_sec = static_cast<time_t>(when);
        setting.it_value.tv_nsec =
            static_cast<decltype(setting.it_value.tv_nsec)>((when - std::floor(when)) * 1e9);
    }
    timerfd_settime(timer_fd, TFD_TIMER_ABSTIME, &setting, nullptr);
}

void dispatch(int fd) {
    const auto found = std::find_if(watches.begin(), watches.end(),
                                    [fd](const watched &entry) { return entry.fd == fd; });
    if (found != watches.end()) {
        // A copy: the handler may forget itself.
        const std::function<void()> handler = found->handler;
        handler();
    }
}

// One round. False when waiting failed for good.
bool wait_once(std::optional<double> deadline) {
    std::optional<double> at = deadline;
    for (timer &entry : timers) {
        entry.due = entry.when();
        if (entry.due.has_value() && (!at.has_value() || *entry.due < *at))
            at = entry.due;
    }
    arm(at);
    std::vector<pollfd> polled;
    polled.push_back({timer_fd, POLLIN, 0});
    for (const watched &entry : watches)
        polled.push_back({entry.fd, POLLIN, 0});
    if (poll(polled.data(), polled.size(), -1) < 0)
        return errno == EINTR;
    if (polled.front().revents != 0) {
        uint64_t expirations = 0;
        [[maybe_unused]] const ssize_t count = read(timer_fd, &expirations, sizeof expirations);
    }
    for (size_t i = 1; i < polled.size(); i++)
        if (polled[i].revents != 0)
            dispatch(polled[i].fd);
    for (const timer &entry : timers)
        if (entry.due.has_value() && *entry.due <= loop_now())
            entry.handler();
    return true;
}

} // namespace

double loop_now() {
    return static_cast<double>(ls_monotonic_ns()) * 1e-9;
}

void loop_watch(int fd, std::function<void()> handler) {
    loop_forget(fd);
    watches.push_back({fd, std::move(handler)});
}

void loop_forget(int fd) {
    std::erase_if(
        watches, [fd](const watched &entry) { return entry.fd == fd; });
}

void loop_add_timer(std::function<std::optional<double>()> when, std::function<void()> handler) {
    timers.push_back({std::move(when), std::move(handler), std::nullopt});
}

bool loop_until(const std::function<bool()> &done, std::optional<double> deadline) {
    while (!done())
        if ((deadline.has_value() && loop_now() >= *deadline) || !wait_once(deadline))
            return false;
    return true;
}

void loop_close() {
    watches.clear();
    timers.clear();
    ls_close(timer_fd);
}

} // namespace sim
