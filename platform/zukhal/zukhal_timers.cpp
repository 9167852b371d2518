// Periodic timers on timerfd, served by one thread of the library.
//
// Callbacks run one after another on that thread, with all signals blocked and no lock held. An
// expiry that comes while callbacks are busy is served late; several of them count as one.
// Lock order: g_lifecycle, then g_lock.
#include "zukhal.h"
#include "zukhal_internal.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <limits>
#include <mutex>

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

namespace {

// A callback may wait for a slow receiver, 15 s and more; only a stuck one takes this long.
constexpr time_t callback_patience_s = 60;
constexpr uint64_t wake_event = 0; // never a handle

struct timer {
    int handle; // 0 = free
    int fd;
    uint32_t interval_s;
    int (*callback)(void *);
    int *timer_id; // the caller's; only passed on
};

enum class phase {
    off,
    running,
    stopping, // no callback begins any more
    ended     // the thread is past its last callback and waits to be joined
};

std::mutex g_lifecycle; // held by init, reinit and exit for their whole duration

std::mutex g_lock;                                    // guards all that follows
pthread_cond_t g_progress = PTHREAD_COND_INITIALIZER; // a callback returned, or the thread ended
phase g_phase = phase::off;
pid_t g_owner = 0; // process that the thread and the descriptors belong to
pthread_t g_thread{};
int g_epoll = -1;
int g_wake = -1;
int g_running = 0;     // handle whose callback runs now
int g_last_handle = 0; // handles count up, so an old one does not soon name a new timer
std::array<timer, 32> g_timers{};

thread_local bool t_is_timer_thread = false;
std::atomic<bool> g_alarms_refused{false}; // said so once

timer *find_timer(int handle) {
    for (timer &slot : g_timers)
        if (slot.handle == handle)
            return &slot;
    return nullptr;
}

void close_fd(int &fd) {
    if (fd >= 0)
        close(fd);
    fd = -1;
}

// Called with g_lock held. False: the deadline passed first.
template <typename Condition>
bool wait_until(Condition reached) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += callback_patience_s;
    while (!reached())
        if (pthread_cond_clockwait(&g_progress, g_lock.native_handle(), CLOCK_MONOTONIC,
                                   &deadline) == ETIMEDOUT)
            return reached();
    return true;
}

// A running timerfd that also counts in suspend and, where the process may, ends the suspend. -1
// with errno: failed.
int open_timer(uint32_t interval_s) {
    constexpr auto longest = static_cast<uint64_t>(std::numeric_limits<int32_t>::max());
    itimerspec period{};
    // 68 years are enough, and fit in any time_t.
    period.it_interval.tv_sec = static_cast<time_t>(std::min<uint64_t>(interval_s, longest));
    period.it_value = period.it_interval;
    for (const clockid_t clock : {CLOCK_BOOTTIME_ALARM, CLOCK_BOOTTIME}) {
        const int fd = timerfd_create(clock, TFD_NONBLOCK | TFD_CLOEXEC);
        if (fd >= 0 && timerfd_settime(fd, 0, &period, nullptr) == 0)
            return fd;
        const int error = errno;
        if (fd >= 0)
            close(fd);
        errno = error;
        if (clock == CLOCK_BOOTTIME_ALARM && !g_alarms_refused.exchange(true))
            ZUK_LOG(6, "timers cannot wake the terminal: %m");
    }
    return -1;
}

// Called with g_lock held. Opens the timer's descriptor and hands it to the thread.
bool arm(timer &armed) {
    armed.fd = open_timer(armed.interval_s);
    if (armed.fd < 0)
        return false;
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = static_cast<uint64_t>(armed.handle);
    if (epoll_ctl(g_epoll, EPOLL_CTL_ADD, armed.fd, &event) == 0)
        return true;
    close_fd(armed.fd);
    return false;
}

// Called with g_lock held. Taken out of epoll by name: closing alone does not do it while a child
// process holds a copy of the descriptor. A child itself must leave the shared epoll alone.
void disarm(timer &running) {
    if (g_owner == getpid())
        epoll_ctl(g_epoll, EPOLL_CTL_DEL, running.fd, nullptr);
    close_fd(running.fd);
    running = {};
}

void serve(int handle) {
    std::unique_lock lock(g_lock);
    const timer *due = find_timer(handle);
    uint64_t expirations = 0;
    // The timer may be gone since epoll reported it.
    if (g_phase != phase::running || due == nullptr ||
        read(due->fd, &expirations, sizeof expirations) != sizeof expirations)
        return;
    const timer copy = *due;
    g_running = handle;
    lock.unlock();
    copy.callback(copy.timer_id);
    lock.lock();
    g_running = 0;
    pthread_cond_broadcast(&g_progress);
}

void *run_timers(void *) {
    t_is_timer_thread = true;
    int epoll = -1;
    {
        const std::lock_guard guard(g_lock);
        epoll = g_epoll;
    }
    for (;;) {
        std::array<epoll_event, 8> events{};
        const int n = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < n; i++) {
            const uint64_t event = events[static_cast<size_t>(i)].data.u64;
            if (event != wake_event) {
                serve(static_cast<int>(event));
                continue;
            }
            const std::lock_guard guard(g_lock);
            g_phase = phase::ended;
            pthread_cond_broadcast(&g_progress);
            return nullptr;
        }
    }
}

// Called with g_lock held, with no thread that uses the descriptors.
void forget_all(bool keep_timers) {
    for (timer &slot : g_timers) {
        if (slot.handle != 0)
            close_fd(slot.fd);
        if (!keep_timers)
            slot = {};
    }
    close_fd(g_epoll);
    close_fd(g_wake);
    g_running = 0;
    g_phase = phase::off;
}

// Called with g_lock held and g_phase off. 0, or an error number; then everything is off again.
int start_thread() {
    g_owner = getpid();
    g_epoll = epoll_create1(EPOLL_CLOEXEC);
    g_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = wake_event;
    int error = 0;
    if (g_epoll < 0 || g_wake < 0 || epoll_ctl(g_epoll, EPOLL_CTL_ADD, g_wake, &event) != 0) {
        error = errno;
    } else {
        // The thread inherits the mask, so there is no moment in which it takes a signal.
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        error = pthread_create(&g_thread, nullptr, run_timers, nullptr);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    if (error != 0) {
        forget_all(true);
        return error;
    }
    pthread_setname_np(g_thread, "zukhal-timers");
    g_phase = phase::running;
    return 0;
}

// Makes sure that the thread of this process runs. After a fork, the inherited descriptors share
// their state with the parent's: they are closed, and timers that are kept get new ones.
int ensure_running(bool keep_timers) {
    if (t_is_timer_thread)
        return 0;
    const std::lock_guard lifecycle(g_lifecycle);
    const std::lock_guard guard(g_lock);
    if (g_phase != phase::off && g_owner != getpid())
        forget_all(keep_timers);
    if (g_phase == phase::running)
        return 0;
    const int error = g_phase == phase::off ? start_thread() : EBUSY;
    if (error != 0) {
        errno = error;
        ZUK_LOG(3, "timers do not start: %m");
        return -1;
    }
    bool all_armed = true;
    for (timer &slot : g_timers)
        if (slot.handle != 0 && !arm(slot)) {
            ZUK_LOG(3, "timer %d is lost: %m", slot.handle);
            slot = {};
            all_armed = false;
        }
    return all_armed ? 0 : -1;
}

} // namespace

// A second call is a success that changes nothing. In a child process after fork it starts without
// timers; fork only while no other thread is inside these calls.
ZUK_EXPORT int rtc_init_timers(void) {
    return ensure_running(false);
}

// Starts the service if it does not run. In a child process after fork, the timers come along and
// begin a new interval; where the service runs already, timers keep their rhythm.
ZUK_EXPORT int rtc_reinit(void) {
    return ensure_running(true);
}

// Deletes all timers, waits for a running callback and ends the thread. Without init, or again, a
// success that does nothing. -1: called from a callback (errno EDEADLK), or the running callback
// did not return within 60 s (ETIMEDOUT); call again then.
ZUK_EXPORT int rtc_exit(void) {
    if (t_is_timer_thread) {
        errno = EDEADLK;
        return -1;
    }
    const std::lock_guard lifecycle(g_lifecycle);
    std::unique_lock lock(g_lock);
    if (g_phase == phase::off)
        return 0;
    if (g_owner == getpid()) {
        for (timer &slot : g_timers)
            if (slot.handle != 0)
                disarm(slot);
        if (g_phase == phase::running) {
            g_phase = phase::stopping;
            eventfd_write(g_wake, 1);
        }
        if (!wait_until([] { return g_phase == phase::ended; })) {
            ZUK_LOG(3, "the callback of timer %d does not return", g_running);
            errno = ETIMEDOUT;
            return -1;
        }
        const pthread_t thread = g_thread;
        lock.unlock(); // the thread still holds it for its last step
        pthread_join(thread, nullptr);
        lock.lock();
    }
    forget_all(false);
    return 0;
}

// 0 with errno EINVAL: no callback or no interval; ESRCH: not started; ENOSPC: 32 timers run.
// Any thread, callbacks too. `timer_id` may be null; it is passed on and never written.
ZUK_EXPORT int rtc_start_timer(uint32_t interval_s, int (*callback)(void *), int *timer_id) {
    if (interval_s == 0 || callback == nullptr) {
        ZUK_LOG(3, "timer refused: interval %u s, callback %s", interval_s,
                callback != nullptr ? "given" : "missing");
        errno = EINVAL;
        return 0;
    }
    const std::lock_guard guard(g_lock);
    timer *slot = find_timer(0);
    if (g_phase != phase::running || g_owner != getpid() || slot == nullptr) {
        errno = slot == nullptr ? ENOSPC : ESRCH;
        ZUK_LOG(3, "timer refused: %s", slot == nullptr ? "too many" : "the service does not run");
        return 0;
    }
    do
        g_last_handle = g_last_handle == INT_MAX ? 1 : g_last_handle + 1;
    while (find_timer(g_last_handle) != nullptr);
    *slot = {g_last_handle, -1, interval_s, callback, timer_id};
    if (!arm(*slot)) {
        ZUK_LOG(3, "timer refused: %m");
        *slot = {};
        return 0;
    }
    return slot->handle;
}

// From another thread it waits for a running callback of this timer. -1 with errno EINVAL: no such
// timer; ETIMEDOUT: the timer is deleted, but its last callback still runs after 60 s.
ZUK_EXPORT int rtc_del_timer(int timer_id) {
    std::unique_lock lock(g_lock);
    timer *slot = timer_id > 0 ? find_timer(timer_id) : nullptr;
    if (slot == nullptr) {
        errno = EINVAL;
        return -1;
    }
    disarm(*slot);
    if (t_is_timer_thread || g_owner != getpid() ||
        wait_until([timer_id] { return g_running != timer_id; }))
        return 0;
    ZUK_LOG(3, "the callback of timer %d does not return", timer_id);
    errno = ETIMEDOUT;
    return -1;
}
