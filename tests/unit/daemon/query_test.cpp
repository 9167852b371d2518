// Time, time of week and position, from literal answers of a receiver on a pty.
#include "daemon_fixture.h"
#include "gps_service.h"

namespace {

const std::string gga = "GPGGA,123318.00,5130.000,N,00007.500,W,1,08,0.9,545.4,M,46.9,M,,";
const std::string zda = "GPZDA,235959.00,31,12,2019,00,00";

class query : public receiver_fixture {
  protected:
    void SetUp() override {
        receiver_fixture::SetUp();
        answer("GPGPQ,GGA", gga);
        answer("GPGPQ,GSA", "GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1");
        answer("GPGPQ,ZDA", zda);
        answer("PUBX,04", "PUBX,04,073731.00,091202,113851.00,1196,15D,1930035,-2660.664,43");
    }
};

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

TEST_F(query, each_failure_has_its_own_text) {
    const auto time = [] { return gps_get_time(&*std::make_unique<gps_time_fields>()); };
    const auto tow = [] { return gps_get_tow(&*std::make_unique<int32_t>()); };
    const auto speed = [] { return gps_get_speed(&*std::make_unique<gps_speed_data>()); };
    const struct {
        const char *poll;
        int32_t (*ask)();
        const char *no_answer, *no_sentence, *no_type, *other_type;
    } rows[] = {
        {"GPGPQ,ZDA", time, "gps_get_time: gps_get_data_req failed\n",
         "gps_get_time:could not extract nmea_msg \n", "gps_get_time: could not get token\n",
         "gps_get_time: Required message not received\n"},
        {"PUBX,04", tow, "gps_get_tow: Failed to get GPS data\n",
         "gps_get_tow: Failed to extract nmea_msg\n", "gps_get_tow: Failed to get token\n",
         "gps_get_tow: Incorrect response message\n"},
        {"GPGPQ,VTG", speed, "gps_get_speed: Failed to get GPS data\n",
         "gps_get_speed: Failed to extract nmea_msg\n", "gps_get_speed: Failed to get token\n",
         "gps_get_speed: Incorrect token found\n"},
    };
    for (const auto &r : rows) {
        const auto fails = [&](const std::string &raw, const char *text) {
            answer_raw(r.poll, raw);
            EXPECT_EQ(r.ask(), 1) << text;
            EXPECT_EQ(errors(text), 1u) << text;
        };
        fails("noise", r.no_sentence);
        fails(nmea(",1"), r.no_type);
        fails(nmea("GPXYZ,1"), r.other_type);
        gps_board_type_g = 3; // no way to a receiver
        fails("", r.no_answer);
        gps_board_type_g = 1;
    }
}

TEST_F(query, position) {
    gps_pos_data pos = {};
    EXPECT_EQ(gps_get_pos(&pos), 0);
    EXPECT_DOUBLE_EQ(pos.latitude, 51.5);
    EXPECT_EQ(pos.lat_dir, 'N');
    EXPECT_DOUBLE_EQ(pos.longitude, 0.125);
    EXPECT_EQ(pos.lon_dir, 'W');
    EXPECT_EQ(pos.fix_type, 1u);
    EXPECT_EQ(pos.horizontal_accuracy, 3.25F);
    EXPECT_EQ(pos.vertical_accuracy, 5.25F);
    EXPECT_DOUBLE_EQ(pos.altitude, 545.4);
    EXPECT_EQ(pos.num_satellites, 8);
    expect_time(pos.time, {23, 59, 59, 0, 31, 12, 2019});
    const std::vector<std::string> polls = {"$GPGPQ,GGA*3C\r\n", "$GPGPQ,GSA*28\r\n",
                                            "$GPGPQ,ZDA*22\r\n"};
    EXPECT_EQ(peer->commands(), polls);
    const std::map<std::string, uint32_t> fix_types = {{"1", 2}, {"2", 0}, {"3", 1}, {"x", 2}};
    for (const auto &[field, type] : fix_types) {
        answer("GPGPQ,GSA", "GPGSA,A," + field + ",04,05,,09,12,,,24,,,,,2.5,1.3,2.1");
        EXPECT_EQ(gps_get_pos(&pos), 0);
        EXPECT_EQ(pos.fix_type, type) << field;
    }
}

TEST_F(query, position_failures) {
    const struct {
        const char *poll, *body;
    } rows[] = {
        {"GPGPQ,GGA", "GPGSV,1,1,00"},    {"GPGPQ,GGA", "GPGGA,123318.00,,,,,0,00,99.99,,,,,,"},
        {"GPGPQ,GSA", "GPGGA,A,3"},       {"GPGPQ,GSA", "GPGSA,A,1,,,,,,,,,,,,,99.99,99.99"},
        {"GPGPQ,ZDA", "GPZDA,,,,,00,00"},
    };
    gps_pos_data pos = {};
    for (const auto &r : rows) {
        SetUp();
        answer(r.poll, r.body);
        EXPECT_EQ(gps_get_pos(&pos), 1) << r.body;
    }
}

} // namespace
