// Service core: start-up, signals, main loop, shutdown; control parameters; static location.
#ifndef GPS_MAIN_H
#define GPS_MAIN_H

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

// Starts the one thread that takes the daemon's signals and blocks them in the caller, and so in
// all threads it starts later. Must come before any other thread. 0, or -1.
int ls_start_signal_thread();

// First statement of every handler: no other signal of the daemon interrupts this one, errno is
// kept, and nothing runs in a handler once shutdown has begun. False: return at once.
class ls_signal_scope {
  public:
    ls_signal_scope();
    ~ls_signal_scope();
    ls_signal_scope(const ls_signal_scope &) = delete;
    ls_signal_scope &operator=(const ls_signal_scope &) = delete;
    explicit operator bool() const { return entered; }

  private:
    int kept_errno;
    bool entered;
};

// Shutdown: handlers return at once from now on; waits (bounded) for a running one.
void ls_stop_signal_handlers();

#endif
