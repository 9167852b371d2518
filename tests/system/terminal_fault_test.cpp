// The daemon under a bad receiver, a lost line, a lost answer of the TA and many clients at once.
#include "system_fixture.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <gtest/gtest.h>
#include <map>
#include <thread>

namespace {

constexpr uint8_t TOOL = 40; // service id of a client without privileges

uint32_t position_status(bus_client &client) {
    const auto answer = client.ask(LS_REQUEST_GET_POSITION);
    if (!answer)
        return 99;
    const auto status = record_in<ls_position_reply>(answer).status;
    const auto zeros = std::count(answer->payload.begin() + 4, answer->payload.end(), 0);
    EXPECT_TRUE(status == LS_STATUS_OK || zeros == 76) << "no position, no bytes of it";
    return status;
}

} // namespace

TEST(receiver_fault, fails_its_request_and_not_the_next) {
    terminal term;
    bus_client client(TOOL);
    const std::pair<words, uint32_t> faults[] = {
        {{"silent"}, LS_STATUS_PASSED_THROUGH},
        {{"late"}, LS_STATUS_PASSED_THROUGH},
        {{"cut"}, LS_STATUS_FAILED},
        {{"checksum"}, LS_STATUS_FAILED},
        {{"garbage-before"}, LS_STATUS_FAILED},
        {{"empty-fields"}, LS_STATUS_FAILED},
    };
    for (const auto &[name, status] : faults) {
        words request = {"fault"};
        request.insert(request.end(), name.begin(), name.end());
        request.emplace_back("on");
        term.ctl(request);
        EXPECT_EQ(position_status(client), status) << request[1];
        request.back() = "off";
        term.ctl(request);
        const auto succeeds = [&] { return position_status(client) == LS_STATUS_OK; };
        // Late answers still under way may spoil a few requests more.
        EXPECT_TRUE(request[1] == "late" ? wait_until(succeeds) : succeeds()) << request[1];
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
    EXPECT_EQ(record_in<ls_power_reply>(client.ask(LS_REQUEST_GET_POWER_MODE)).status,
              LS_STATUS_OK);
    EXPECT_EQ(lsctl({"position"}).status, 1);
    // The line is opened once, at the start: a new daemon finds it again.
    term.ctl({"fault", "unplugged", "off"});
    term.restart_daemon();
    EXPECT_EQ(position_status(client), LS_STATUS_OK);
    EXPECT_EQ(term.stop(), 0);
}

// Board type 2, whose TA has one second to answer: what the requests behind each fault get.
TEST(ta, an_answer_that_is_too_long_late_or_lost) {
    terminal term({"--board", "2"}, true);
    scratch_dir::write(term.dir() / "user/gps_control_prm.txt",
                       "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 1\n");
    term.restart_daemon();
    bus_client client(TOOL);
    const auto succeeds = [&] {
        const auto answer = client.ask(LS_REQUEST_GET_SPEED);
        EXPECT_TRUE(answer);
        return record_in<ls_speed_reply>(answer).status == LS_STATUS_OK;
    };
    const auto logged = [&](std::string_view text) {
        size_t count = 0;
        const std::string log = term.log();
        for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; ++at)
            ++count;
        return count;
    };
    ASSERT_TRUE(wait_until(succeeds));

    for (const char *length : {"201", "4294967295"}) {
        term.ctl({"fault", "ta-overlong", length, "on"});
        EXPECT_FALSE(succeeds()) << length;
    }
    term.ctl({"fault", "ta-overlong", "off"});
    EXPECT_TRUE(succeeds()) << "behind answers that were too long";
    EXPECT_EQ(logged("rffe module returned corrupt pointer"), 2U);
    EXPECT_EQ(logged("semaphore timed out"), 0U);

    term.ctl({"fault", "ta-late", "1500", "on"});
    const size_t arrived = logged("Received GPS data from TA");
    EXPECT_FALSE(succeeds()) << "late";
    term.ctl({"fault", "ta-late", "off"});
    EXPECT_TRUE(wait_until([&] { return logged("Received GPS data from TA") > arrived; }));
    EXPECT_TRUE(succeeds()) << "behind an answer that came late";

    term.ctl({"fault", "ta-silent", "on"});
    EXPECT_FALSE(succeeds()) << "lost";
    term.ctl({"fault", "ta-silent", "off"});
    EXPECT_FALSE(succeeds()) << "its answer is taken for the one that is missing";
    EXPECT_EQ(logged("semaphore timed out"), 3U);
    EXPECT_EQ(term.stop(), 0);
}

TEST(clients, eight_at_once_get_their_own_replies) {
    terminal term({"--log-level", "error"});
    constexpr std::array<uint32_t, 5> ids = {LS_REQUEST_GET_POWER_MODE, LS_REQUEST_GET_POSITION,
                                             LS_REQUEST_GET_SPEED, LS_REQUEST_GET_SAT_INFO,
                                             LS_REQUEST_GET_TIME};
    const auto be_client = [&](uint8_t id) {
        bus_client client(id);
        for (int round = 0; round < 5; ++round) {
            std::map<uint32_t, uint32_t> asked; // transaction: message
            for (const uint32_t request : ids)
                asked[client.send(request)] = request;
            for (const auto &[txn, request] : asked) {
                const auto reply = client.take([of = txn](const bus_message &message) {
                    return message.hdr.src_serv_id != 0 && message.hdr.txn_id == of;
                });
                ASSERT_TRUE(reply) << "no reply to " << request;
                EXPECT_EQ(reply->hdr.msg_id, request);
                EXPECT_EQ(reply->hdr.dst_serv_id, id);
                EXPECT_EQ(reply->payload.at(0), LS_STATUS_OK) << request;
            }
        }
    };
    std::vector<std::thread> threads;
    for (uint8_t id = TOOL; id < TOOL + 8; ++id)
        threads.emplace_back(be_client, id);
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(term.stop(), 0);
}
