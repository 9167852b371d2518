// Time of day and date (ZDA), time of week (PUBX 04).
#include "gps_nmea_parser.h"
#include "gps_service.h"
#include "ls_log.h"

static constexpr char log_module[] = "gps_service";

static constexpr gps_sentence_query zda = {
    .name = "gps_get_time",
    .poll = "GPGPQ,ZDA",
    .type = "GPZDA",
    .is_strict = false,
    .no_answer = "%s: gps_get_data_req failed\n",
    .no_sentence = "%s:could not extract nmea_msg \n",
    .no_type = "%s: could not get token\n",
    .other_type = "%s: Required message not received\n",
};
static constexpr gps_sentence_query pubx_04 = {
    .name = "gps_get_tow",
    .poll = "PUBX,04",
    .type = "PUBX",
    .is_strict = true,
    .no_answer = "%s: Failed to get GPS data\n",
    .no_sentence = "%s: Failed to extract nmea_msg\n",
    .no_type = "%s: Failed to get token\n",
    .other_type = "%s: Incorrect response message\n",
};

int32_t gps_get_time(gps_time_fields *time) {
    if (time == nullptr) {
        log_error("%s: time found NULL\n", __func__);
        return 1;
    }
    char body[NMEA_BUFFER_SIZE] = {};
    char token[NMEA_TOKEN_SIZE] = {};
    if (const int32_t result = gps_query_sentence(zda, body); result != 0)
        return result;

    if (ls_hal_get_token(body, token, 1) != 0) {
        log_error("%s: Could not get time\n", __func__);
        return 1;
    }
    // A part that does not convert is 0.
    int32_t hour = 0;
    int32_t minute = 0;
    int32_t second = 0;
    gps_string_to_number(token, &hour, 0, 1);
    gps_string_to_number(token, &minute, 2, 3);
    gps_string_to_number(token, &second, 4, 5);
    time->hour = static_cast<uint8_t>(hour);
    time->minute = static_cast<uint8_t>(minute);
    time->second = static_cast<uint8_t>(second);
    time->millisecond = 0;

    if (ls_hal_get_token(body, token, 2) != 0) {
        log_error("%s: Could not fetch day\n", __func__);
        return 1;
    }
    time->day = static_cast<uint8_t>(gps_leading_integer(token));
    if (ls_hal_get_token(body, token, 3) != 0) {
        log_error("%s: Could not fetch month\n", __func__);
        return 1;
    }
    time->month = static_cast<uint8_t>(gps_leading_integer(token));
    if (ls_hal_get_token(body, token, 4) != 0) {
        log_error("%s: could not fetch year\n", __func__);
        return 1;
    }
    time->year = static_cast<uint16_t>(gps_leading_integer(token));
    return 0;
}

int32_t gps_get_tow(int32_t *tow) {
    if (tow == nullptr)
        return 1;
    char body[NMEA_BUFFER_SIZE] = {};
    char token[NMEA_TOKEN_SIZE] = {};
    if (const int32_t result = gps_query_sentence(pubx_04, body); result != 0)
        return result;
    if (ls_hal_get_token(body, token, 4) != 0) {
        log_error("%s: Failed to get time of week\n", __func__);
        return 1;
    }
    *tow = gps_leading_integer(token);
    return 0;
}
