// Numbers from field text, to the digit and to the quirk.
#include "gps_service.h"

#include <gtest/gtest.h>

namespace {

TEST(convert, string_to_number) {
    const struct {
        const char *text;
        uint8_t start, end;
        uint32_t status;
        int32_t value;
    } rows[] = {
        {"123318", 2, 3, 0, 33}, {"123318", 4, 5, 0, 18},
        {"123318", 4, 6, 0, 18}, // end at the terminator is allowed
        {"123318", 4, 7, 1, -7}, {"-12", 0, 2, 1, -7},
        {"12a", 0, 2, 1, -7},    {"", 0, 0, 1, -7},
        {nullptr, 0, 0, 1, -7},
    };
    for (const auto &r : rows) {
        int32_t value = -7;
        EXPECT_EQ(gps_string_to_number(r.text, &value, r.start, r.end), r.status) << r.text;
        EXPECT_EQ(value, r.value) << r.text;
    }
}

TEST(convert, string_to_dec_frac_checks_nothing) {
    const struct {
        const char *text;
        uint32_t dec, frac, zeros;
    } rows[] = {
        {"12", 12, 0, 0},          {"12.0034", 12, 34, 2},     {"1.2.3", 1, 2743, 0},
        {"7.", 7, 0, 0},           {"-1", 253 * 10 + 1, 0, 0}, // '-' minus '0' modulo 256
        {"\xFF.\x80", 207, 80, 0},
    };
    uint32_t dec = 0;
    uint32_t frac = 0;
    for (const auto &r : rows) {
        dec = frac = 99;
        EXPECT_EQ(gps_str_to_dec_frac_latitude(r.text, &dec, &frac), 0u);
        EXPECT_EQ(dec, r.dec) << r.text;
        EXPECT_EQ(frac, r.frac) << r.text;
        EXPECT_EQ(gps_latitude_leading_zeros(), r.zeros) << r.text;
    }
    gps_str_to_dec_frac_longitude("1.001", &dec, &frac); // counts for itself
    EXPECT_EQ(gps_longitude_leading_zeros(), 2u);
    EXPECT_EQ(gps_latitude_leading_zeros(), 0u);
}

} // namespace
