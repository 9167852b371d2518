// Time, time of week and position, from literal answers of a receiver on a pty.
#include "daemon_fixture.h"
#include "gps_service.h"

namespace {

using query = receiver_fixture;

void expect_time(const gps_time_fields &time, const std::array<int, 7> &expected) {
    EXPECT_EQ((std::array<int, 7>{time.hour, time.minute, time.second, time.millisecond, time.day,
                                  time.month, time.year}),
              expected);
}

TEST_F(query, time) {
    gps_time_fields time = {};
    EXPECT_EQ(gps_get_time(&time), 0);
    expect_time(time, {23, 59, 59, 0, 31, 12, 2019});
    for (const char *body :
         {"GPZDA,,31,12,2019", "GPZDA,235959.00,,12,2019", "GPZDA,235959.00,31,12,"}) {
        answer("GPGPQ,ZDA", body);
        EXPECT_EQ(gps_get_time(&time), 1) << body;
    }
    // A field 0 of another length is not checked; a time that does not convert is 0.
    answer("GPGPQ,ZDA", "GNZDAX,2259x9,30,11,2018");
    EXPECT_EQ(gps_get_time(&(time = {})), 0);
    expect_time(time, {22, 59, 0, 0, 30, 11, 2018});
}

TEST_F(query, time_of_week) {
    int32_t seconds = 0;
    EXPECT_EQ(gps_get_tow(&seconds), 0);
    EXPECT_EQ(seconds, 113851);
    EXPECT_EQ(peer->commands(), std::vector<std::string>{"$PUBX,04*37\r\n"});
    answer("PUBX,04", "PUBX,04,1,2,,4");
    EXPECT_EQ(gps_get_tow(&seconds), 1);
}

TEST_F(query, each_failure_is_told_once) {
    const auto time = [] { return gps_get_time(&*std::make_unique<gps_time_fields>()); };
    const auto tow = [] { return gps_get_tow(&*std::make_unique<int32_t>()); };
    const auto speed = [] { return gps_get_speed(&*std::make_unique<gps_speed_data>()); };
    const struct {
        const char *poll, *name;
        int32_t (*ask)();
    } rows[] = {
        {"GPGPQ,ZDA", "gps_get_time:", time},
        {"PUBX,04", "gps_get_tow:", tow},
        {"GPGPQ,VTG", "gps_get_speed:", speed},
    };
    for (const auto &r : rows)
        for (const std::string &raw : {""s, "noise"s, nmea(",1"), nmea("GPXYZ,1")}) {
            fake::reset_log();
            gps_board_type_g = raw.empty() ? 3 : 1; // 3: no way to a receiver
            answer_raw(r.poll, raw);
            EXPECT_EQ(r.ask(), 1) << r.name << raw;
            EXPECT_EQ(errors(r.name), 1u) << raw;
        }
}

TEST_F(query, position) {
    gps_pos_data pos = {};
    EXPECT_EQ(gps_get_pos(&pos), 0);
    expect_time(pos.time, {23, 59, 59, 0, 31, 12, 2019});
    const std::vector<std::string> polls = {"$GPGPQ,GGA*3C\r\n", "$GPGPQ,GSA*28\r\n",
                                            "$GPGPQ,ZDA*22\r\n"};
    EXPECT_EQ(peer->commands(), polls);
    const struct {
        const char *poll, *body;
        int32_t result;
        uint32_t fix_type = 1;
    } rows[] = {
        {"GPGPQ,GSA", "GPGSA,A,1,,,,,,,,,,,,,2.5,1.3,2.1", 0, 2},
        {"GPGPQ,GSA", "GPGSA,A,2,,,,,,,,,,,,,2.5,1.3,2.1", 0, 0},
        {"GPGPQ,GSA", "GPGSA,A,3,,,,,,,,,,,,,2.5,1.3,2.1", 0, 1},
        {"GPGPQ,GSA", "GPGSA,A,x,,,,,,,,,,,,,2.5,1.3,2.1", 0, 2},
        {"GPGPQ,GSA", "GPGSA,A,1,,,,,,,,,,,,,99.99,99.99", 1},
        {"GPGPQ,GSA", "GPGGA,A,3", 1},
        {"GPGPQ,GGA", "GPGSV,1,1,00", 1},
        {"GPGPQ,GGA", "GPGGA,123318.00,,,,,0,00,99.99,,,,,,", 1},
        {"GPGPQ,ZDA", "GPZDA,,,,,00,00", 1},
    };
    for (const auto &r : rows) {
        SetUp();
        answer(r.poll, r.body);
        EXPECT_EQ(gps_get_pos(&pos), r.result) << r.body;
        EXPECT_TRUE(r.result != 0 || pos.fix_type == r.fix_type) << r.body;
    }
}

} // namespace
