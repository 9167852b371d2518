// Settings in the test's hands. Failures leave the result as it is.
#include "foreign_channel.h"

#include "dbhandler.h"

#include <cerrno>

namespace {

int read(const char *name, const std::atomic<int> &value, int32_t *out) {
    foreign_call(name);
    foreign_stack(2);
    *out = value;
    errno = EXDEV;
    return 0;
}

} // namespace

int db_read_gps_power_on_status(int32_t *status) {
    return read("db_read_gps_power_on_status", foreign().power, status);
}

int db_read_ta_power_on_status(int32_t *status) {
    return read("db_read_ta_power_on_status", foreign().antenna, status);
}

int db_set_gps_power_on_status(int32_t status) {
    foreign_call("db_set_gps_power_on_status", status);
    foreign_stack(2);
    foreign_pause(foreign().store_ms);
    errno = EXDEV;
    return 0;
}

int db_read_location_history_settings(location_history_settings *settings) {
    int32_t status = 0;
    const int result = read("db_read_location_history_settings", foreign().history, &status);
    *settings = {static_cast<uint8_t>(status), static_cast<uint32_t>(foreign().history_interval)};
    return result;
}
