// lsctl: the signals that end it.
//
// Threads: one thread owns the signal descriptor. A signal is never handled in signal context: the
// thread notes its number and ends the waits of the client, so that the sub-command can still
// unregister and say goodbye.
#include "lsctl.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <thread>

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "ls_descriptor.h"
#include "ls_signals_blocked.h"

namespace {

// Held over the noting of a signal and the ending of the waits: who sees the number may resume the
// client without being cancelled afterwards.
std::mutex signal_lock;
location_client *client_g = nullptr; // whose waits to end; guarded by signal_lock
int last_signal_g = 0;               // guarded by signal_lock
int signal_fd = -1;                  // written before the thread starts and after it ended
int stop_fd = -1;                    // eventfd: the thread is to end; same
int told_fd = -1;                    // eventfd: there was a signal; same
std::thread thread_g;
sigset_t former_mask; // of the thread that started

void wait_for_signals() {
    std::array<pollfd, 2> fds = {{{signal_fd, POLLIN, 0}, {stop_fd, POLLIN, 0}}};
    for (;;) {
        // No deadline: ended by lsctl_signals_stop.
        if (poll(fds.data(), fds.size(), -1) < 0 && errno != EINTR)
            return;
        if (fds[1].revents != 0)
            return;
        signalfd_siginfo info{};
        if (fds[0].revents == 0 || read(signal_fd, &info, sizeof info) != sizeof info)
            continue;
        const std::lock_guard guard(signal_lock);
        last_signal_g = static_cast<int>(info.ssi_signo);
        location_client_cancel(client_g);
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(told_fd, &one, sizeof one);
    }
}

} // namespace

bool lsctl_signals_start() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, signal);
    {
        const std::lock_guard guard(signal_lock);
        last_signal_g = 0;
    }
    if (pthread_sigmask(SIG_BLOCK, &set, &former_mask) != 0)
        return false;
    signal_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    told_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signal_fd >= 0 && stop_fd >= 0 && told_fd >= 0) {
        const ls_signals_blocked blocked;
        thread_g = std::thread(wait_for_signals);
        return true;
    }
    lsctl_signals_stop();
    return false;
}

void lsctl_signals_stop() {
    if (thread_g.joinable()) {
        const uint64_t one = 1;
        // An eventfd that counts from 0 takes a 1.
        [[maybe_unused]] const ssize_t written = write(stop_fd, &one, sizeof one);
        thread_g.join();
    }
    if (signal_fd >= 0 || stop_fd >= 0 || told_fd >= 0) {
        ls_close(signal_fd);
        ls_close(stop_fd);
        ls_close(told_fd);
        pthread_sigmask(SIG_SETMASK, &former_mask, nullptr);
    }
}

void lsctl_signals_set_client(location_client *client) {
    const std::lock_guard guard(signal_lock);
    client_g = client;
    // The signal may have been faster than the opening.
    if (client != nullptr && last_signal_g != 0)
        location_client_cancel(client);
}

int lsctl_signals_last() {
    const std::lock_guard guard(signal_lock);
    return last_signal_g;
}

int lsctl_signals_descriptor() {
    return told_fd;
}
