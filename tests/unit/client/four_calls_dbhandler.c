/* The libdbhandler of another terminal: the four calls of the service, and nothing else. */
#include "dbhandler.h"

static int32_t power = 1;

int db_read_gps_power_on_status(int32_t *status) {
    *status = power;
    return 0;
}

int db_set_gps_power_on_status(int32_t status) {
    power = status;
    return 0;
}

int db_read_ta_power_on_status(int32_t *status) {
    *status = 77;
    return 0;
}

int db_read_location_history_settings(struct location_history_settings *settings) {
    settings->status = 1;
    settings->interval = 1234;
    return 0;
}
