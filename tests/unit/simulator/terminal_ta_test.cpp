// The other services: the TA's exchanges, and all of it on a real bus.
#include "ls_messages.h"
#include "receiver_rig.h"
#include "services.h"
#include "services_ta.h"
#include "terminal.h"
#include "terminal_loop.h"
#include "terminal_say.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <map>
#include <mutex>

namespace sim {
namespace {

// A request 1416: command at 1, answer at 201, length at 404.
std::vector<uint8_t> ta_request(const std::string &command, size_t length) {
    std::vector<uint8_t> payload(sizeof(gps_data_req_pld));
    std::copy(command.begin(), command.end(), payload.begin() + 1);
    payload[404] = static_cast<uint8_t>(length);
    return payload;
}

struct ta_unit : testing::Test {
    ta unit;
    ta_faults faults;
    std::string error = "none";

    // What is wrong with the request; "none" = taken.
    std::string take(const std::vector<uint8_t> &payload, uint32_t txn = 1) {
        msg_hdr hdr{};
        hdr.txn_id = txn;
        return ta_take_request(unit, hdr, payload, error) ? "none" : error;
    }
    void ask(const std::string &command, uint32_t txn) {
        EXPECT_EQ(take(ta_request(command, command.size()), txn), "none");
    }
    std::string command(double now) {
        const auto next = ta_next_command(unit, now);
        return next ? std::string(next->begin(), next->end()) : "none";
    }
    void tell(const std::string &text, double now) {
        ta_take_answer(unit, rig::as_bytes(text), faults, now);
    }
    // Transaction, length and text of the one reply that is due.
    std::string due(double now) {
        const std::vector<ta_reply> replies = ta_due_replies(unit, faults, now);
        if (replies.size() != 1)
            return std::to_string(replies.size()) + " replies";
        const gps_data_req_pld &payload = replies[0].payload;
        return std::to_string(replies[0].request.txn_id) + " " + std::to_string(payload.cmd_len) +
               " " + std::string(reinterpret_cast<const char *>(payload.response));
    }
};

TEST_F(ta_unit, carries_one_exchange_at_a_time) {
    tell("$GPGGA*56", 0); // nobody asked
    ask("$A*41", 7);
    ask("$B*42", 8);
    tell("$GPGGA*56", 0); // still not on the line
    EXPECT_EQ(due(0), "0 replies");
    EXPECT_EQ(command(10), "$A*41");
    EXPECT_EQ(command(10), "none");
    tell("$a*61", 10.5);
    EXPECT_EQ(due(10.5), "7 5 $a*61");
    EXPECT_EQ(command(20), "$B*42");
    EXPECT_DOUBLE_EQ(ta_next_event(unit).value(), 23) << "the receiver is silent";
    EXPECT_EQ(due(22.99), "0 replies");
    EXPECT_EQ(due(23), "8 0 ");
}

TEST_F(ta_unit, lengths) {
    const std::string x200(200, 'x');
    const std::tuple<size_t, unsigned, std::string> rows[] = {
        {199, 0, "1 199 " + x200.substr(1)}, {201, 0, "1 200 " + x200}, {2, 201, "1 201 xx"}};
    for (const auto &[answered, claimed, reply] : rows) {
        faults.claimed_length = claimed;
        ask("$A*41", 1);
        command(0);
        tell(std::string(answered, 'x'), 0);
        EXPECT_EQ(due(0), reply) << answered;
    }
    EXPECT_EQ(take(std::vector<uint8_t>(411)), "payload of 411 bytes");
    EXPECT_NE(take(ta_request("", 0)), "none");
    EXPECT_EQ(take(ta_request("", 201)), "command of 201 bytes");
    EXPECT_EQ(take(ta_request(x200, 200)), "none");
}

TEST_F(ta_unit, late_and_silent) {
    faults.late_ms = 16000;
    ask("$A*41", 1);
    command(0);
    tell("late", 1);
    EXPECT_DOUBLE_EQ(ta_next_event(unit).value(), 17);
    faults.late_ms = 0;
    ask("$B*42", 2);
    command(2);
    tell("next", 3);
    EXPECT_EQ(due(3), "2 4 next") << "not held up";
    EXPECT_EQ(due(16.9), "0 replies");
    EXPECT_EQ(due(17), "1 4 late");
    faults.silent = true;
    ask("$A*41", 3);
    command(20);
    tell("answer", 21);
    EXPECT_EQ(due(100), "0 replies");
}

// What the location service gets: payloads as hex, by message id.
std::mutex got_lock;
std::map<uint32_t, std::string> got;

std::string receive(uint32_t id) {
    decltype(got)::node_type entry;
    const auto look = [&] {
        const std::lock_guard guard(got_lock);
        entry = got.extract(id);
        return !entry.empty();
    };
    return loop_until(look, loop_now() + 5) ? entry.mapped() : "nothing";
}

// A terminal of board 2, and this test as its location service.
TEST(services, on_the_bus) {
    const scratch_dir scratch;
    const terminal_paths paths = tree_paths(scratch.path());
    for (const std::string directory : {"bus", "log", "dev"})
        std::filesystem::create_directory(directory);
    setenv("MQUTILS_DIR", paths.bus.c_str(), 1);
    terminal_options options;
    options.baud = 0;
    std::string error;
    say_to_stderr(true); // the test's own findings go to stdout
    ASSERT_TRUE(terminal_up(options, paths, 2, error)) << error;
    ASSERT_TRUE(services_open(2, 4, paths.bus, paths.services, error)) << error;
    loop_add_timer([] { return loop_now() + 0.005; }, [] {}); // the bus has a thread of its own
    scm_conn daemon{};
    daemon.on_message = [](scm_conn *, bus_msg *message) {
        const auto *const payload = static_cast<const uint8_t *>(message->pld);
        const std::lock_guard guard(got_lock);
        got[message->hdr.msg_id] = rig::to_hex({payload, payload + message->hdr.pld_len});
        return 0;
    };
    ASSERT_EQ(scm_conn_init(&daemon, LS_OWN_SERV_ID), 0);
    const auto send = [&](auto fill, uint8_t to, uint32_t id, const std::vector<uint8_t> &payload) {
        msg_hdr hdr{};
        EXPECT_EQ(fill(&daemon, &hdr, static_cast<uint32_t>(payload.size()), id, to), 0);
        EXPECT_EQ(send_msg(&daemon, &hdr, payload.data()), 0);
    };
    EXPECT_EQ(receive(1418), "04 00 00 00") << "to a service that comes up";
    EXPECT_TRUE(services_announce_antenna(3, error)) << error;
    EXPECT_EQ(receive(1418), "03 00 00 00");
    send(fill_request_hdr, LS_SERV_TA, 1416, ta_request("$GPGPQ,GLL*3A\r\n", 15));
    const std::string answer = receive(1416);
    EXPECT_EQ(answer.substr(size_t{201} * 3, 20), "24 47 50 47 4c 4c 2c") << "$GPGLL,";
    send(fill_request_hdr, LS_SERV_SAL, 18, {1, 0});
    EXPECT_EQ(receive(18), "");
    EXPECT_FALSE(services_daemon_ready());
    send(fill_notif_hdr, LS_SERV_VOIP, 1014, {2, 0, 0, 0});
    EXPECT_TRUE(loop_until(services_daemon_ready, loop_now() + 5));
    const std::string log = scratch_dir::read(paths.services);
    EXPECT_NE(log.find("SAL  request 18 from 8, LPP capabilities: GNSS available\n"), log.npos);
    scm_conn_exit(&daemon);
    services_close();
    terminal_down();
    loop_close();
}

} // namespace
} // namespace sim
