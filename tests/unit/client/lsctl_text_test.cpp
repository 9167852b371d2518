// Values as lsctl shows them that a receiver seldom sends.
#include "lsctl_lpp.h"
#include "lsctl_text.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

TEST(lsctl_text, utc_only_from_a_date_and_time) {
    const std::pair<gps_time_fields, const char *> rows[] = {
        {{23, 59, 60, 0, 31, 12, 2016}, "2016-12-31T23:59:60Z"}, // leap second
        {{}, ""},
        {{1, 1, 1, 0, 1, 0, 2019}, ""}, // month
        {{1, 1, 1, 0, 1, 13, 2019}, ""},
        {{1, 1, 1, 0, 0, 1, 2019}, ""}, // day
        {{1, 1, 1, 0, 32, 1, 2019}, ""},
        {{24, 1, 1, 0, 1, 1, 2019}, ""}, // hour
        {{1, 60, 1, 0, 1, 1, 2019}, ""}, // minute
        {{1, 1, 61, 0, 1, 1, 2019}, ""}, // second
    };
    for (const auto &row : rows) {
        EXPECT_EQ(lsctl_utc(row.first), row.second);
    }
}

TEST(lsctl_text, degrees_and_minutes_are_rounded_as_a_whole) {
    const struct {
        double degrees;
        char hemisphere;
        const char *text;
    } rows[] = {{59.9999991, 'S', "59 deg 59.9999' S"},
                {59.9999999, 'S', "60 deg 00.0000' S"},
                {1.5, '\0', "1 deg 30.0000' ?"},
                {NAN, 'N', "unknown"},
                {1e300, 'N', "unknown"}};
    for (const auto &row : rows) {
        EXPECT_EQ(lsctl_degrees_minutes(row.degrees, row.hemisphere), row.text);
    }
    gps_lpp_location edge{};
    for (const auto &[code, degrees] : {std::pair{0x7FFFFFU, 179.99998}, {0x800000U, -180.0}}) {
        edge.degrees_longitude = code;
        EXPECT_NEAR(lpp_longitude_deg(edge), degrees, 3e-6) << code;
    }
}

} // namespace
