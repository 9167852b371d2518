// Where signals run: on one thread that does nothing but wait for them.
//
// The daemon's handlers log, allocate and send. On a thread that can be interrupted anywhere they
// could meet a lock that this thread holds; the signal thread holds none, so they can not.
#include "gps_main.h"
#include "ls_log.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <pthread.h>

static constexpr char log_module[] = "gps_main";

namespace {

// The handlers log one line and read one small file.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t SIGNAL_STACK_SIZE = size_t{512} * 1024;
#else
constexpr size_t SIGNAL_STACK_SIZE = size_t{64} * 1024;
#endif

std::atomic<bool> stopping;        // no handler body runs any more
std::atomic<int> handlers_running; // bodies that run at this moment: at most one

// The signals of the daemon. Directory notifications turn into SIGIO when the queue of real-time
// signals is full, and its default would end the process: it is blocked everywhere and never taken.
sigset_t daemon_signals(bool with_sigio) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTSTP);
    sigaddset(&set, SIGHUP);
    sigaddset(&set, SIGTERM);
    for (int signal = SIGRTMIN; signal <= SIGRTMAX; ++signal)
        sigaddset(&set, signal);
    if (with_sigio)
        sigaddset(&set, SIGIO);
    return set;
}

void *wait_for_signals(void *) {
    pthread_setname_np(pthread_self(), "ls_signals");
    sigset_t wait_mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &wait_mask);
    const sigset_t taken = daemon_signals(false);
    for (int signal = 1; signal <= SIGRTMAX; ++signal) {
        if (sigismember(&taken, signal) == 1)
            sigdelset(&wait_mask, signal);
    }
    while (true)
        sigsuspend(&wait_mask);
}

} // namespace

int ls_start_signal_thread() {
    const sigset_t blocked = daemon_signals(true);
    sigset_t before;
    // The thread is born with the signals blocked, so that they reach it only inside sigsuspend.
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, SIGNAL_STACK_SIZE);
    pthread_t thread = {};
    errno = pthread_create(&thread, &attributes, wait_for_signals, nullptr);
    const int error = errno;
    pthread_attr_destroy(&attributes);
    if (error != 0) {
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        errno = error;
        log_error("Error while creating the signal thread. error = %d(%m)", error);
        return -1;
    }
    return 0;
}

ls_signal_scope::ls_signal_scope() : kept_errno(errno), entered(false) {
    // The kernel puts the mask back when the handler returns.
    const sigset_t set = daemon_signals(true);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    ++handlers_running;
    entered = !stopping;
}

ls_signal_scope::~ls_signal_scope() {
    --handlers_running;
    errno = kept_errno;
}

void ls_stop_signal_handlers() {
    stopping = true;
    constexpr int patience_ms = 1000;
    for (int waited = 0; handlers_running != 0 && waited < patience_ms; ++waited) {
        const timespec one_ms = {.tv_sec = 0, .tv_nsec = 1'000'000};
        nanosleep(&one_ms, nullptr);
    }
}
