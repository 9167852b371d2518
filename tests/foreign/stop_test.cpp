// The end of the daemon while somebody is inside a library.
#include "bench.h"

namespace {

class stop : public bench {
  protected:
    // Ends the daemon once `inside` is seen; `done` has to come before its process ends.
    void end_amidst(const char *inside, const char *done) {
        await(inside);
        EXPECT_EQ(end(), 0);
        EXPECT_GE(count(done), 1);
        EXPECT_EQ(count("stray connection"), 0);
    }
};

TEST_F(stop, waits_for_a_change_of_power_and_its_reply_inside_the_bus) {
    start();
    state->store_ms = state->send_ms = 400;
    deliver(LS_REQUEST_SET_POWER_MODE, LS_SERV_WS, {0, 0, 0, 0});
    end_amidst("call db_set_gps_power_on_status", "send_msg returns 1002");
}

// rtc_exit does not wait for callbacks here: the connection is theirs to the end.
TEST_F(stop, leaves_the_connection_to_a_timers_callback) {
    state->history = 1;
    state->deletion_ms = 1500;
    start();
    state->send_ms = 900;
    end_amidst(TO_TA, "send_msg returns 1416");
}

TEST_F(stop, does_not_wait_for_ever_and_says_so) {
    start();
    state->send_ms = 20000;
    deliver(LS_REQUEST_GET_POWER_MODE, 40);
    await("^send 1 1001 ");
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(end(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 15s);
    // Without a history its own line is there at every end.
    EXPECT_GT(count("^log [0-4] (?!.*g_timer_id found 0)", await("Signal handler called")), 0);
}

} // namespace
