// Speed over ground (VTG).
#include "gps_nmea_parser.h"
#include "gps_service.h"
#include "ls_log.h"

#include <cstring>

static constexpr char log_module[] = "gps_service";

int32_t gps_get_speed(gps_speed_data *speed) {
    if (speed == nullptr) {
        log_error("%s: speed found NULL\n", __func__);
        return 1;
    }
    char answer[GPS_ANSWER_SIZE] = {};
    char body[NMEA_BUFFER_SIZE] = {};
    char token[NMEA_TOKEN_SIZE] = {};
    uint32_t length = GPS_COMMAND_SIZE;

    const int32_t result = gps_poll_nmea("GPGPQ,VTG", answer, &length);
    if (result != 0) {
        log_error("%s: Failed to get GPS data\n", __func__);
        return result;
    }
    if (ls_hal_extract_nmea_msg(answer, body) != 0) {
        log_error("%s: Failed to extract nmea_msg\n", __func__);
        return 1;
    }
    if (ls_hal_get_token(body, token, 0) != 0) {
        log_error("%s: Failed to get token\n", __func__);
        return 1;
    }
    if (strlen(token) == 5 && strcmp(token, "GPVTG") != 0) {
        log_error("%s: Incorrect token found\n", __func__);
        return 1;
    }
    if (ls_hal_get_token(body, token, 7) != 0) {
        log_error("%s: Failed to get token\n", __func__);
        return 1;
    }
    uint32_t dec = 0;
    uint32_t frac = 0;
    gps_string_to_dec_frac(token, &dec, &frac);
    speed->speed_int = static_cast<uint8_t>(dec);
    speed->speed_frac = static_cast<uint8_t>(frac);
    if (const int32_t time = gps_get_time(&speed->time); time != 0) {
        log_error("%s: Failed To get time: %d \n", __func__, time);
        return 1;
    }
    return 0;
}
