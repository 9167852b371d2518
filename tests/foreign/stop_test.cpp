// The end of the daemon while somebody is inside a library, and what else two threads can do to the
// power of the receiver.
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

TEST_F(stop, waits_for_a_reply_inside_the_bus) {
    start();
    state->send_ms = 900;
    deliver(LS_REQUEST_GET_POWER_MODE, 40);
    end_amidst(
        [](const auto &e) { return e.is_send(1, LS_REQUEST_GET_POWER_MODE); },
        [](const auto &e) { return e.is_call("send_msg returns", LS_REQUEST_GET_POWER_MODE); });
}

TEST_F(stop, waits_for_a_change_of_power) {
    start();
    state->store_ms = 900;
    deliver(LS_REQUEST_SET_POWER_MODE, LS_SERV_WS, {0, 0, 0, 0});
    end_amidst([](const auto &e) { return e.is_call("db_set_gps_power_on_status"); },
               [](const auto &e) { return e.is_send(1, LS_REQUEST_SET_POWER_MODE); });
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

// A worker powers down behind a reply to VoIP; service 9 wants the receiver meanwhile.
TEST_F(stop, power_is_changed_by_one_at_a_time) {
    state->power = 0;
    start();
    engg_reply(deliver_command("A", LS_SERV_CLIENT_9)); // on
    state->store_ms = 500;
    deliver(LS_REQUEST_GET_POWER_MODE, LS_SERV_VOIP);
    const int before =
        await("off", [](const auto &e) { return e.is_call("db_set_gps_power_on_status", 0); });
    engg_reply(deliver_command("B", LS_SERV_CLIENT_9));
    std::string order;
    for (const foreign_event &event : events(before)) {
        if (event.is_call("db_set_gps_power_on_status"))
            order += "store " + std::to_string(event.number) + ", ";
        else if (event.is_call("db_set_gps_power_on_status returns"))
            order += "stored, ";
        else if (event.is_send(LS_MSG_REQUEST, TA_REQUEST_GPS_DATA))
            order += "query";
    }
    EXPECT_EQ(order, "store 0, stored, store 2, stored, query");
    EXPECT_EQ(end(), 0);
}

TEST_F(stop, a_power_status_that_cannot_be_stored_is_in_the_log) {
    start();
    state->store_result = -1;
    const int before = now();
    reply(deliver(LS_REQUEST_SET_POWER_MODE, LS_SERV_WS, {0, 0, 0, 0}));
    EXPECT_GT(count([](const auto &e) { return e.kind == EVENT_LOG && e.number == 3; }, before), 0);
    EXPECT_EQ(end(), 0);
}

class no_file : public stop, public testing::WithParamInterface<const char *> {};

// Nobody ever writes to it: whoever opens or reads it as a file waits for ever.
TEST_P(no_file, but_a_fifo_holds_nobody_up) {
    std::filesystem::remove(GetParam());
    ASSERT_EQ(mkfifo(GetParam(), 0644), 0);
    start();
    EXPECT_GT(count([](const auto &e) {
                  return e.kind == EVENT_LOG && e.number == 3 && e.is_log(GetParam());
              }),
              0);
    const int before = now();
    scratch_dir::write("user/stub_location/another", "change");
    await_log("stub_loc.gps file is modified", before);
    EXPECT_EQ(engg_reply(deliver_command("A")).status, 1u);
    EXPECT_EQ(end(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    at, no_file, testing::Values("user/stub_location/stub_loc.gps", "user/gps_control_prm.txt"),
    [](const auto &row) { return std::filesystem::path(row.param).stem().string(); });

} // namespace
