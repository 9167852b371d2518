// Where signals run: on one thread that does nothing but wait for them.
//
// The daemon's handlers log, allocate and send. On a thread that can be interrupted anywhere they
// could meet a lock that this thread holds; the signal thread holds none, so they can not.
//
// The platform's libraries have signals of their own, waited for by threads of theirs or caught by
// handlers that may run on any thread. So the daemon's signals are the only ones that the signal
// thread takes, and the only ones that are blocked anywhere else.
#include "gps_main.h"
#include "ls_log.h"
#include "ls_signals_blocked.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

static constexpr char log_module[] = "gps_main";

namespace {

std::atomic<int> overflow_fd = -1; // eventfd: directory notifications were lost
std::atomic<void (*)()> overflow_action;

sigset_t daemon_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGTSTP, SIGHUP, SIGTERM, SIGRTMIN + LS_FILE_MODIFY_SIGNAL_OFFSET})
        sigaddset(&set, signal);
    for (int slot = 0; slot < LS_PERIODIC_SLOTS; ++slot)
        sigaddset(&set, SIGRTMIN + LS_PERIODIC_SIGNAL_OFFSET + slot);
    return set;
}

void *wait_for_signals(void *) {
    pthread_setname_np(pthread_self(), "ls_signals");
    const sigset_t taken = daemon_signals();
    sigset_t wait_mask;
    sigfillset(&wait_mask);
    for (int signal = 1; signal <= SIGRTMAX; ++signal)
        if (sigismember(&taken, signal) == 1)
            sigdelset(&wait_mask, signal);
    while (true) {
        pollfd overflow = {.fd = overflow_fd, .events = POLLIN, .revents = 0};
        uint64_t count = 0;
        // Signals are delivered in here and nowhere else.
        if (ppoll(&overflow, 1, nullptr, &wait_mask) <= 0 ||
            read(overflow_fd, &count, sizeof(count)) != sizeof(count))
            continue;
        if (void (*action)() = overflow_action; action != nullptr)
            action();
    }
}

// SIGIO, on any thread, which may hold any lock: hands on to the signal thread.
void report_overflow(int) {
    const int kept_errno = errno;
    constexpr uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(overflow_fd, &one, sizeof(one));
    errno = kept_errno;
}

} // namespace

int ls_start_signal_thread() {
    overflow_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, LS_THREAD_STACK_SIZE);
    pthread_t thread = {};
    int error = 0;
    {
        const ls_signals_blocked scope; // they reach the thread inside ppoll only
        error = pthread_create(&thread, &attributes, wait_for_signals, nullptr);
    }
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        errno = error;
        log_error("Error while creating the signal thread. error = %d(%m)", error);
        return -1;
    }
    const sigset_t blocked = daemon_signals();
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    return 0;
}

void ls_catch_notification_overflow(void (*action)()) {
    struct sigaction present = {};
    if (sigaction(SIGIO, nullptr, &present) != 0 || (present.sa_flags & SA_SIGINFO) != 0 ||
        present.sa_handler != SIG_DFL)
        return;
    overflow_action = action;
    struct sigaction own = {};
    own.sa_handler = report_overflow;
    own.sa_flags = SA_RESTART;
    sigemptyset(&own.sa_mask);
    sigaction(SIGIO, &own, nullptr);
}

ls_signal_scope::ls_signal_scope() : kept_errno(errno) {
    // The kernel puts the mask back when the handler returns.
    const sigset_t set = daemon_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

ls_signal_scope::~ls_signal_scope() {
    errno = kept_errno;
}
