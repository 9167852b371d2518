// Entry of the daemon: start-up and shutdown in their order, and the handler of its signals.
#include "gps_main.h"

#include "dbhandler.h"
#include "gps_power.h"
#include "ls_log.h"
#include "ls_paths.h"
#include "ls_state.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <syslog.h>
#include <unistd.h>

static constexpr char log_module[] = "gps_main";

namespace {

// A file in the static location's directory was modified.
int file_modify_signal() {
    return SIGRTMIN + LS_FILE_MODIFY_SIGNAL_OFFSET;
}

std::atomic<bool> stop_requested; // set by sig_handler, also before the loop runs

void sig_handler(int signal) {
    const ls_signal_scope scope;
    const ls_activity activity;
    if (ls_is_stopping())
        return;
    log_info("%s: Received Signal %d", __func__, signal);
    // Not before the platform has taken the vote: the terminal may be about to sleep.
    while (pm_system_state_enable(LS_SYSTEM_STATE_ID) != 1) {
    }
    if (signal == file_modify_signal() || signal == SIGIO) {
        log_info("%s file is modified\n", LS_PATH_STUB_LOCATION);
        ls_read_stub_location();
        return;
    }
    stop_requested = true;
    GMainLoop *loop = ls_main_loop;
    if (loop != nullptr)
        g_main_loop_quit(loop);
}

// Some notifications of the directory did not fit into the queue of signals.
void reread_after_overflow() {
    sig_handler(SIGIO);
}

// First thing the loop runs: a signal that came before the loop did could not quit it.
gboolean quit_if_requested(gpointer loop) {
    if (stop_requested)
        g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_REMOVE;
}

void read_settings() {
    int32_t power_status = 0;
    db_read_gps_power_on_status(&power_status);
    mt_gps_status = power_status;
    gps_current_power_mode_g = static_cast<uint32_t>(power_status);
    gps_board_type_g = get_zuk_type();
    int32_t antenna = 0;
    db_read_ta_power_on_status(&antenna);
    antenna_type = antenna;
    log_info("%s antenna value read from db = %d\n", "main", antenna);
}

void read_control_parameters() {
    rffe_req_sem_wait_time = get_rffe_req_sem_wait_time();
    gps_pos_buffer_time = get_gps_pos_buffer_time();
    loc_hist_offset_time = get_loc_hist_offset_time();
}

bool install_handlers(struct sigaction action) {
    struct handled_signal {
        int number;
        ls_log_text failed;
    };
    const std::array handled = {
        handled_signal{SIGTSTP, "Failed to set SIGTSTP handler"},
        handled_signal{SIGHUP, "Failed to set SIGHUP handler"},
        handled_signal{SIGTERM, "Failed to set SIGTERM handler"},
        handled_signal{file_modify_signal(), "Failed to set FILE_MODIFY_SIG handler"},
    };
    action.sa_handler = sig_handler;
    for (const handled_signal &signal : handled) {
        if (sigaction(signal.number, &action, nullptr) != 0) {
            log_text(LS_LOG_ERROR, signal.failed, "");
            return false;
        }
    }
    return true;
}

void run_main_loop() {
    GMainLoop *loop = g_main_loop_new(nullptr, FALSE);
    ls_main_loop = loop;
    g_idle_add(quit_if_requested, loop);
    rtc_reinit();
    g_main_loop_run(loop);
}

void shut_down() {
    log_info("Signal handler called. Cleaning up and exiting Location Service");
    ls_begin_stop();
    rtc_exit();
    ls_wait_for_activities();
    ls_hal_deinit_device(gps_board_type_g);
    g_main_loop_unref(ls_main_loop.exchange(nullptr));
}

} // namespace

int main() {
    if (ls_start_signal_thread() != 0)
        return EXIT_FAILURE;

    log_info("Location Service Version: %s", LS_VERSION);
    struct sigaction action = {};
    sigemptyset(&action.sa_mask);
    clock_gettime(CLOCK_MONOTONIC, &ls_start_time);
    if (rtc_init_timers() != 0) {
        log_error("Failed to initialise RTC Timers, GPS exiting..");
        closelog();
        return EXIT_FAILURE;
    }
    read_settings();
    sem_init(&ta_data_sem, 0, 0);
    read_control_parameters();
    if (ls_hal_init_device(gps_board_type_g) == -1) {
        log_error("Location Service initialization failed\n");
        return -1;
    }
    log_info("Location Service initialization sucessful\n");
    ls_read_stub_location();
    if (!install_handlers(action))
        return EXIT_FAILURE;
    ls_catch_notification_overflow(reread_after_overflow);
    if (ls_watch_stub_location_dir(file_modify_signal()) == -1)
        log_error("%s file modification failed\n", LS_PATH_STUB_LOCATION);
    run_main_loop();
    shut_down();
    // Who was not done in time may be inside a library, whose end it must not live to see.
    if (ls_activities() != 0)
        _exit(EXIT_SUCCESS);
    return EXIT_SUCCESS;
}
