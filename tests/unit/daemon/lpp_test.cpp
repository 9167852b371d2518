// LPP location parameters: the arithmetic, the record, and the request that asks for them.
#include "daemon_fixture.h"
#include "gps_message_handler.h"
#include "gps_service.h"

namespace {

using lpp = receiver_fixture;

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
        {"the limits", {0, INT32_MIN, 0}, {-1, INT32_MAX, INT32_MIN}, 1U << 30, 3U << 30, 0},
    };
    for (const auto &r : rows) {
        const gps_lpp_ellipse ellipse = gps_make_lpp_ellipse(r.first, r.second);
        EXPECT_EQ(ellipse.semi_major, r.semi_major) << r.name;
        EXPECT_EQ(ellipse.semi_minor, r.semi_minor) << r.name;
        EXPECT_EQ(ellipse.angle, r.angle) << r.name;
    }
}

TEST_F(lpp, is_asked_for_in_this_order) {
    const std::string second = from_hex<std::string>("B5 62 01 01 14 00*5 01 00*3 03 00*3 05 00*9");
    answer_raw(ecef_poll, usual_answers.at(ecef_poll), second);
    const auto sent = serve(208, 2);
    ASSERT_EQ(sent.size(), 1u); // tried no more
    EXPECT_EQ(sent[0].as<gps_lpp_location>().orientation_major_axis, 13);
    EXPECT_EQ(pending_req_count, 0);
    EXPECT_EQ(fake::count_logged(6, " cart_x2=1 cart_y2=3 cart_z2=5\n"), 1u);
    const auto commands = peer->commands();
    ASSERT_EQ(commands.size(), 3 + 2 + 3 + 1u); // fix, two samples, second fix, PUBX 00
    EXPECT_EQ(commands[3], ecef_poll);
    EXPECT_EQ(commands[4], ecef_poll);
    EXPECT_EQ(commands[8], "$PUBX,00*33\r\n");
}

TEST_F(lpp, a_failing_request_208_is_tried_three_times_and_stays_counted) {
    answer("GPGPQ,GGA", "GPGGA,1,,,,,0,00,99.99,,,,,,");
    EXPECT_TRUE(serve(208, 2).empty());
    EXPECT_EQ(pending_req_count, 3);
    EXPECT_EQ(errors("Maximum retry count reached for ls_hal_get_lpp_params"), 1u);
    EXPECT_EQ(peer->commands().size(), 3u);
}

} // namespace
