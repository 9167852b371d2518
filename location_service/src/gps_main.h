// Service core: start-up, signals, main loop, shutdown; control parameters; static location.
#ifndef GPS_MAIN_H
#define GPS_MAIN_H

#include <cstddef>
#include <cstdint>

// --- gps_main_parameters.cpp: one value each from the control parameter file. A missing key is
// appended with its default; a file that cannot be opened gives the default. Start-up only.

int32_t get_rffe_req_sem_wait_time(); // seconds
double get_gps_pos_buffer_time();     // seconds
double get_loc_hist_offset_time();    // seconds

// --- gps_main_stub_location.cpp: the static location

// Reads the file and sets flag and text. 0; -1 when it cannot be opened: the text is cleared, the
// flag stays. On the main thread at start-up, then in the handler of the watch's signal.
int ls_read_stub_location();

// Has the kernel send `signal` to the process whenever a file in the directory is modified. 0, or
// -1 (logged). Once, on the main thread.
int ls_watch_stub_location_dir(int signal);

// --- gps_main_signal.cpp: where signals run

// The daemon's signals: SIGTERM, SIGHUP, SIGTSTP and these, counted from SIGRTMIN at run time.
constexpr int LS_FILE_MODIFY_SIGNAL_OFFSET = 1; // the static location's directory was modified
constexpr int LS_PERIODIC_SIGNAL_OFFSET = 10;   // timer of slot 0 of the periodic updates
constexpr int LS_PERIODIC_SLOTS = 3;

// Stack of the signal thread and of each worker. The platform's send may keep a whole message on it
// (64 KiB), its settings another, its log a long line, one inside the other. Untouched pages cost
// nothing but addresses: a 32-bit process has some 3 GiB of them, so that a few hundred workers can
// wait for the receiver where the default of 8 MiB would end at 300.
constexpr size_t LS_THREAD_STACK_SIZE = size_t{1024} * 1024;

// Starts the one thread that takes the daemon's signals and blocks them, and no others, in the
// caller, and so in all threads that are started later. Must come before any other thread. 0, or
// -1 (logged).
int ls_start_signal_thread();

// Directory notifications turn into SIGIO when the queue of real-time signals is full, and its
// default would end the process: from now on `action` runs on the signal thread instead. Does
// nothing when SIGIO has a handler already, or is ignored. Main thread.
void ls_catch_notification_overflow(void (*action)());

// First statement of every handler: no other signal of the daemon interrupts this one, and errno is
// kept.
class ls_signal_scope {
  public:
    ls_signal_scope();
    ~ls_signal_scope();
    ls_signal_scope(const ls_signal_scope &) = delete;
    ls_signal_scope &operator=(const ls_signal_scope &) = delete;

  private:
    int kept_errno;
};

// --- gps_main_stop.cpp: the end. Any thread, and signal handlers.

// While one exists, the connection and the line stay: every worker, every callback of the platform
// and every handler's body has one.
class ls_activity {
  public:
    struct adopt_t {};
    ls_activity();
    explicit ls_activity(adopt_t); // takes over what begin() counted
    ~ls_activity();
    ls_activity(const ls_activity &) = delete;
    ls_activity &operator=(const ls_activity &) = delete;

    // For what begins on one thread and ends on another.
    static void begin();
    static void end();
};
int ls_activities(); // how many there are at this moment

// From now on signal handlers do nothing and requests are refused.
void ls_begin_stop();
bool ls_is_stopping();

// Waits until there are no activities any more, 2 s at most; says so when that was not enough.
void ls_wait_for_activities();

#endif
