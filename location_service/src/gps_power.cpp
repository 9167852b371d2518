#include "gps_power.h"

#include "dbhandler.h"
#include "gps_gpio.h"
#include "gps_uart.h"
#include "ls_log.h"
#include "ls_messages.h"
#include "ls_state.h"

static constexpr char log_module[] = "gps_power";

namespace {

// One change at a time, looked at and made: a wake-up that finds the receiver on while another
// thread is switching it off would leave its query with a dead one.
std::mutex power_lock;

// Drives the lines, stores the mode unless the service itself asked, and makes it the current one.
void apply_mode(uint32_t mode, uint32_t serv_id) {
    if (gps_board_type_g == 1) {
        for (const int gpio : GPS_POWER_GPIOS)
            u_gpio_set_value(gpio, mode == GPS_POWER_ON ? 1 : 0);
        ls_hal_tty_doubt(); // a receiver that starts up talks unasked
    }
    // The client is told of the change itself; that it will be forgotten at the next start is seen
    // here alone.
    if (serv_id != LS_OWN_SERV_ID && db_set_gps_power_on_status(static_cast<int32_t>(mode)) != 0)
        log_error("%s: power mode %u could not be stored\n", __func__, mode);
    gps_current_power_mode_g = mode;
}

bool may_power_on(uint32_t serv_id) {
    return mt_gps_status != GPS_POWER_OFF || serv_id == LS_SERV_VOIP || serv_id == LS_SERV_WS ||
           serv_id == LS_OWN_SERV_ID || serv_id == LS_SERV_CLIENT_9;
}

} // namespace

int32_t gps_get_power_mode(uint32_t *mode) {
    *mode = gps_current_power_mode_g;
    log_info("value of mode = %d\n", *mode);
    return 0;
}

int32_t gps_set_power_mode(uint32_t mode, uint32_t serv_id) {
    // Switched by others, the receiver could not be configured.
    if (serv_id != LS_OWN_SERV_ID)
        ls_hal_uart_wait_configured();
    const std::lock_guard guard(power_lock);
    log_info("mode = %d serv_id = %d mt_gps_status = %d  gps_current_power_mode_g =%d \n", mode,
             serv_id, mt_gps_status.load(), gps_current_power_mode_g.load());
    if (mode > GPS_POWER_ON) {
        log_error("Invalid power mode value\n");
        return 1;
    }
    const bool is_on = gps_current_power_mode_g == GPS_POWER_ON;
    if (mode == GPS_POWER_ON) {
        if (!may_power_on(serv_id))
            return 1;
        if (!is_on)
            apply_mode(mode, serv_id);
        log_debug("GPS_POWER_ON successful \n");
        return 0;
    }
    // Off is refused while it is off already, and while the stored status says on.
    if (!is_on || mt_gps_status != GPS_POWER_OFF)
        return 1;
    apply_mode(mode, serv_id);
    log_debug("GPS_POWER_OFF successful \n");
    return 0;
}
