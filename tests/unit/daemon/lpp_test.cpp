// LPP location parameters: the arithmetic, the record, and the request that asks for them.
#include "daemon_fixture.h"
#include "gps_message_handler.h"
#include "gps_service.h"

namespace {

const std::string ecef_poll = "\xB5\x62\x01\x01\x00\x00\x02\x07"s;

class lpp : public receiver_fixture {
  protected:
    void SetUp() override {
        receiver_fixture::SetUp();
        answer("GPGPQ,GGA", "GPGGA,1,4717.113210,N,00833.915187,E,1,08,0.9,545.4,M,46.9,M,,");
        answer("GPGPQ,GSA", "GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1");
        answer("GPGPQ,ZDA", "GPZDA,235959.00,31,12,2019,00,00");
        answer("PUBX,00", "PUBX,00,081350.00,4717.1,N,00833.9,E,546.589,G3,2.1,65538.9,0.007");
        answer_raw(ecef_poll, "\xB5\x62\x01\x01\x14\x00\x00\x00\x00\x00\x01\x00\x00\x00\x02\x00"
                              "\x00\x00\x03\x00\x00\x00\x00\x00\x00\x00\x00\x00"s);
    }

    gps_lpp_location location = {};
};

TEST_F(lpp, ellipse) {
    const struct {
        const char *name;
        gps_ecef_sample first, second;
        uint32_t semi_major, semi_minor;
        int angle;
    } rows[] = {
        {"the same twice: divisions by zero give 0", {5, 6, 7}, {5, 6, 7}, 0, 7, 90},
        {"backwards in x", {10, 5, 40}, {0, 3, 20}, 10, 30, 5},
        {"a ratio of one: the largest length", {0, 0, -10}, {1, 1000, -10}, 500, 4294967295, 90},
        {"everything at its limit",
         {0, -2147483648, 0},
         {-1, 2147483647, -2147483648},
         1073741824,
         3221225472,
         0},
    };
    for (const auto &r : rows) {
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
    EXPECT_EQ(location.orientation_major_axis, 45);
    EXPECT_EQ(fake::count_logged(6, " cart_x2=1 cart_y2=2 cart_z2=3\n"), 1u);
    const auto commands = peer->commands();
    ASSERT_EQ(commands.size(), 3 + 2 + 3 + 1u); // fix, two samples, second fix, PUBX 00
    EXPECT_EQ(commands[3], ecef_poll);
    EXPECT_EQ(commands[4], ecef_poll);
    EXPECT_EQ(commands[8], "$PUBX,00*33\r\n");

    answer("GPGPQ,GGA", "GPGGA,1,4717.113210,S,00833.915187,W,1,08,0.9,545.4,M,46.9,M,,");
    EXPECT_EQ(gps_get_lpp_paramas(&location), 0);
    EXPECT_EQ(location.latitude_sign, 1u);
    EXPECT_EQ(location.degrees_latitude, 4407301u);
    EXPECT_EQ(location.degrees_longitude, 0x1000000u - 399169u);
    EXPECT_EQ(serve(208, 2).size(), 1u); // tried no more
}

TEST_F(lpp, a_failing_request_208_is_tried_three_times_and_stays_counted) {
    answer("GPGPQ,GGA", "GPGGA,1,,,,,0,00,99.99,,,,,,");
    EXPECT_TRUE(serve(208, 2).empty());
    EXPECT_EQ(pending_req_count, 3);
    EXPECT_EQ(errors("Maximum retry count reached for ls_hal_get_lpp_params"), 1u);
    EXPECT_EQ(peer->commands().size(), 3u);
}

} // namespace
