// Speed over ground (VTG).
#include "gps_nmea_parser.h"
#include "gps_service.h"
#include "ls_log.h"

static constexpr char log_module[] = "gps_service";

static constexpr gps_sentence_query vtg = {
    .name = "gps_get_speed",
    .poll = "GPGPQ,VTG",
    .type = "GPVTG",
    .is_strict = false,
    .no_answer = "%s: Failed to get GPS data\n",
    .no_sentence = "%s: Failed to extract nmea_msg\n",
    .no_type = "%s: Failed to get token\n",
    .other_type = "%s: Incorrect token found\n",
};

int32_t gps_get_speed(gps_speed_data *speed) {
    if (speed == nullptr) {
        log_error("%s: speed found NULL\n", __func__);
        return 1;
    }
    char body[NMEA_BUFFER_SIZE] = {};
    char token[NMEA_TOKEN_SIZE] = {};
    if (const int32_t result = gps_query_sentence(vtg, body); result != 0)
        return result;
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
