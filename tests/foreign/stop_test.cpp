// The end of the daemon while somebody is inside a library.
#include "bench.h"

namespace {

class stop : public bench {
  protected:
    int strays() {
        return count([](const auto &e) { return e.is_call("stray connection"); });
    }
    // Ends the daemon once `inside` is seen; `done` has to come before its process ends.
    void end_amidst(const event_test &inside, const event_test &done) {
        await("the call that is under way", inside);
        EXPECT_EQ(end(), 0);
        EXPECT_GE(count(done), 1);
        EXPECT_EQ(strays(), 0);
    }
};

TEST_F(stop, waits_for_a_change_of_power_and_its_reply_inside_the_bus) {
    start();
    state->store_ms = state->send_ms = 400;
    deliver(LS_REQUEST_SET_POWER_MODE, LS_SERV_WS, {0, 0, 0, 0});
    end_amidst(
        [](const auto &e) { return e.is_call("db_set_gps_power_on_status"); },
        [](const auto &e) { return e.is_call("send_msg returns", LS_REQUEST_SET_POWER_MODE); });
}

// rtc_exit does not wait for callbacks here: the connection is theirs to the end.
TEST_F(stop, leaves_the_connection_to_a_timers_callback) {
    state->history = 1;
    state->deletion_ms = 1500;
    start();
    state->send_ms = 900;
    end_amidst([](const auto &e) { return e.is_send(0, TA_REQUEST_GPS_DATA); },
               [](const auto &e) { return e.is_call("send_msg returns", TA_REQUEST_GPS_DATA); });
}

TEST_F(stop, does_not_wait_for_ever_and_says_so) {
    start();
    state->send_ms = 20000;
    deliver(LS_REQUEST_GET_POWER_MODE, 40);
    await("reply", [](const auto &e) { return e.is_send(1, LS_REQUEST_GET_POWER_MODE); });
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(end(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 15s);
    // Without a history its own line is there at every end.
    EXPECT_GT(count(
                  [](const auto &e) {
                      return e.kind == EVENT_LOG && e.number <= 4 &&
                             !e.is_log("g_timer_id found 0");
                  },
                  await_log("Signal handler called")),
              0);
}

} // namespace
