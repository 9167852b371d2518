// Brings the service onto the bus and the receiver's line up; takes both down again.
#include "gps_gpio.h"
#include "gps_history.h"
#include "gps_main.h"
#include "gps_message_handler.h"
#include "gps_power.h"
#include "gps_uart.h"
#include "ls_log.h"
#include "ls_state.h"

static constexpr char log_module[] = "gps_power";

namespace {

int register_on_bus() {
    auto *conn = static_cast<scm_conn *>(g_try_malloc0(sizeof(scm_conn)));
    gps_p_g = conn;
    if (conn == nullptr) {
        log_error("%s is a NULL POINTER!", "gps_p_g");
        return -1;
    }
    conn->on_message = ls_hal_process_message;
    if (scm_conn_init(conn, LS_OWN_SERV_ID) == -1) {
        log_error("Error in Init of scm_conn_init");
        gps_p_g = nullptr;
        g_free(conn);
        return -1;
    }
    return 0;
}

void deregister_from_bus() {
    scm_conn *conn = gps_p_g;
    scm_conn_exit(conn);
    // Who was not done in time may still use the record; it then stays until the process is gone.
    if (ls_activities() == 0)
        g_free(conn);
}

int init_local_receiver() {
    if (ls_hal_uart_init() != 0) {
        log_error("GPS uart initialization failed\n");
        return -1;
    }
    ls_hal_clear_rx_buffer();
    if (ls_hal_init_gps() != 0) {
        log_error("GPS device initialization failed\n");
        return -1;
    }
    log_info("GPS device initialized successfully\n");
    return 0;
}

// One power line, exported if need be, as an output that is high. The GPIO calls log.
bool raise_power_line(int gpio) {
    if (u_gpio_check_file(gpio) == 0 && u_gpio_export(gpio) != 0)
        return false;
    return u_gpio_set_direction(gpio, 1) == 0 && u_gpio_set_value(gpio, 1) == 0;
}

void power_off() {
    if (gps_set_power_mode(GPS_POWER_OFF, LS_OWN_SERV_ID) == 1)
        log_error("GPS power off failed\n");
}

} // namespace

int ls_hal_init_gps() {
    for (const int gpio : GPS_POWER_GPIOS)
        if (!raise_power_line(gpio))
            return -1;
    if (gps_set_power_mode(GPS_POWER_ON, LS_OWN_SERV_ID) == 1) {
        log_error("gps_set_power_mode failed\n");
        return -1;
    }
    log_info("%s: Initialising GPS device\n", __func__);
    if (ls_hal_power_on_gps() == 1) {
        log_error("GPS power on failed\n");
        power_off();
        return -1;
    }
    // The receiver is always configured, and left off when it was off before.
    if (mt_gps_status == GPS_POWER_OFF)
        power_off();
    return 0;
}

int ls_hal_init_device(int32_t board_type) {
    const bool has_line = board_type == 1;
    if (has_line)
        ls_hal_uart_begin_configuration(); // the first requests may come with the registration
    if (register_on_bus() != 0) {
        log_error("Scm registration failed");
        return -1;
    }
    if (has_line) {
        const int ready = init_local_receiver();
        ls_hal_uart_end_configuration();
        if (ready != 0)
            return -1;
    }
    if (ls_hal_init_gps_history() == -1) {
        log_error("GPS device initialization failed\n");
        return -1;
    }
    const auto power = static_cast<uint32_t>(mt_gps_status.load());
    ls_send_power_notification(LS_NOTIFY_POWER_MODE, &power, sizeof(power), LS_SERV_VOIP);
    return 0;
}

void ls_hal_deinit_device(int32_t board_type) {
    deregister_from_bus();
    if (board_type == 1) {
        for (const int gpio : GPS_POWER_GPIOS)
            u_gpio_unexport(gpio);
        ls_hal_uart_close();
        ls_delete_all_periodic_requests();
    }
    ls_hal_deinit_gps_history();
}
