// Log, votes and timers in the test's hands. Every timer has a thread of its own; rtc_exit forgets
// them all at once and leaves a running callback to itself.
#include "foreign_channel.h"
#include "zukhal.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace {

struct timer {
    std::mutex lock;
    std::condition_variable changed;
    bool deleted = false, running = false; // under lock
};

std::mutex timers_lock;
std::map<int, std::shared_ptr<timer>> timers; // under timers_lock
int last_handle = 6;                          // under timers_lock
thread_local const timer *own_timer;          // of a callback's thread

void run(const std::shared_ptr<timer> &self, uint32_t interval_s, int (*callback)(void *),
         int *timer_id) {
    own_timer = self.get();
    std::unique_lock guard(self->lock);
    while (!self->changed.wait_for(guard, std::chrono::seconds(interval_s),
                                   [&] { return self->deleted; })) {
        self->running = true;
        guard.unlock();
        foreign_call("timer callback");
        errno = EXDEV;
        callback(timer_id);
        foreign_call("timer callback returned");
        guard.lock();
        self->running = false;
        self->changed.notify_all();
    }
}

void end(timer &ended, bool wait) {
    std::unique_lock guard(ended.lock);
    ended.deleted = true;
    ended.changed.notify_all();
    if (wait && own_timer != &ended)
        ended.changed.wait(guard, [&] { return !ended.running; });
}

} // namespace

void zuk_log_tmplt(int level, const char *format, const char *, int line, ...) {
    const int error = errno;
    foreign_stack(1);
    std::array<char, 1024> text = {};
    va_list arguments;
    va_start(arguments, line);
    errno = error;
    vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    foreign_report(EVENT_LOG, level, text.data());
    errno = EXDEV;
}

int get_zuk_type() {
    return foreign().board;
}

int rtc_init_timers() {
    foreign_signals(IN_RTC_INIT_TIMERS);
    foreign().pid = getpid();
    errno = EXDEV;
    return 0;
}

int rtc_reinit() {
    foreign_call("rtc_reinit");
    return 4;
}

int rtc_exit() {
    const std::lock_guard guard(timers_lock);
    for (const auto &[handle, ended] : timers)
        end(*ended, false);
    timers.clear();
    return 4;
}

int rtc_start_timer(uint32_t interval_s, int (*callback)(void *), int *timer_id) {
    const std::lock_guard guard(timers_lock);
    const auto self = std::make_shared<timer>();
    timers[++last_handle] = self;
    std::thread(run, self, interval_s, callback, timer_id).detach();
    foreign_call("rtc_start_timer", last_handle);
    return last_handle;
}

int rtc_del_timer(int handle) {
    foreign_call("rtc_del_timer", handle);
    foreign_pause(foreign().deletion_ms);
    std::unique_lock guard(timers_lock);
    const auto found = timers.find(handle);
    if (found == timers.end())
        return 0;
    const std::shared_ptr<timer> ended = found->second;
    timers.erase(found);
    guard.unlock();
    end(*ended, foreign().deletion_waits != 0);
    foreign_call("rtc_del_timer returns", handle);
    errno = EXDEV;
    return 0;
}

int pm_system_state_enable(int state_id) {
    foreign_call("pm_system_state_enable", state_id);
    errno = EXDEV;
    return 1;
}

int pm_system_state_disable(int state_id) {
    foreign_call("pm_system_state_disable", state_id);
    errno = EXDEV;
    return 17;
}
