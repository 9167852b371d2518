// Around the start of a thread: it is born with its starter's mask, so there is no moment in which
// a signal could hit it.
#ifndef LS_SIGNALS_BLOCKED_H
#define LS_SIGNALS_BLOCKED_H

#include <csignal>
#include <pthread.h>

// Blocks every signal for the calling thread, until the end of the scope.
class ls_signals_blocked {
  public:
    ls_signals_blocked() noexcept {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~ls_signals_blocked() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    ls_signals_blocked(const ls_signals_blocked &) = delete;
    ls_signals_blocked &operator=(const ls_signals_blocked &) = delete;

  private:
    sigset_t before{};
};

#endif
