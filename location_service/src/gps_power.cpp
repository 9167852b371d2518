#include "gps_power.h"

#include "ls_log.h"
#include "ls_state.h"

static constexpr char log_module[] = "gps_power";

int32_t gps_get_power_mode(uint32_t *mode) {
    *mode = gps_current_power_mode_g;
    log_info("value of mode = %d\n", *mode);
    return 0;
}
