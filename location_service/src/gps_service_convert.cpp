// Numbers from the text of sentence fields.
#include "gps_service.h"
#include "ls_log.h"

#include <atomic>
#include <cstring>
#include <limits>

static constexpr char log_module[] = "gps_service";

namespace {

std::atomic<uint32_t> latitude_leading_zeros;
std::atomic<uint32_t> longitude_leading_zeros;

// Common body of the splitters; `zeros` counts the zeros right behind the point.
uint32_t split_dec_frac(const char *name, const char *str, uint32_t *dec, uint32_t *frac,
                        uint32_t *zeros) {
    *zeros = 0;
    if (str == nullptr || dec == nullptr || frac == nullptr) {
        log_error("%s: str or dec or frac found NULL\n", name);
        return 1;
    }
    *dec = 0;
    *frac = 0;
    const char *p = str;
    for (; *p != '\0' && *p != '.'; ++p)
        *dec = *dec * 10 + static_cast<uint8_t>(*p - '0');
    if (*p == '\0')
        return 0;
    bool leading = true;
    for (++p; *p != '\0'; ++p) {
        leading = leading && *p == '0';
        *zeros += leading ? 1 : 0;
        *frac = *frac * 10 + static_cast<uint8_t>(*p - '0');
    }
    return 0;
}

// Truncates toward zero; out of range saturates as the ARM's conversion does, NaN is 0.
int32_t truncate_to_int32(double value) {
    constexpr double low = std::numeric_limits<int32_t>::min();
    constexpr double high = std::numeric_limits<int32_t>::max();
    if (value != value)
        return 0;
    if (value <= low)
        return std::numeric_limits<int32_t>::min();
    if (value >= high)
        return std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(value);
}

} // namespace

uint32_t gps_string_to_number(const char *str, int32_t *result, uint8_t start, uint8_t end) {
    if (str == nullptr || result == nullptr) {
        log_error("%s: str or result found NULL\n", __func__);
        return 1;
    }
    if (str[0] == '\0') {
        log_error("%s: empty string passed\n", __func__);
        return 1;
    }
    if (strlen(str) < end) {
        log_error("%s: End value higher than length of string\n", __func__);
        return 1;
    }
    // A sign is a character like any other here: signed text does not convert.
    uint32_t value = 0;
    for (unsigned i = start; i <= end && str[i] != '\0'; ++i) {
        if (str[i] < '0' || str[i] > '9') {
            log_error("%s: Invalid characters, can't convert to Integers\n", __func__);
            return 1;
        }
        value = value * 10 + static_cast<uint32_t>(str[i] - '0');
    }
    *result = static_cast<int32_t>(value);
    return 0;
}

uint32_t gps_string_to_dec_frac(const char *str, uint32_t *dec, uint32_t *frac) {
    uint32_t zeros = 0;
    return split_dec_frac(__func__, str, dec, frac, &zeros);
}

uint32_t gps_str_to_dec_frac_latitude(const char *str, uint32_t *dec, uint32_t *frac) {
    uint32_t zeros = 0;
    const uint32_t result = split_dec_frac(__func__, str, dec, frac, &zeros);
    latitude_leading_zeros = zeros;
    return result;
}

uint32_t gps_str_to_dec_frac_longitude(const char *str, uint32_t *dec, uint32_t *frac) {
    uint32_t zeros = 0;
    const uint32_t result = split_dec_frac(__func__, str, dec, frac, &zeros);
    longitude_leading_zeros = zeros;
    return result;
}

uint32_t gps_latitude_leading_zeros() {
    return latitude_leading_zeros;
}

uint32_t gps_longitude_leading_zeros() {
    return longitude_leading_zeros;
}

void gps_ddmm_to_degrees(double value, double *out) {
    const int32_t degrees = truncate_to_int32(value / 100.0);
    *out = degrees + (value - degrees * 100.0) / 60.0;
}

int32_t gps_leading_integer(const char *str) {
    const char *p = str;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r'))
        ++p;
    const bool negative = *p == '-';
    if (*p == '-' || *p == '+')
        ++p;
    constexpr int64_t limit = int64_t{std::numeric_limits<int32_t>::max()} + 1;
    int64_t value = 0;
    for (; *p >= '0' && *p <= '9' && value < limit; ++p)
        value = value * 10 + (*p - '0');
    if (negative)
        return static_cast<int32_t>(value >= limit ? -limit : -value);
    return static_cast<int32_t>(value >= limit ? limit - 1 : value);
}
