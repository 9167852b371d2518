// Periodic timers on timerfd, served by one thread of the library.
//
// Callbacks run one after another on that thread, with all signals blocked and no lock held. An
// expiry that comes while callbacks are busy is served late; several of them count as one. Nobody
// waits for a callback but rtc_exit, for a second; the thread therefore ends by itself and takes
// with it what it uses. The threads do not survive a fork, and neither do the timers.
#include "ls_descriptor.h"
#include "ls_signals_blocked.h"
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

// A callback may wait for a slow receiver, 15 s and more. Who calls rtc_exit is about to end, and
// whoever stops a service gives it a few seconds in all.
constexpr time_t EXIT_PATIENCE_S = 1;
constexpr uint64_t WAKE_EVENT = 0; // never a handle

struct timer {
    int handle; // 0 = free
    int fd;
    int (*callback)(void *);
    int *timer_id; // the caller's; only passed on
};

std::mutex g_lock;                                 // guards all that follows
pthread_cond_t g_ended = PTHREAD_COND_INITIALIZER; // the thread is about to return
int g_epoll = -1;                                  // open as long as the thread runs; it closes it
int g_wake = -1;                                   // likewise; tells the thread to end
bool g_stopping = false;                           // the thread has been told to end
pthread_t g_thread{};                              // while g_epoll is open
int g_last_handle = 0; // handles count up, so an old one does not soon name a new timer
int g_last_exited = 0; // rtc_exit has ended all timers up to this handle
std::array<timer, 32> g_timers{};

std::atomic<bool> g_alarms_refused{false}; // said so once

timer *find_timer(int handle) {
    for (timer &slot : g_timers)
        if (slot.handle == handle)
            return &slot;
    return nullptr;
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
        ls_descriptor opened(timerfd_create(clock, TFD_NONBLOCK | TFD_CLOEXEC));
        if (opened.fd >= 0 && timerfd_settime(opened.fd, 0, &period, nullptr) == 0)
            return opened.release();
        ls_close(opened.fd); // errno stays
        if (clock == CLOCK_BOOTTIME_ALARM && !g_alarms_refused.exchange(true))
            ZUK_LOG(6, "timers cannot wake the terminal: %m");
    }
    return -1;
}

// Called with g_lock held. Taken out of epoll by name: closing alone does not do it while a child
// process holds a copy of the descriptor.
void disarm(timer &running) {
    epoll_ctl(g_epoll, EPOLL_CTL_DEL, running.fd, nullptr);
    ls_close(running.fd);
    running = {};
}

// Called with g_lock held.
bool watch(int fd, uint64_t event_number) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = event_number;
    return epoll_ctl(g_epoll, EPOLL_CTL_ADD, fd, &event) == 0;
}

void serve(int handle) {
    timer due{};
    {
        const std::lock_guard guard(g_lock);
        const timer *slot = find_timer(handle);
        uint64_t expirations = 0;
        // The timer may be gone since epoll reported it.
        if (slot == nullptr ||
            read(slot->fd, &expirations, sizeof expirations) != sizeof expirations)
            return;
        due = *slot;
    }
    due.callback(due.timer_id);
}

// Called with g_lock held, by the thread at its end or where it could not be started.
void close_all() {
    ls_close(g_epoll);
    ls_close(g_wake);
    g_stopping = false;
}

void *run_timers(void *) {
    int epoll = -1;
    {
        const std::lock_guard guard(g_lock);
        epoll = g_epoll;
    }
    for (;;) {
        epoll_event event{};
        if (epoll_wait(epoll, &event, 1, -1) != 1)
            continue;
        if (event.data.u64 == WAKE_EVENT)
            break;
        serve(static_cast<int>(event.data.u64));
    }
    const std::lock_guard guard(g_lock);
    close_all();
    pthread_cond_broadcast(&g_ended);
    return nullptr;
}

// Called with g_lock held and all closed. 0, or an error number; then all is closed again.
int start_thread() {
    g_epoll = epoll_create1(EPOLL_CLOEXEC);
    g_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    int error = 0;
    if (g_epoll < 0 || g_wake < 0 || !watch(g_wake, WAKE_EVENT)) {
        error = errno;
    } else {
        const ls_signals_blocked inherited;
        error = pthread_create(&g_thread, nullptr, run_timers, nullptr);
    }
    if (error != 0) {
        close_all();
        return error;
    }
    pthread_detach(g_thread);
    pthread_setname_np(g_thread, "zukhal-timers");
    return 0;
}

} // namespace

// Starts the service. Where it runs already, a success that changes nothing. -1: no resources, or
// rtc_exit has given up waiting and the callback still runs (errno EBUSY).
LS_EXPORT int rtc_init_timers(void) {
    int error = 0;
    {
        const std::lock_guard guard(g_lock);
        if (g_epoll < 0)
            error = start_thread();
        else if (g_stopping)
            error = EBUSY;
    }
    if (error == 0)
        return 0;
    errno = error;
    ZUK_LOG(3, "timers do not start: %m");
    return -1;
}

// As rtc_init_timers: timers keep their rhythm, also over a sleep of the terminal.
LS_EXPORT int rtc_reinit(void) {
    return rtc_init_timers();
}

LS_EXPORT int rtc_exit(void) {
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += EXIT_PATIENCE_S;
    {
        const std::lock_guard guard(g_lock);
        for (timer &slot : g_timers)
            if (slot.handle != 0)
                disarm(slot);
        g_last_exited = g_last_handle;
        if (g_epoll < 0)
            return 0;
        g_stopping = true;
        eventfd_write(g_wake, 1);
        if (pthread_equal(g_thread, pthread_self()) != 0)
            return 0;
        int result = 0;
        while (g_stopping && result == 0)
            result = pthread_cond_clockwait(&g_ended, g_lock.native_handle(), CLOCK_MONOTONIC,
                                            &deadline);
        if (!g_stopping)
            return 0;
    }
    ZUK_LOG(4, "timers are off, but a callback still runs");
    errno = ETIMEDOUT;
    return -1;
}

// 0 with errno EINVAL: no callback or no interval; ESRCH: not started; ENOSPC: 32 timers run.
// Any thread, callbacks too. `timer_id` may be null; it is passed on and never written.
LS_EXPORT int rtc_start_timer(uint32_t interval_s, int (*callback)(void *), int *timer_id) {
    int fd = -1;
    int error = interval_s == 0 || callback == nullptr ? EINVAL : 0;
    if (error == 0 && (fd = open_timer(interval_s)) < 0)
        error = errno;
    int handle = 0;
    if (error == 0) {
        const std::lock_guard guard(g_lock);
        timer *slot = find_timer(0);
        do
            g_last_handle = g_last_handle == INT_MAX ? 1 : g_last_handle + 1;
        while (find_timer(g_last_handle) != nullptr);
        if (g_epoll < 0 || g_stopping) {
            error = ESRCH;
        } else if (slot == nullptr) {
            error = ENOSPC;
        } else if (!watch(fd, static_cast<uint64_t>(g_last_handle))) {
            error = errno;
        } else {
            *slot = {g_last_handle, fd, callback, timer_id};
            handle = g_last_handle;
        }
    }
    if (handle == 0) {
        ls_close(fd);
        errno = error;
        ZUK_LOG(3, "timer of %u s refused: %m", interval_s);
    }
    return handle;
}

LS_EXPORT int rtc_del_timer(int timer_id) {
    const std::lock_guard guard(g_lock);
    timer *slot = timer_id > 0 ? find_timer(timer_id) : nullptr;
    if (slot != nullptr) {
        disarm(*slot);
        return 0;
    }
    if (timer_id > 0 && timer_id <= g_last_exited)
        return 0;
    errno = EINVAL;
    return -1;
}
