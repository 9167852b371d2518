#include "gps_history.h"

#include "dbhandler.h"
#include "gps_main.h"
#include "gps_service.h"
#include "ls_log.h"
#include "ls_state.h"

static constexpr char log_module[] = "gps_history";

namespace {

std::mutex settings_lock; // guards g_timer_id; settings are applied one at a time
int g_timer_id = 0;       // handle of the running platform timer, 0 = none

std::atomic<bool> ls_history_acquisition_started; // set by the first acquisition, never cleared

// Not the locks of the request handlers: an acquisition is not serialised against requests.
std::mutex history_count_lock;    // around this module's changes of pending_req_count
std::mutex history_receiver_lock; // around this module's receiver query

enum : uint8_t { ACQUISITION_OFF = 0, ACQUISITION_ON = 1 };

int start_acquisition(uint32_t interval) {
    g_timer_id = rtc_start_timer(interval, ls_history_periodic_timer_handler, &g_timer_id);
    return 0;
}

// Result of the platform's deletion; the log names the place as field staff know it.
int delete_acquisition_timer(const char *name, int line) {
    const int result = rtc_del_timer(g_timer_id);
    if (result != 0)
        log_error("In GPS: %s function %d line failed to delete timertimer_ret_sta = %d \n", name,
                  line, result);
    return result;
}

void count_pending(int32_t n) {
    const std::lock_guard guard(history_count_lock);
    pending_req_count += n;
}

// Whether it is too early: the terminal is still starting up and has better things to do.
bool is_inside_boot_offset() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto running = static_cast<double>(now.tv_sec - ls_start_time.tv_sec);
    return running < loc_hist_offset_time && gps_board_type_g != 1;
}

int32_t acquire(const char *name, gps_pos_data *pos) {
    int32_t result = 1;
    if (gps_get_buffered_pos(pos, &result)) {
        log_info("%s: Sending buffered position data", name);
        return result;
    }
    const std::lock_guard guard(history_receiver_lock);
    return gps_get_pos(pos);
}

} // namespace

int ls_hal_init_gps_history() {
    log_debug("LH: %s: Initializing...\n", __func__);
    const std::lock_guard guard(settings_lock);
    location_history_settings settings = {};
    if (db_read_location_history_settings(&settings) != 0) {
        log_error("LH: Error reading location_history_settings\n");
        return -1;
    }
    log_debug("LH: status: %u\n", settings.status);
    if (settings.status == ACQUISITION_ON && gps_current_power_mode_g == GPS_POWER_ON)
        return start_acquisition(settings.interval);
    const std::lock_guard file_guard(ls_history_file_lock);
    if (ls_hal_read_metadata_from_file() == 0)
        return 0;
    ls_hal_metadata_default();
    if (ls_hal_write_metadata_to_file() != 0) {
        log_error("LH: Error writing metadata to file!\n");
        return -1;
    }
    return 0;
}

int ls_hal_history_config() {
    const std::lock_guard guard(settings_lock);
    location_history_settings settings = {};
    if (db_read_location_history_settings(&settings) != 0) {
        log_error("LH: Error reading location_history_acquisition_settings\n");
        return 1;
    }
    // Acquisition runs only while the stored status says that the receiver is to stay on.
    if (mt_gps_status != GPS_POWER_ON && settings.status == ACQUISITION_ON)
        settings.status = ACQUISITION_OFF;
    log_debug("LH: status: %u\n", settings.status);
    log_debug("LH: interval: %u\n", settings.interval);

    if (settings.status == ACQUISITION_ON) {
        if (g_timer_id != 0 && delete_acquisition_timer(__func__, __LINE__) != 0) {
            g_timer_id = 0;
            return -1;
        }
        return start_acquisition(settings.interval);
    }
    if (settings.status == ACQUISITION_OFF && g_timer_id != 0) {
        if (delete_acquisition_timer(__func__, __LINE__) != 0)
            return -1;
        g_timer_id = 0;
        return 0;
    }
    log_error("LH: %s, Invalid location_history_status\n", __func__);
    return 1;
}

int ls_history_periodic_timer_handler(void *) {
    const ls_activity activity;
    log_debug("LH: %s: periodic_update_history_timer_handler!\n", __func__);
    if (!ls_history_acquisition_started) {
        if (is_inside_boot_offset()) {
            log_info("%s: Ignoring location history acquisition\n", __func__);
            return 0;
        }
        ls_history_acquisition_started = true;
    }
    gps_pos_data pos = {};
    count_pending(1);
    const int32_t result = acquire(__func__, &pos);
    count_pending(-1);
    if (result == 2) {
        log_debug("LH: GPS Position Data Timeout!\n");
    } else if (result == 1) {
        log_debug("LH: Invalid GPS Position Data!\n");
    } else {
        ls_history_line line = {};
        ls_position_to_string(&pos, &line);
        const std::lock_guard guard(ls_history_file_lock);
        ls_write_to_file(line.data());
    }
    return 0;
}

int ls_hal_deinit_gps_history() {
    const std::lock_guard guard(settings_lock);
    if (g_timer_id == 0) {
        log_error("%s: g_timer_id found 0", __func__);
        return -1;
    }
    log_debug("LH: %s: De-Initializing...\n", __func__);
    if (delete_acquisition_timer(__func__, __LINE__) != 0)
        return -1;
    g_timer_id = 0;
    return 0;
}
