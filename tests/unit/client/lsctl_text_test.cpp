// Records as lsctl shows them.
#include "lsctl_lpp.h"
#include "lsctl_text.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

constexpr gps_time_fields TIME = {10, 51, 5, 0, 5, 2, 2019};

gps_pos_data sample_position() {
    gps_pos_data position{};
    position.time = TIME;
    position.latitude = 51.5;
    position.lat_dir = 'S';
    position.longitude = 0.125;
    position.lon_dir = 'W';
    position.fix_type = GPS_FIX_3D;
    position.horizontal_accuracy = 3.25F;
    position.altitude = -12.34;
    position.vertical_accuracy = 5.3F;
    position.num_satellites = 8;
    return position;
}

TEST(lsctl_text, utc_only_from_a_date_and_time) {
    EXPECT_EQ(lsctl_utc(TIME), "2019-02-05T10:51:05Z");
    EXPECT_EQ(lsctl_utc({23, 59, 60, 0, 31, 12, 2016}), "2016-12-31T23:59:60Z"); // leap second
    const gps_time_fields no_times[] = {
        {},
        {1, 1, 1, 0, 1, 0, 2019}, // month
        {1, 1, 1, 0, 1, 13, 2019},
        {1, 1, 1, 0, 0, 1, 2019}, // day
        {1, 1, 1, 0, 32, 1, 2019},
        {24, 1, 1, 0, 1, 1, 2019}, // hour
        {1, 60, 1, 0, 1, 1, 2019}, // minute
        {1, 1, 61, 0, 1, 1, 2019}, // second
    };
    for (const gps_time_fields &time : no_times) {
        EXPECT_EQ(lsctl_utc(time), "");
    }
}

TEST(lsctl_text, degrees_and_minutes_are_rounded_as_a_whole) {
    const struct {
        double degrees;
        char hemisphere;
        const char *text;
    } rows[] = {
        {0, 'N', "0 deg 00.0000' N"},
        {70.132316667, 'N', "70 deg 07.9390' N"},
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
}

TEST(lsctl_text, position) {
    EXPECT_EQ(lsctl_position_text(sample_position()),
              "Time        2019-02-05T10:51:05Z\n"
              "Fix         3D, 8 satellites used\n"
              "Latitude    51.500000 deg S    (51 deg 30.0000' S)\n"
              "Longitude   0.125000 deg W     (0 deg 07.5000' W)\n"
              "Altitude    -12.3 m above mean sea level\n"
              "Accuracy    3.2 m horizontal, 5.3 m vertical\n");
    EXPECT_EQ(lsctl_position_line(sample_position()),
              "2019-02-05T10:51:05Z  3D     51.500000 S     0.125000 W     -12.3 m  +-3.2 m   8 "
              "satellites");
    EXPECT_EQ(lsctl_position_json(sample_position()).dump(),
              R"({"time_utc":"2019-02-05T10:51:05Z","fix_type":"3D","satellites_used":8,)"
              R"("latitude_deg":-51.5,"longitude_deg":-0.125,"altitude_m":-12.34,)"
              R"("horizontal_accuracy_m":3.25,"vertical_accuracy_m":5.3})");
    gps_pos_data unknown{};
    unknown.latitude = NAN;
    EXPECT_TRUE(lsctl_position_json(unknown)["time_utc"].is_null());
    EXPECT_EQ(lsctl_position_json(unknown).dump().find("nan"), std::string::npos);
    EXPECT_STREQ(lsctl_fix_name(0), "2D");
    EXPECT_STREQ(lsctl_fix_name(7), "none");
}

TEST(lsctl_text, time_of_week_as_day_and_time) {
    const std::pair<uint32_t, const char *> rows[] = {
        {0, "0 s (Sunday 00:00:00)"},
        {113851, "113851 s (Monday 07:37:31)"},
        {604799, "604799 s (Saturday 23:59:59)"},
        {604800, "604800 s"},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(lsctl_time_text(TIME, row.first),
                  "Time          2019-02-05T10:51:05Z\nTime of week  " + std::string(row.second) +
                      "\n");
    }
    EXPECT_EQ(lsctl_time_json({}, 5).dump(), R"({"time_utc":null,"time_of_week_s":5})");
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
    info.num_sat_in_view = 12;
    EXPECT_EQ(lsctl_satellites_json(info)["satellites"].size(), 13U);
    EXPECT_EQ(lsctl_satellites_text(info).find("lists the first"), std::string::npos);
    info.num_sat_in_view = 13;
    EXPECT_NE(
        lsctl_satellites_text(info).find("13 in view, 2 used (the service lists the first 12)"),
        std::string::npos);
}

TEST(lsctl_text, speed_does_not_invent_a_decimal) {
    EXPECT_EQ(lsctl_speed_text({TIME, 36, 0}), "Time   2019-02-05T10:51:05Z\nSpeed  36 km/h\n");
    EXPECT_EQ(lsctl_speed_text({TIME, 12, 5}),
              "Time   2019-02-05T10:51:05Z\n"
              "Speed  12 km/h and a fraction (digits 5, their place is not transmitted)\n");
    EXPECT_EQ(lsctl_speed_json({TIME, 12, 5}).dump(),
              R"({"time_utc":"2019-02-05T10:51:05Z","speed_whole_kmh":12,)"
              R"("speed_fraction_digits":5})");
}

TEST(lsctl_lpp, codes_become_degrees_and_metres) {
    gps_lpp_location lpp{};
    lpp.degrees_latitude = 4407301;
    EXPECT_NEAR(lpp_latitude_deg(lpp), 47.28522, 2e-5);
    lpp.latitude_sign = 1;
    EXPECT_NEAR(lpp_latitude_deg(lpp), -47.28522, 2e-5);
    const std::pair<uint32_t, double> rows[] = {
        {0, 0},           {0x400000, 90},  {0x7FFFFF, 179.99998},
        {0x800000, -180}, {0xC00000, -90}, {0xFFFFFF, 0}, // -0.00002
    };
    for (const auto &row : rows) {
        lpp.degrees_longitude = row.first;
        EXPECT_NEAR(lpp_longitude_deg(lpp), row.second, 3e-5) << row.first;
    }
    EXPECT_DOUBLE_EQ(lpp_uncertainty_m(0), 0);
    EXPECT_NEAR(lpp_uncertainty_m(10), 15.937, 1e-3);
    EXPECT_NEAR(lpp_altitude_uncertainty_m(10), 12.604, 1e-3);
}

TEST(lsctl_lpp, record_as_text_and_json) {
    const gps_lpp_location lpp{1, 0, 10, 0, 10, 70, 542, 45, 4194304, 12582912};
    EXPECT_EQ(lpp_text(lpp), "Latitude     45.000000 deg S (coded 4194304)\n"
                             "Longitude    90.000000 deg W (coded 12582912)\n"
                             "Altitude     542 m up\n"
                             "Uncertainty  15.9 m semi-major, 0.0 m semi-minor, 12.6 m altitude "
                             "(codes 10, 0, 10)\n"
                             "Major axis   90 deg\n"
                             "Confidence   70 %\n");
    EXPECT_EQ(lpp_json(lpp)["latitude_deg"], -45);
    EXPECT_EQ(lpp_json(lpp)["longitude_deg"], -90);
    EXPECT_EQ(lpp_json(lpp)["major_axis_deg"], 90);
}

} // namespace
