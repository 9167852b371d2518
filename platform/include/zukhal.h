/* The hardware abstraction of the terminal: log, board type, timers, system-state votes. */
#ifndef ZUKHAL_H
#define ZUKHAL_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One log line. `level` as in syslog(3): 3 error, 4 warning, 6 info, 7 debug. `module` and `line`
 * name the place in the source. errno is as the caller left it for %m, and is kept. */
void zuk_log_tmplt(int level, const char *format, const char *module, int line, ...)
    __attribute__((format(printf, 2, 5)));

/* Board type: 1 receiver on the local UART, 2 receiver behind the TA; 0 = unknown, because the
 * configuration is missing or wrong. */
int get_zuk_type(void);

/* Periodic timers that also count while the terminal sleeps. Callbacks run one at a time on one
 * thread of the library, with all signals blocked. Any thread; not across a fork. */
int rtc_init_timers(void); /* 0 = success, also where they run already */
int rtc_reinit(void);      /* the same */

/* Deletes all timers and waits for a callback that is under way, 1 s at most. 0 = the library's
 * thread has ended (called from a callback: ends with it). -1 with errno ETIMEDOUT: the callback
 * still runs; the thread ends with it, and no other begins. */
int rtc_exit(void);

/* Calls `callback(timer_id)` every `interval_s` seconds, first after one interval. Returns the new
 * handle (the caller stores it); 0 = failed. */
int rtc_start_timer(uint32_t interval_s, int (*callback)(void *), int *timer_id);

/* Returns at once; no callback of this timer starts any more. One that is under way ends by itself.
 * 0 = success, also for a timer that rtc_exit has ended; -1 with errno EINVAL: no such timer. */
int rtc_del_timer(int timer_id);

/* Counted votes, one count per state id. enable takes one vote back, disable adds one. */
int pm_system_state_enable(int state_id);  /* 1 = taken; the terminal may sleep again */
int pm_system_state_disable(int state_id); /* the terminal must stay awake */

#ifdef __cplusplus
}
#endif

#endif
