// LPP location parameters: the arithmetic, the record, and the request that asks for them.
#include "gps_message_handler.h"
#include "gps_service.h"
#include "receiver_fixture.h"

namespace {

// NAV-POSECEF of three coordinates, as bytes of its frame up to the accuracy.
std::string posecef(int32_t x, int32_t y, int32_t z) {
    std::string frame("\xB5\x62\x01\x01\x14\x00\x00\x00\x00\x00", 10);
    for (const int32_t value : {x, y, z}) {
        char bytes[4];
        memcpy(bytes, &value, 4);
        frame.append(bytes, 4);
    }
    return frame + std::string(6, '\0');
}

const std::string ecef_poll("\xB5\x62\x01\x01\x00\x00\x02\x07", 8);

class lpp : public receiver_fixture {
  protected:
    void SetUp() override {
        receiver_fixture::SetUp();
        answer("GPGPQ,GGA", "GPGGA,1,4717.113210,N,00833.915187,E,1,08,0.9,545.4,M,46.9,M,,");
        answer("GPGPQ,GSA", "GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1");
        answer("GPGPQ,ZDA", "GPZDA,235959.00,31,12,2019,00,00");
        answer("PUBX,00", "PUBX,00,081350.00,4717.1,N,00833.9,E,546.589,G3,2.1,65538.9,0.007");
        answer_raw(ecef_poll, posecef(1, 2, 3));
    }

    static void request_208(uint8_t type) {
        std::vector<uint8_t> payload(24, 0xEE);
        bus_msg msg = fake::make_message(type, 208, 2, payload);
        EXPECT_EQ(ls_hal_process_message(fake::connection(), &msg), 0);
    }

    gps_lpp_location location = {};
};

TEST_F(lpp, ellipse) {
    struct row {
        const char *name;
        gps_ecef_sample first, second;
        uint32_t semi_major, semi_minor;
        int angle;
    };
    const row rows[] = {
        {"the static samples",
         {395944800, 395944800, 370007400},
         {396001200, 335009000, 370007400},
         2117015748,
         370007400,
         90},
        {"the same twice: divisions by zero give 0", {5, 6, 7}, {5, 6, 7}, 0, 7, 90},
        {"backwards in x", {10, 5, 40}, {0, 3, 20}, 10, 30, 5},
        {"a ratio of one: the largest length", {0, 0, -10}, {1, 1000, -10}, 500, 4294967295, 90},
        {"everything at its limit",
         {0, -2147483647 - 1, 0},
         {-1, 2147483647, -2147483647 - 1},
         1073741824,
         3221225472,
         0},
    };
    for (const row &r : rows) {
        const gps_lpp_ellipse ellipse = gps_make_lpp_ellipse(r.first, r.second);
        EXPECT_EQ(ellipse.semi_major, r.semi_major) << r.name;
        EXPECT_EQ(ellipse.semi_minor, r.semi_minor) << r.name;
        EXPECT_EQ(ellipse.angle, r.angle) << r.name;
    }
}

TEST_F(lpp, record_from_the_receiver) {
    EXPECT_EQ(gps_get_lpp_paramas(&location), 0);
    EXPECT_EQ(location.latitude_sign, 0u);
    EXPECT_EQ(location.degrees_latitude, 4407301u);
    EXPECT_EQ(location.degrees_longitude, 399169u);
    EXPECT_EQ(location.altitude, 2); // 65538 in 16 bits
    EXPECT_EQ(location.confidence, 70);
    EXPECT_EQ(location.orientation_major_axis, 45);
    EXPECT_EQ(location.uncertainty_semi_major, 0);
    EXPECT_EQ(location.uncertainity_semi_minor, 0);
    EXPECT_EQ(location.uncertainty_altitude, 0);
    const auto commands = peer->commands();
    ASSERT_EQ(commands.size(), 3 + 2 + 3 + 1u); // fix, two samples, second fix, PUBX 00
    EXPECT_EQ(commands[3], ecef_poll);
    EXPECT_EQ(commands[4], ecef_poll);
    EXPECT_EQ(commands[8], "$PUBX,00*33\r\n");
}

TEST_F(lpp, south_and_west) {
    answer("GPGPQ,GGA", "GPGGA,1,4717.113210,S,00833.915187,W,1,08,0.9,545.4,M,46.9,M,,");
    EXPECT_EQ(gps_get_lpp_paramas(&location), 0);
    EXPECT_EQ(location.latitude_sign, 1u);
    EXPECT_EQ(location.degrees_latitude, 4407301u);
    EXPECT_EQ(location.degrees_longitude, 0x1000000u - 399169u);
}

TEST_F(lpp, static_location) {
    static_location_on();
    EXPECT_EQ(gps_get_lpp_paramas(&location), 0);
    EXPECT_EQ(location.altitude, 2);
    EXPECT_EQ(location.orientation_major_axis, 45);
    EXPECT_EQ(location.degrees_latitude, 4800147u);            // 51.5 / 90 x 2^23
    EXPECT_EQ(location.degrees_longitude, 0x1000000u - 5825u); // 0.125 / 360 x 2^24, west
    EXPECT_TRUE(peer->commands().empty());
}

TEST_F(lpp, each_failure_ends_it) {
    answer("PUBX,00", "PUBX,00,081350.00");
    EXPECT_EQ(gps_get_lpp_paramas(&location), 1);
    EXPECT_EQ(fake::count_logged(3, "gps_get_lpp_paramas failed to get token"), 1u);
    answer_raw("PUBX,00", "PUBX,00");
    EXPECT_EQ(gps_get_lpp_paramas(&location), 1);
    EXPECT_EQ(fake::count_logged(3, "gps_get_lpp_paramas, failed to extract nmea_msg"), 1u);
    answer("GPGPQ,GGA", "GPGGA,1,,,,,0,00,99.99,,,,,,");
    EXPECT_EQ(gps_get_lpp_paramas(&location), 1);
    ls_hal_uart_close();
    answer("GPGPQ,GGA", "GPGGA,1,4717.113210,N,00833.915187,E,1,08,0.9,545.4,M,46.9,M,,");
    EXPECT_EQ(gps_get_lpp_paramas(&location), 1);
}

TEST_F(lpp, request_208_is_answered_by_request_19) {
    static_location_on();
    request_208(2);
    auto sent = fake::wait_for_sent(1);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].hdr.msg_type, 0);
    EXPECT_EQ(sent[0].hdr.msg_id, 19u);
    EXPECT_EQ(sent[0].hdr.dst_serv_id, 2);
    const std::vector<uint8_t> literal = {0, 0, 0,  0, 0,    0,    0,    0, 0,    0,    0,    70,
                                          2, 0, 45, 0, 0x93, 0x3E, 0x49, 0, 0x3F, 0xE9, 0xFF, 0};
    EXPECT_EQ(sent[0].payload, literal);
    EXPECT_EQ(pending_req_count, 0);
    request_208(0); // sent as a request it is served too
    EXPECT_EQ(fake::wait_for_sent(2).size(), 2u);
    EXPECT_TRUE(fake::wait_for_votes_returned());
}

TEST_F(lpp, a_failing_request_208_is_tried_three_times_and_stays_counted) {
    answer("GPGPQ,GGA", "GPGGA,1,,,,,0,00,99.99,,,,,,");
    request_208(0);
    EXPECT_TRUE(fake::wait_for_votes_returned());
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(pending_req_count, 3);
    EXPECT_EQ(fake::count_logged(3, "failed to get lpp param\n"), 3u);
    EXPECT_EQ(fake::count_logged(3, "Maximum retry count reached for ls_hal_get_lpp_params"), 1u);
    EXPECT_EQ(peer->commands().size(), 3u);
}

// The request that used the receiver last puts it back to sleep, whoever it came from.
TEST_F(lpp, request_19_powers_a_woken_receiver_down) {
    gps_board_type_g = 2; // no power lines
    std::vector<uint8_t> none;
    const bus_msg req = fake::make_message(0, 208, 2, none);
    const gps_lpp_location record = {};
    mt_gps_status = 0;
    EXPECT_EQ(ls_hal_send_req_msg(fake::connection(), &req, &record, sizeof(record)), 0);
    EXPECT_EQ(gps_current_power_mode_g, 0u);
    EXPECT_EQ(ls_hal_send_req_msg(nullptr, &req, &record, sizeof(record)), -1);
}

} // namespace
