// Records as lsctl shows them. The daemon's own values are shown in the system tests; here are the
// ones a receiver seldom sends.
#include "lsctl_lpp.h"
#include "lsctl_text.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

constexpr gps_time_fields TIME = {10, 51, 5, 0, 5, 2, 2019};

TEST(lsctl_text, utc_only_from_a_date_and_time) {
    const std::pair<gps_time_fields, const char *> rows[] = {
        {{23, 59, 60, 0, 31, 12, 2016}, "2016-12-31T23:59:60Z"}, // leap second
        {{0, 0, 0, 0, 1, 1, 2019}, "2019-01-01T00:00:00Z"},
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
    EXPECT_EQ(lsctl_time_json({}, 5).dump(), R"({"time_utc":null,"time_of_week_s":5})");
    EXPECT_NE(lsctl_time_text(TIME, 604799).find("604799 s (Saturday 23:59:59)\n"),
              std::string::npos);
    EXPECT_NE(lsctl_time_text(TIME, 604800).find("604800 s\n"), std::string::npos);
}

TEST(lsctl_text, degrees_and_minutes_are_rounded_as_a_whole) {
    const struct {
        double degrees;
        char hemisphere;
        const char *text;
    } rows[] = {
        {0.125, 'W', "0 deg 07.5000' W"},
        {59.9999991, 'S', "59 deg 59.9999' S"},
        {59.9999999, 'S', "60 deg 00.0000' S"},
        {1.5, '\0', "1 deg 30.0000' ?"},
        {NAN, 'N', "unknown"},
        {1e300, 'N', "unknown"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(lsctl_degrees_minutes(row.degrees, row.hemisphere), row.text);
    }
    gps_pos_data unknown{};
    unknown.latitude = NAN;
    EXPECT_NE(lsctl_position_json(unknown).dump().find("\"latitude_deg\":null"), std::string::npos);
}

TEST(lsctl_text, satellites_in_view_and_used) {
    gps_sat_info info{TIME, 3, 2, {7, 9, 12, 30}, {44, 0, 1, 50}, {0, 7, 31}};
    EXPECT_EQ(lsctl_satellites_text(info), "Time  2019-02-05T10:51:05Z\n"
                                           "  PRN  C/N0 dB-Hz                             used\n"
                                           "    7    44  ######################              yes\n"
                                           "    9     -                                      no\n"
                                           "   12     1                                      no\n"
                                           "   31     ?  (not in the list)                   yes\n"
                                           "3 in view, 2 used\n");
    EXPECT_EQ(lsctl_satellites_json(info).dump(),
              R"({"time_utc":"2019-02-05T10:51:05Z","satellites_in_view":3,"satellites_used":2,)"
              R"("satellites":[{"prn":7,"cn0_dbhz":44,"used":true},)"
              R"({"prn":9,"cn0_dbhz":null,"used":false},{"prn":12,"cn0_dbhz":1,"used":false},)"
              R"({"prn":31,"cn0_dbhz":null,"used":true}]})");
    info.num_sat_in_view = 13;
    EXPECT_EQ(lsctl_satellites_json(info)["satellites"].size(), 13U); // 12 and the used 31
    EXPECT_TRUE(lsctl_satellites_text(info).ends_with(
        "13 in view, 2 used (the service lists the first 12)\n"));
}

TEST(lsctl_text, speed_does_not_invent_a_decimal) {
    EXPECT_EQ(lsctl_speed_text({TIME, 36, 0}), "Time   2019-02-05T10:51:05Z\nSpeed  36 km/h\n");
    EXPECT_EQ(lsctl_speed_text({TIME, 12, 5}),
              "Time   2019-02-05T10:51:05Z\n"
              "Speed  12 km/h and a fraction (digits 5, their place is not transmitted)\n");
}

TEST(lsctl_lpp, codes_become_degrees_and_metres) {
    const gps_lpp_location lpp{1, 0, 10, 0, 10, 70, 542, 45, 4194304, 12582912};
    EXPECT_EQ(lpp_text(lpp), "Latitude     45.000000 deg S (coded 4194304)\n"
                             "Longitude    90.000000 deg W (coded 12582912)\n"
                             "Altitude     542 m up\n"
                             "Uncertainty  15.9 m semi-major, 0.0 m semi-minor, 12.6 m altitude "
                             "(codes 10, 0, 10)\n"
                             "Major axis   90 deg\n"
                             "Confidence   70 %\n");
    EXPECT_EQ(lpp_json(lpp)["latitude_deg"], -45);
    gps_lpp_location edge{};
    for (const auto &[code, degrees] : {std::pair{0x7FFFFFU, 179.99998}, {0x800000U, -180.0}}) {
        edge.degrees_longitude = code;
        EXPECT_NEAR(lpp_longitude_deg(edge), degrees, 3e-6) << code;
    }
}

} // namespace
