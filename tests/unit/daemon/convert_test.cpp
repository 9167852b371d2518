// Numbers from field text, to the digit and to the quirk.
#include "fake_platform.h"
#include "gps_service.h"

#include <gtest/gtest.h>

namespace {

TEST(convert, string_to_number) {
    struct row {
        const char *text;
        uint8_t start, end;
        uint32_t status;
        int32_t value;
        const char *log;
    };
    const row rows[] = {
        {"123318", 2, 3, 0, 33, ""},
        {"123318", 4, 5, 0, 18, ""},
        {"123318", 4, 6, 0, 18, ""}, // end at the terminator is allowed
        {"123318", 4, 7, 1, -7, "gps_string_to_number: End value higher than length of string\n"},
        {"12", 0, 2, 0, 12, ""},
        {"-12", 0, 2, 1, -7,
         "gps_string_to_number: Invalid characters, can't convert to Integers\n"},
        {"+12", 0, 2, 1, -7,
         "gps_string_to_number: Invalid characters, can't convert to Integers\n"},
        {"12a", 0, 2, 1, -7,
         "gps_string_to_number: Invalid characters, can't convert to Integers\n"},
        {"", 0, 0, 1, -7, "gps_string_to_number: empty string passed\n"},
        {nullptr, 0, 0, 1, -7, "gps_string_to_number: str or result found NULL\n"},
    };
    for (const row &r : rows) {
        fake::reset();
        int32_t value = -7;
        EXPECT_EQ(gps_string_to_number(r.text, &value, r.start, r.end), r.status) << r.text;
        EXPECT_EQ(value, r.value) << r.text;
        EXPECT_EQ(fake::count_logged(3, r.log), r.status) << r.text;
    }
}

TEST(convert, string_to_dec_frac_checks_nothing) {
    struct row {
        const char *text;
        uint32_t dec, frac, zeros;
    };
    const row rows[] = {
        {"0.0", 0, 0, 1},          {"12", 12, 0, 0},
        {"12.0034", 12, 34, 2},    {"1.2.3", 1, 2743, 0},
        {"1.05", 1, 5, 1},         {"1.5", 1, 5, 0},
        {"7.", 7, 0, 0},           {"7.0900", 7, 900, 1},
        {"a", 'a' - '0', 0, 0},    {"-1", 253 * 10 + 1, 0, 0}, // '-' minus '0' modulo 256
        {"\xFF.\x80", 207, 80, 0},
    };
    for (const row &r : rows) {
        uint32_t dec = 99;
        uint32_t frac = 99;
        EXPECT_EQ(gps_string_to_dec_frac(r.text, &dec, &frac), 0u);
        EXPECT_EQ(dec, r.dec) << r.text;
        EXPECT_EQ(frac, r.frac) << r.text;
        EXPECT_EQ(gps_str_to_dec_frac_latitude(r.text, &dec, &frac), 0u);
        EXPECT_EQ(gps_latitude_leading_zeros(), r.zeros) << r.text;
    }
}

TEST(convert, each_splitter_keeps_a_count_of_its_own) {
    uint32_t dec = 0;
    uint32_t frac = 0;
    gps_str_to_dec_frac_latitude("1.01", &dec, &frac);
    gps_str_to_dec_frac_longitude("1.001", &dec, &frac);
    EXPECT_EQ(gps_latitude_leading_zeros(), 1u);
    EXPECT_EQ(gps_longitude_leading_zeros(), 2u);
    fake::reset();
    EXPECT_EQ(gps_str_to_dec_frac_longitude(nullptr, &dec, &frac), 1u);
    EXPECT_EQ(gps_longitude_leading_zeros(), 0u); // reset before the check
    EXPECT_EQ(
        fake::count_logged(3, "gps_str_to_dec_frac_longitude: str or dec or frac found NULL\n"),
        1u);
}

TEST(convert, ddmm_to_degrees) {
    struct row {
        double value, degrees;
    };
    const row rows[] = {
        {0, 0},
        {1131.000, 11.0 + 31.0 / 60},
        {7007.939, 70.0 + 7.939 / 60},
        {-1130.0, -11.5},
        // A hostile field may not overflow the degrees; the number is then far outside the Earth.
        {1e30, 2147483647.0 + (1e30 - 214748364700.0) / 60},
    };
    for (const row &r : rows) {
        double degrees = -1;
        gps_ddmm_to_degrees(r.value, &degrees);
        EXPECT_NEAR(degrees, r.degrees, 1e-9 * (1 + r.degrees * r.degrees)) << r.value;
    }
}

TEST(convert, leading_integer_saturates) {
    struct row {
        const char *text;
        int32_t value;
    };
    const row rows[] = {
        {"08", 8},
        {"113851.00", 113851},
        {" 7", 7},
        {"-3x", -3},
        {"", 0},
        {"x", 0},
        {"2147483647", 2147483647},
        {"2147483648", 2147483647},
        {"99999999999999999999", 2147483647},
        {"-99999999999999999999", -2147483647 - 1},
    };
    for (const row &r : rows)
        EXPECT_EQ(gps_leading_integer(r.text), r.value) << r.text;
}

} // namespace
