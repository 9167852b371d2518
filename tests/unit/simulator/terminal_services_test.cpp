// The other services: the TA's exchanges, messages in words, and all of it on a real bus.
#include "ls_messages.h"
#include "services.h"
#include "services_decode.h"
#include "services_ta.h"
#include "terminal.h"
#include "terminal_fake_receiver.h"
#include "terminal_loop.h"
#include "terminal_say.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <mutex>
#include <sstream>

namespace sim {
namespace {

msg_hdr header(uint8_t type, uint32_t id, uint32_t txn = 0) {
    msg_hdr hdr{};
    hdr.msg_type = type;
    hdr.src_serv_id = LS_OWN_SERV_ID;
    hdr.msg_id = id;
    hdr.txn_id = txn;
    return hdr;
}

template <class record>
std::vector<uint8_t> bytes_of(const record &value) {
    std::vector<uint8_t> bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes;
}

std::vector<uint8_t> exchange(const std::string &command) {
    gps_data_req_pld payload{};
    std::copy(command.begin(), command.end(), payload.command);
    payload.cmd_len = static_cast<uint32_t>(command.size());
    return bytes_of(payload);
}

std::string response_text(const ta_reply &reply) {
    return as_text(std::span(reply.payload.response).first(reply.payload.cmd_len));
}

struct ta_unit : testing::Test {
    ta unit;
    ta_faults faults;
    std::string error;

    bool ask(const std::string &command, uint32_t txn) {
        return ta_take_request(unit, header(LS_MSG_REQUEST, TA_REQUEST_GPS_DATA, txn),
                               exchange(command), error);
    }
    void tell(const std::string &text, double now) {
        ta_take_answer(unit, as_bytes(text), faults, now);
    }
    std::vector<ta_reply> due(double now) { return ta_due_replies(unit, faults, now); }
};

TEST_F(ta_unit, carries_one_exchange_at_a_time) {
    ASSERT_TRUE(ask("$A*41", 7));
    ASSERT_TRUE(ask("$B*42", 8));
    EXPECT_EQ(as_text(ta_next_command(unit, 0).value()), "$A*41");
    EXPECT_FALSE(ta_next_command(unit, 0).has_value());
    tell("$a*61", 0.5);
    const std::vector<ta_reply> first = due(0.5);
    ASSERT_EQ(first.size(), 1U);
    EXPECT_EQ(first[0].request.txn_id, 7U);
    EXPECT_EQ(response_text(first[0]), "$a*61");
    EXPECT_EQ(as_text(ta_next_command(unit, 0.5).value()), "$B*42");
}

TEST_F(ta_unit, what_nobody_asked_for_is_dropped) {
    tell("$GPGGA*56", 0);
    EXPECT_TRUE(due(10).empty());
    ASSERT_TRUE(ask("$A*41", 1));
    tell("$GPGGA*56", 0); // still not on the line
    EXPECT_TRUE(due(10).empty());
}

TEST_F(ta_unit, silent_receiver_gives_an_empty_answer_after_three_seconds) {
    ASSERT_TRUE(ask("$A*41", 1));
    ASSERT_TRUE(ta_next_command(unit, 10).has_value());
    EXPECT_DOUBLE_EQ(ta_next_event(unit).value(), 13);
    EXPECT_TRUE(due(12.99).empty());
    const std::vector<ta_reply> replies = due(13.0);
    ASSERT_EQ(replies.size(), 1U);
    EXPECT_EQ(replies[0].payload.cmd_len, 0U);
    EXPECT_EQ(replies[0].payload.response[0], 0);
}

struct length_case {
    size_t answered;
    uint32_t claimed; // by the fault, 0 = none
    uint32_t cmd_len;
};

TEST_F(ta_unit, lengths) {
    for (const length_case &row :
         {length_case{199, 0, 199}, {200, 0, 200}, {201, 0, 200}, {500, 0, 200}, {20, 201, 201}}) {
        faults.claimed_length = row.claimed;
        ASSERT_TRUE(ask("$A*41", 1));
        ASSERT_TRUE(ta_next_command(unit, 0).has_value());
        tell(std::string(row.answered, 'x'), 0);
        const std::vector<ta_reply> replies = due(0);
        ASSERT_EQ(replies.size(), 1U);
        EXPECT_EQ(replies[0].payload.cmd_len, row.cmd_len) << row.answered;
        const size_t kept = std::min<size_t>(row.answered, 200);
        EXPECT_EQ(replies[0].payload.response[kept - 1], 'x') << row.answered;
        EXPECT_EQ(replies[0].payload.reserved0[0], 0) << row.answered;
    }
}

TEST_F(ta_unit, late_reply_does_not_hold_up_the_next) {
    faults.late_ms = 16000;
    ASSERT_TRUE(ask("$A*41", 1));
    ASSERT_TRUE(ta_next_command(unit, 0).has_value());
    tell("late", 1);
    EXPECT_DOUBLE_EQ(ta_next_event(unit).value(), 17);
    faults.late_ms = 0;
    ASSERT_TRUE(ask("$B*42", 2));
    ASSERT_TRUE(ta_next_command(unit, 2).has_value());
    tell("next", 3);
    std::vector<ta_reply> replies = due(3);
    ASSERT_EQ(replies.size(), 1U);
    EXPECT_EQ(response_text(replies[0]), "next");
    EXPECT_TRUE(due(16.9).empty());
    replies = due(17);
    ASSERT_EQ(replies.size(), 1U);
    EXPECT_EQ(response_text(replies[0]), "late");
}

TEST_F(ta_unit, silent_ta_still_uses_its_receiver) {
    faults.silent = true;
    ASSERT_TRUE(ask("$A*41", 1));
    EXPECT_TRUE(ta_next_command(unit, 0).has_value());
    tell("answer", 1);
    EXPECT_TRUE(due(100).empty());
    ASSERT_TRUE(ask("$B*42", 2));
    EXPECT_TRUE(ta_next_command(unit, 1).has_value());
}

TEST_F(ta_unit, broken_requests_get_no_reply) {
    const msg_hdr hdr = header(LS_MSG_REQUEST, TA_REQUEST_GPS_DATA);
    std::vector<uint8_t> payload = exchange("$A*41");
    payload.pop_back();
    EXPECT_FALSE(ta_take_request(unit, hdr, payload, error));
    EXPECT_EQ(error, "payload of 411 bytes");
    EXPECT_FALSE(ask("", 1));
    gps_data_req_pld overlong{};
    overlong.cmd_len = 201;
    EXPECT_FALSE(ta_take_request(unit, hdr, bytes_of(overlong), error));
    EXPECT_EQ(error, "command of 201 bytes");
    EXPECT_TRUE(ask(std::string(200, 'x'), 1));
}

struct decode_case {
    uint8_t type;
    uint32_t id;
    std::vector<uint8_t> payload;
    const char *text;
};

const decode_case DECODE_CASES[] = {
    {LS_MSG_REQUEST, 18, {1, 0}, "request 18 from 8, LPP capabilities: GNSS available"},
    {LS_MSG_REQUEST, 18, {0, 0}, "request 18 from 8, LPP capabilities: GNSS not available"},
    {LS_MSG_REQUEST, 18, {1}, "request 18 from 8, LPP capabilities: 1 bytes: 01"},
    {LS_MSG_NOTIFICATION,
     1014,
     {2, 0, 0, 0},
     "notification 1014 from 8, power mode: power status 2 (on)"},
    {LS_MSG_NOTIFICATION,
     1014,
     {1, 0, 0, 0},
     "notification 1014 from 8, power mode: power status 1 (off)"},
    {LS_MSG_RESPONSE, 1001, {1, 0xAB}, "response 1001 from 8: 2 bytes: 01 AB"},
    {7, 9, {}, "message of type 7 9 from 8: 0 bytes"},
    // 47.28522 N is 4407301, 8.56525 W is 399169 turned around in 24 bits, both cut off.
    {LS_MSG_REQUEST,
     19,
     {0,  0,    0,  0,    0,    0,    0,    0,    5,    0,    10,   70,
      86, 0x01, 45, 0x00, 0x05, 0x40, 0x43, 0x00, 0xBF, 0xE8, 0xF9, 0x00},
     "request 19 from 8, GNSS location: latitude 47.28521, longitude -8.56524, latitude sign 0, "
     "altitude 342 m up, uncertainty codes 5 0 10 (6 m, 0 m, altitude 13 m), confidence 70 %, "
     "orientation 90 degrees"},
};

TEST(services, messages_in_words) {
    for (const decode_case &row : DECODE_CASES) {
        EXPECT_EQ(services_decode(header(row.type, row.id), row.payload), row.text);
    }
    gps_lpp_location south{};
    south.latitude_sign = 1;
    south.degrees_latitude = 1 << 22;
    EXPECT_NE(services_decode(header(LS_MSG_REQUEST, 19), bytes_of(south)).find("latitude -45.0"),
              std::string::npos);
    ws_alarm_pld alarm{};
    std::strcpy(alarm.text, "GPS Communication (RX/TX) error");
    alarm.time = 86400;
    EXPECT_EQ(services_decode(header(LS_MSG_NOTIFICATION, 810), bytes_of(alarm)),
              "notification 810 from 8, alarm: \"GPS Communication (RX/TX) error\" at "
              "1970-01-02T00:00:00Z");
    EXPECT_EQ(services_decode(header(LS_MSG_REQUEST, 1416), exchange("$GPGPQ,GGA*3C\r\n")),
              "request 1416 from 8, receiver exchange: $GPGPQ,GGA*3C");
}

// What the location service gets, as "id:type:payload bytes".
std::mutex got_lock;
std::vector<std::pair<msg_hdr, std::vector<uint8_t>>> got;

int on_got(scm_conn *, bus_msg *message) {
    const auto *const payload = static_cast<const uint8_t *>(message->pld);
    const size_t length = payload == nullptr ? 0 : message->hdr.pld_len;
    const std::lock_guard guard(got_lock);
    got.emplace_back(message->hdr, std::vector<uint8_t>(payload, payload + length));
    return 0;
}

// A terminal of board 2 with the stand-in receiver, and this test as its location service.
struct services_on_the_bus : testing::Test {
    std::string root;
    terminal_paths paths;
    std::string error;
    scm_conn daemon{};

    void SetUp() override {
        std::string name = testing::TempDir() + "/services_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        root = name;
        paths = tree_paths(root);
        for (const std::string &directory : {paths.bus, root + "/log", root + "/dev"}) {
            std::filesystem::create_directories(directory);
        }
        ASSERT_EQ(setenv("MQUTILS_DIR", paths.bus.c_str(), 1), 0);
        fake_receiver_delay_s = 0;
        terminal_options options;
        options.baud = 0;
        say_to_stderr(true); // the test's own findings go to stdout
        ASSERT_TRUE(terminal_up(options, paths, 2, error)) << error;
        ASSERT_TRUE(services_open(2, 4, paths.bus, paths.services, error)) << error;
        // Asked by no one: the fake answers the TA's start commands too.
        loop_until([] { return false; }, loop_now() + 0.01);
        got.clear();
        daemon.on_message = on_got;
        ASSERT_EQ(scm_conn_init(&daemon, LS_OWN_SERV_ID), 0);
    }
    void TearDown() override {
        scm_conn_exit(&daemon);
        services_close();
        terminal_down();
        loop_close();
        std::filesystem::remove_all(root);
    }

    void send(uint8_t to, uint32_t id, const std::vector<uint8_t> &payload, bool request) {
        msg_hdr hdr{};
        const auto length = static_cast<uint32_t>(payload.size());
        ASSERT_EQ((request ? fill_request_hdr : fill_notif_hdr)(&daemon, &hdr, length, id, to), 0);
        ASSERT_EQ(send_msg(&daemon, &hdr, payload.data()), 0);
    }
    // The payload of the next message `id` that arrives; empty also when none does.
    static std::vector<uint8_t> receive(uint32_t id, uint8_t type, bool &came) {
        std::vector<uint8_t> payload;
        came = false;
        const auto look = [&] {
            const std::lock_guard guard(got_lock);
            for (auto entry = got.begin(); entry != got.end(); ++entry) {
                if (entry->first.msg_id == id && entry->first.msg_type == type) {
                    payload = entry->second;
                    got.erase(entry);
                    came = true;
                    return true;
                }
            }
            return false;
        };
        // The receive thread of this test is not in the loop.
        for (int i = 0; i < 400 && !look(); i++) {
            loop_until([] { return false; }, loop_now() + 0.005);
        }
        return payload;
    }
    std::string log() const {
        std::stringstream text;
        text << std::ifstream(paths.services).rdbuf();
        return text.str();
    }
    bool log_says(const char *text) const {
        return loop_until([&] { return log().find(text) != std::string::npos; }, loop_now() + 2);
    }
};

TEST_F(services_on_the_bus, ta_announces_the_antenna_to_a_service_that_comes_up) {
    bool came = false;
    EXPECT_EQ(receive(1418, LS_MSG_NOTIFICATION, came), (std::vector<uint8_t>{4, 0, 0, 0}));
    EXPECT_TRUE(services_announce_antenna(3, error)) << error;
    EXPECT_EQ(receive(1418, LS_MSG_NOTIFICATION, came), (std::vector<uint8_t>{3, 0, 0, 0}));
    EXPECT_TRUE(came);
}

TEST_F(services_on_the_bus, ta_carries_a_command_to_the_receiver_and_back) {
    send(LS_SERV_TA, TA_REQUEST_GPS_DATA, exchange("hello\n"), true);
    bool came = false;
    const std::vector<uint8_t> payload = receive(TA_REQUEST_GPS_DATA, LS_MSG_RESPONSE, came);
    ASSERT_EQ(payload.size(), 412U);
    EXPECT_EQ(as_text(std::span(payload).subspan(201, 8)), std::string("<hello>\0", 8));
    EXPECT_EQ(payload[404], 7);
}

TEST_F(services_on_the_bus, stand_ins_answer_and_write_down) {
    send(LS_SERV_SAL, SAL_REQUEST_LPP_CAPABILITIES, {1, 0}, true);
    bool came = false;
    EXPECT_TRUE(receive(SAL_REQUEST_LPP_CAPABILITIES, LS_MSG_RESPONSE, came).empty());
    EXPECT_TRUE(came);
    EXPECT_TRUE(log_says("SAL  request 18 from 8, LPP capabilities: GNSS available\n"));
    EXPECT_FALSE(services_daemon_ready());
    send(LS_SERV_VOIP, LS_NOTIFY_POWER_MODE, {2, 0, 0, 0}, false);
    EXPECT_TRUE(log_says("VoIP notification 1014 from 8, power mode: power status 2 (on)\n"));
    EXPECT_TRUE(services_daemon_ready());
    services_forget_ready();
    EXPECT_FALSE(services_daemon_ready());
}

TEST_F(services_on_the_bus, what_people_make_them_say) {
    bool came = false;
    EXPECT_TRUE(services_request_location(error)) << error;
    EXPECT_EQ(receive(208, LS_MSG_NOTIFICATION, came), std::vector<uint8_t>(24, 0));
    EXPECT_TRUE(services_notify_cfun(1, error)) << error;
    EXPECT_EQ(receive(201, LS_MSG_NOTIFICATION, came), std::vector<uint8_t>{1});
    EXPECT_TRUE(services_notify_history(error)) << error;
    EXPECT_TRUE(receive(808, LS_MSG_NOTIFICATION, came).empty());
    EXPECT_TRUE(came);
    scm_conn_exit(&daemon);
    EXPECT_FALSE(services_notify_cfun(1, error));
    EXPECT_NE(error.find("could not send 201"), std::string::npos) << error;
}

} // namespace
} // namespace sim
