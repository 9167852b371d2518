// LPP location parameters: a position as the cellular side encodes it (TS 23.032).
#include "gps_nmea_parser.h"
#include "gps_service.h"
#include "ls_log.h"
#include "ls_state.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

static constexpr char log_module[] = "gps_service";

namespace {

constexpr char name[] = "gps_get_lpp_paramas"; // in log lines

constexpr double RADIAN_IN_DEGREES = 57.29577951308232;
constexpr double LATITUDE_UNITS = 8388608.0;   // 2^23 in 90 degrees
constexpr double LONGITUDE_UNITS = 16777216.0; // 2^24 in 360 degrees
constexpr uint32_t LONGITUDE_MASK = 0x00FFFFFF;
constexpr uint8_t CONFIDENCE = 70; // per cent
constexpr int32_t ALTITUDE_FIELD = 10;
constexpr size_t ECEF_OFFSET = 10; // of x in a NAV-POSECEF answer; y and z follow
constexpr size_t UBX_POLL_SIZE = 8;

// Instead of two polls while the static location is on.
constexpr gps_ecef_sample static_first = {395944800, 395944800, 370007400};
constexpr gps_ecef_sample static_second = {396001200, 335009000, 370007400};
constexpr char pubx_sample[] = "$PUBX,00,081350.00,4717.113210,N,00833.915187,E,546.589,G3,2.1,2.0,"
                               "0.007,77.52,0.007,,0.92,1.19,0.77,9,0,0*5F";
static_assert(sizeof(pubx_sample) <= GPS_ANSWER_SIZE);

// Truncates toward zero; negative and NaN are 0, too large is the largest.
uint32_t truncate_to_uint32(double value) {
    constexpr double limit = std::numeric_limits<uint32_t>::max();
    if (!(value > 0.0))
        return 0;
    return value >= limit ? std::numeric_limits<uint32_t>::max() : static_cast<uint32_t>(value);
}

constexpr uint32_t divide(uint32_t a, uint32_t b) {
    return b == 0 ? 0 : a / b;
}

// Mean of two coordinates, toward zero.
int32_t mean(int32_t a, int32_t b) {
    return static_cast<int32_t>((int64_t{a} + b) / 2);
}

// Code of an uncertainty: the search starts at 0, where the running value is below any target, and
// so never takes a step. The service reports zero uncertainty codes, which the cellular side must
// not read as a position without error.
uint8_t uncertainty_code(uint32_t target, double base, double scale) {
    uint8_t k = 0;
    for (uint8_t reached = 0; reached > target; ++k)
        reached = static_cast<uint8_t>(truncate_to_uint32((std::pow(base, k) - 1) * scale * 1000));
    return k;
}

// The status of an exchange as this query passes it on.
int32_t in_8_bits(int32_t result) {
    return static_cast<uint8_t>(result);
}

int32_t poll_ecef(gps_ecef_sample *sample) {
    std::array<uint8_t, UBX_POLL_SIZE> poll = {0xB5, 0x62, 0x01, 0x01, 0x00, 0x00};
    ls_hal_calculate_ubx_checksum(poll.data() + 2, 4);
    gps_answer answer = {};
    if (const int32_t result = gps_get_data_req(poll, &answer); result != 0) {
        log_error("%s: Failed to get GPS data\n", name);
        return in_8_bits(result);
    }
    memcpy(&sample->x, answer.text + ECEF_OFFSET, sizeof(sample->x));
    memcpy(&sample->y, answer.text + ECEF_OFFSET + 4, sizeof(sample->y));
    memcpy(&sample->z, answer.text + ECEF_OFFSET + 8, sizeof(sample->z));
    return 0;
}

int32_t read_ecef_samples(gps_ecef_sample *first, gps_ecef_sample *second) {
    if (const int32_t result = poll_ecef(first); result != 0)
        return result;
    if (const int32_t result = poll_ecef(second); result != 0)
        return result;
    log_info("%s: cart_x1=%d cart_y1=%d cart_z1=%d cart_x2=%d cart_y2=%d cart_z2=%d\n", name,
             first->x, first->y, first->z, second->x, second->y, second->z);
    return 0;
}

// The altitude as PUBX 00 gives it, an unsigned decimal.
int32_t read_altitude(bool is_static, uint32_t *altitude) {
    gps_answer answer = {};
    char body[NMEA_BUFFER_SIZE] = {};
    char token[NMEA_TOKEN_SIZE] = {};
    if (is_static) {
        memcpy(answer.text, pubx_sample, sizeof(pubx_sample));
    } else if (const int32_t result = gps_poll_nmea("PUBX,00", &answer); result != 0) {
        log_error("%s: Failed to get GPS data\n", name);
        return in_8_bits(result);
    }
    if (ls_hal_extract_nmea_msg(answer.text, body) != 0) {
        log_error("%s, failed to extract nmea_msg", name);
        return 1;
    }
    if (ls_hal_get_token(body, token, ALTITUDE_FIELD) != 0) {
        log_error("%s failed to get token", name);
        return 1;
    }
    // As the terminal's 32-bit "%u" reads it: a minus counts modulo 2^32, what does not fit is the
    // largest.
    constexpr long long limit = std::numeric_limits<uint32_t>::max();
    const long long value = std::strtoll(token, nullptr, 10);
    *altitude = static_cast<uint32_t>(value < -limit ? limit : std::min(value, limit));
    return 0;
}

} // namespace

gps_lpp_ellipse gps_make_lpp_ellipse(const gps_ecef_sample &first, const gps_ecef_sample &second) {
    const bool backwards = second.x < first.x;
    const gps_ecef_sample &from = backwards ? second : first;
    const gps_ecef_sample &to = backwards ? first : second;
    // A negative difference is 2^32 plus it.
    const uint32_t dy = static_cast<uint32_t>(to.y) - static_cast<uint32_t>(from.y);
    const uint32_t dz = static_cast<uint32_t>(to.z) - static_cast<uint32_t>(from.z);
    gps_lpp_ellipse ellipse = {};
    ellipse.semi_major = truncate_to_uint32(
        std::sqrt(static_cast<double>(dy) * dy + static_cast<double>(dz) * dz) / 2);
    const auto my = static_cast<uint32_t>(mean(first.y, second.y));
    const auto mz = static_cast<uint32_t>(mean(first.z, second.z));
    const double q = divide(my, ellipse.semi_major);
    ellipse.semi_minor = truncate_to_uint32(static_cast<double>(mz) / std::sqrt(1.0 - q * q));
    ellipse.angle = static_cast<uint8_t>(truncate_to_uint32(
        90.0 - std::atan(static_cast<double>(divide(dz, dy))) * RADIAN_IN_DEGREES));
    return ellipse;
}

int32_t gps_get_lpp_paramas(gps_lpp_location *location) {
    log_debug("%s: Creating lpp request\n", name);
    gps_pos_data position = {};
    int32_t status = 0;
    if (gps_get_buffered_pos(&position, &status))
        log_info("%s: Sending buffered position data", name);
    else
        status = gps_get_pos(&position);

    const bool is_static = stub_location_on_g == 1;
    gps_ecef_sample first = static_first;
    gps_ecef_sample second = static_second;
    if (!is_static) {
        if (status != 0)
            return status;
        if (const int32_t result = read_ecef_samples(&first, &second); result != 0)
            return result;
    }
    const gps_lpp_ellipse ellipse = gps_make_lpp_ellipse(first, second);

    // Refreshes the buffered position on board type 2; nothing of it is reported.
    gps_pos_data refreshed = {};
    gps_get_pos(&refreshed);

    const double latitude_ratio = position.latitude / 90.0;
    const uint32_t latitude = truncate_to_uint32(latitude_ratio * LATITUDE_UNITS);
    log_info("%lf, %lf", latitude_ratio, static_cast<double>(latitude));
    const double longitude_ratio = position.longitude / 360.0;
    uint32_t longitude = truncate_to_uint32(longitude_ratio * LONGITUDE_UNITS);
    if (position.lon_dir == 'W')
        longitude = (0 - longitude) & LONGITUDE_MASK;
    log_info("%lf %lf", longitude_ratio, static_cast<double>(longitude));

    uint32_t altitude = 0;
    if (const int32_t result = read_altitude(is_static, &altitude); result != 0)
        return result;

    location->latitude_sign = position.lat_dir == 'S' ? 1 : 0;
    location->altitude_dir = 0;
    location->uncertainty_semi_major = uncertainty_code(ellipse.semi_major, 1.1, 10);
    location->uncertainity_semi_minor = uncertainty_code(ellipse.semi_minor, 1.1, 10);
    location->uncertainty_altitude = uncertainty_code(altitude, 1.025, 45);
    location->confidence = CONFIDENCE;
    location->altitude = static_cast<uint16_t>(altitude);
    location->orientation_major_axis = static_cast<uint16_t>(ellipse.angle >> 1);
    location->degrees_latitude = latitude;
    location->degrees_longitude = longitude;
    log_info("latitude_sign:%d, altitude_dir:%d,uncertainty_semi_major:%d, "
             "uncertainity_semi_minor:%d, uncertainty_altitude:%d",
             location->latitude_sign, location->altitude_dir, location->uncertainty_semi_major,
             location->uncertainity_semi_minor, location->uncertainty_altitude);
    log_info("confidence:%d, altitude:%d, orientation_major_axis:%d, degrees_latitude:%d, "
             "degrees_longitude:%d",
             location->confidence, location->altitude, location->orientation_major_axis,
             location->degrees_latitude, location->degrees_longitude);
    return 0;
}
