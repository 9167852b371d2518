#include "gps_timer.h"

#include "ls_log.h"

#include <cerrno>
#include <ctime>
#include <sys/types.h>

static constexpr char log_module[] = "gps_timer";

// 64-bit time on 32-bit machines, too (the build sets _TIME_BITS): without it long intervals turn
// negative, and time ends in 2038.
static_assert(sizeof(time_t) == 8 && sizeof(off_t) == 8);

namespace {

// The kernel counts a process's timers from 0, and the C library hands that number on as the id. An
// id of 0 is kept until the next one is there, which then is another, and goes away.
int create_with_id(sigevent *event, timer_t *id) {
    if (timer_create(CLOCK_MONOTONIC, event, id) != 0)
        return -1;
    if (*id != timer_t{})
        return 0;
    const timer_t zero = *id;
    const int result = timer_create(CLOCK_MONOTONIC, event, id);
    const int error = errno;
    timer_delete(zero);
    errno = error;
    return result;
}

} // namespace

int create_timer(std::atomic<timer_t> *timer_out, timer_signal_handler handler, int sig_offset) {
    const int sig_no = SIGRTMIN + sig_offset;
    if (sig_no > SIGRTMAX) {
        log_error("%s: sig_no = %d, exceeded max value", __func__, sig_no);
        return -1;
    }
    struct sigaction action = {};
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = handler;
    sigemptyset(&action.sa_mask);
    if (sigaction(sig_no, &action, nullptr) != 0) {
        log_error("Error in sigaction. errno = %d(%m).\n", errno);
        return -1;
    }
    sigevent event = {};
    event.sigev_notify = SIGEV_SIGNAL;
    event.sigev_signo = sig_no;
    event.sigev_value.sival_ptr = timer_out;
    timer_t id = {};
    if (create_with_id(&event, &id) != 0) {
        log_error("timer_create failed with errno = %d(%m).\n", errno);
        return -1;
    }
    *timer_out = id;
    return 0;
}

int start_timer(timer_t timer_id, uint32_t interval_s) {
    itimerspec timing = {};
    timing.it_value.tv_sec = static_cast<time_t>(interval_s);
    timing.it_interval = timing.it_value;
    if (timer_settime(timer_id, 0, &timing, nullptr) != 0) {
        log_error("timer_settime failed with errno = %d(%m).\n", errno);
        return -1;
    }
    return 0;
}

void delete_timer(timer_t timer_id) {
    if (timer_id != timer_t{})
        timer_delete(timer_id);
}
