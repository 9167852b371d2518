// The daemon under a bad receiver, a lost line and a lost answer of the TA.
#include "system_fixture.h"

#include <ctime>
#include <gtest/gtest.h>

namespace {

constexpr uint8_t TOOL = 40; // service id of a client without privileges

uint32_t position_status(bus_client &client) {
    const auto answer = client.ask(LS_REQUEST_GET_POSITION);
    return answer ? record_in<ls_position_reply>(answer).status : 99;
}

} // namespace

TEST(receiver_fault, fails_its_request_and_not_the_next) {
    terminal term;
    bus_client client(TOOL);
    const std::pair<std::string, uint32_t> faults[] = {
        {"silent", LS_STATUS_PASSED_THROUGH},
        {"late", LS_STATUS_PASSED_THROUGH},
        {"cut", LS_STATUS_FAILED},
        {"checksum", LS_STATUS_FAILED},
        {"garbage-before", LS_STATUS_FAILED},
        {"empty-fields", LS_STATUS_FAILED},
    };
    for (const auto &[name, status] : faults) {
        term.ctl({"fault", name, "on"});
        EXPECT_EQ(position_status(client), status) << name;
        term.ctl({"fault", name, "off"});
        const auto succeeds = [&] { return position_status(client) == LS_STATUS_OK; };
        // Late answers still under way may spoil a few requests more.
        EXPECT_TRUE(name == "late" ? wait_until(succeeds) : succeeds()) << name;
    }
    EXPECT_EQ(term.stop(), 0);
}

TEST(receiver_fault, an_unplugged_line_raises_the_alarm) {
    terminal term;
    bus_client ws(LS_SERV_WS);
    bus_client client(TOOL);
    term.ctl({"fault", "unplugged", "on"});
    EXPECT_EQ(position_status(client), LS_STATUS_FAILED);
    const auto alarm = ws.take(WS_NOTIFY_ALARM_UPDATE);
    ASSERT_TRUE(alarm);
    const auto told = record_in<ws_alarm_pld>(alarm);
    EXPECT_STREQ(told.text, "GPS Communication (RX/TX) error");
    EXPECT_NEAR(static_cast<double>(told.time), static_cast<double>(time(nullptr)), 30);
    // The line is opened once, at the start: a new daemon finds it again.
    term.ctl({"fault", "unplugged", "off"});
    term.restart_daemon();
    EXPECT_EQ(position_status(client), LS_STATUS_OK);
    EXPECT_EQ(term.stop(), 0);
    EXPECT_FALSE(exists(term.dir() / "bus/8")); // it has left the bus
}

// Board type 2, whose TA has two seconds to answer: what the requests behind each fault get.
TEST(ta, an_answer_that_is_late_or_lost) {
    terminal term({"--board", "2"}, true);
    scratch_dir::write(term.dir() / "user/gps_control_prm.txt",
                       "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 2\n");
    term.restart_daemon();
    bus_client client(TOOL);
    const auto succeeds = [&] {
        const auto answer = client.ask(LS_REQUEST_GET_SPEED);
        EXPECT_TRUE(answer);
        return record_in<ls_speed_reply>(answer).status == LS_STATUS_OK;
    };
    const auto logged = [&](const char *text) { return count_of(text, term.log()); };
    ASSERT_TRUE(wait_until(succeeds));

    term.ctl({"fault", "ta-late", "4000", "on"});
    const size_t arrived = logged("Received GPS data from TA");
    EXPECT_FALSE(succeeds()) << "late";
    term.ctl({"fault", "ta-late", "off"});
    EXPECT_TRUE(wait_until([&] { return logged("Received GPS data from TA") > arrived; }));
    EXPECT_TRUE(succeeds()) << "behind an answer that came late";

    term.ctl({"fault", "ta-silent", "once", "on"});
    EXPECT_FALSE(succeeds()) << "lost";
    EXPECT_FALSE(succeeds()) << "its answer is taken for the one that is missing";
    EXPECT_EQ(logged("semaphore timed out"), 3U);
    EXPECT_EQ(term.stop(), 0);
}
