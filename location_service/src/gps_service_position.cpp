// The position query, its static-location form, and the buffered position of board type 2.
#include "gps_nmea_parser.h"
#include "gps_service.h"
#include "gps_uart.h"
#include "ls_log.h"
#include "ls_state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

static constexpr char log_module[] = "gps_service";

namespace {

constexpr double DOP_TO_METRES = 2.5; // a dilution of precision becomes an accuracy

// Stand in for the receiver's answers while the static location is on. Their checksums are not
// compared: the GGA gets the configured place spliced in at the latitude field.
constexpr char gga_sample[] = "$GPGGA,123318,7007.939,N,01131.000,E,1,08,0.9,545.4,M,46.9,M,,*47";
constexpr char gsa_sample[] = "$GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1*39";
constexpr size_t GGA_PLACE_OFFSET = 14;
constexpr size_t GGA_PLACE_SIZE = 22;
static_assert(sizeof(gga_sample) == 66 && sizeof(gsa_sample) == 48);
static_assert(sizeof(gga_sample) <= GPS_ANSWER_SIZE && GGA_PLACE_SIZE < LS_STUB_LOCATION_SIZE);

// Buffered position: the last good fix on board type 2. All under buffered_pos_lock.
std::mutex buffered_pos_lock;
gps_pos_data gps_buffered_pos;
timespec gps_buffered_pos_time; // CLOCK_MONOTONIC; meaningless until gps_buffered_pos_stored
bool gps_buffered_pos_stored = false;
int32_t gps_last_pos_status; // result of the last query; cleared only by a stored fix

int32_t failed(int32_t result) {
    const std::lock_guard guard(buffered_pos_lock);
    gps_last_pos_status = result;
    return result;
}

void store_buffered_pos(const gps_pos_data &pos) {
    const std::lock_guard guard(buffered_pos_lock);
    memcpy(&gps_buffered_pos, &pos, sizeof(pos));
    clock_gettime(CLOCK_MONOTONIC, &gps_buffered_pos_time);
    gps_buffered_pos_stored = true;
    gps_last_pos_status = 0;
}

// The two polls of a position. They differ in the letters of their messages.
constexpr gps_sentence_query gga = {
    .name = "gps_get_pos",
    .poll = "GPGPQ,GGA",
    .type = "GPGGA",
    .is_strict = false,
    .no_answer = "%s: Failed to get gps data\n",
    .no_sentence = "%s: Failed to extract nmea_msg\n",
    .no_type = "%s: Failed to get token\n",
    .other_type = "%s: Incorrect token found\n",
};
constexpr gps_sentence_query gsa = {
    .name = "gps_get_pos",
    .poll = "GPGPQ,GSA",
    .type = "GPGSA",
    .is_strict = false,
    .no_answer = "%s: Failed to get GPS data\n",
    .no_sentence = "%s: Error extracting nmea_msg\n",
    .no_type = "%s: Failed to get token\n",
    .other_type = "%s: Incorrect token found\n",
};

void static_gga(char *answer) {
    memcpy(answer, gga_sample, sizeof(gga_sample));
    for (size_t i = 0; i < GGA_PLACE_SIZE; ++i)
        answer[GGA_PLACE_OFFSET + i] = ls_stub_location_buf[i].load(std::memory_order_relaxed);
    log_debug("GPGGA buf:%s ", answer);
}

// Asks the receiver, or takes `sample` for its answer when there is one.
int32_t ask(const gps_sentence_query &query, const char *sample, char *body) {
    if (sample == nullptr)
        return gps_query_sentence(query, body);
    return gps_check_sentence(query, sample, body) ? 0 : 1;
}

// Field by field: an assignment of the whole may carry stray bytes in its padding to the client.
void set_static_time(gps_time_fields *time) {
    time->hour = 10;
    time->minute = 51;
    time->second = 5;
    time->millisecond = 0;
    time->day = 5;
    time->month = 2;
    time->year = 2019;
}

// Field n of `body` into `token`, logged in the query's name when it cannot be taken.
bool take_field(const char *body, int32_t n, char *token) {
    if (ls_hal_get_token(body, token, n) == 0)
        return true;
    log_error("%s: Failed to get token\n", "gps_get_pos");
    return false;
}

bool parse_gga(const char *body, gps_pos_data *pos) {
    char token[NMEA_TOKEN_SIZE] = {};
    if (!take_field(body, 2, token))
        return false;
    gps_ddmm_to_degrees(strtod(token, nullptr), &pos->latitude);
    if (!take_field(body, 3, token))
        return false;
    pos->lat_dir = token[0];
    if (!take_field(body, 4, token))
        return false;
    gps_ddmm_to_degrees(strtod(token, nullptr), &pos->longitude);
    if (!take_field(body, 5, token))
        return false;
    pos->lon_dir = token[0];
    if (!take_field(body, 9, token))
        return false;
    pos->altitude = strtod(token, nullptr);
    if (!take_field(body, 7, token))
        return false;
    pos->num_satellites = static_cast<uint8_t>(gps_leading_integer(token));
    return true;
}

bool parse_gsa(const char *body, gps_pos_data *pos) {
    char token[NMEA_TOKEN_SIZE] = {};
    if (!take_field(body, 2, token))
        return false;
    pos->fix_type = token[0] == '2' ? GPS_FIX_2D : token[0] == '3' ? GPS_FIX_3D : GPS_FIX_NONE;
    if (!take_field(body, 16, token))
        return false;
    pos->horizontal_accuracy = static_cast<float>(strtof(token, nullptr) * DOP_TO_METRES);
    if (!take_field(body, 17, token))
        return false;
    pos->vertical_accuracy = static_cast<float>(strtof(token, nullptr) * DOP_TO_METRES);
    return true;
}

} // namespace

int32_t gps_get_pos(gps_pos_data *pos) {
    log_debug("%s: Creating Position request\n", __func__);
    if (pos == nullptr) {
        log_error("%s: pos found NULL\n", __func__);
        return failed(1);
    }
    const bool is_static = stub_location_on_g == 1;
    char body[NMEA_BUFFER_SIZE] = {};
    char sample[GPS_ANSWER_SIZE] = {};

    if (is_static)
        static_gga(sample);
    if (const int32_t result = ask(gga, is_static ? sample : nullptr, body); result != 0)
        return failed(result);
    if (!parse_gga(body, pos))
        return failed(1);

    ls_hal_clear_rx_buffer();
    std::fill(std::begin(body), std::end(body), '\0');
    if (is_static)
        memcpy(sample, gsa_sample, sizeof(gsa_sample));
    if (const int32_t result = ask(gsa, is_static ? sample : nullptr, body); result != 0)
        return failed(result);
    if (!parse_gsa(body, pos))
        return failed(1);

    if (is_static) {
        set_static_time(&pos->time);
    } else if (gps_get_time(&pos->time) != 0) {
        log_error("%s: Failed to get time\n", __func__);
        return failed(1);
    }
    if (gps_board_type_g == 2) {
        log_info("%s: Storing buffered position data", __func__);
        store_buffered_pos(*pos);
    }
    return 0;
}

bool gps_get_buffered_pos(gps_pos_data *pos, int32_t *result) {
    if (gps_board_type_g == 1)
        return false;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const std::lock_guard guard(buffered_pos_lock);
    if (!gps_buffered_pos_stored)
        return false;
    const auto age = static_cast<double>(now.tv_sec - gps_buffered_pos_time.tv_sec);
    if (!(age < gps_pos_buffer_time))
        return false;
    memcpy(pos, &gps_buffered_pos, sizeof(*pos));
    *result = gps_last_pos_status;
    return true;
}
