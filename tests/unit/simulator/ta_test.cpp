// The TA's exchanges; the system tests have it and the other services on a real bus.
#include "decode.h"
#include "ls_messages.h"
#include "receiver_rig.h"
#include "ta.h"

#include <gtest/gtest.h>

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
    ask("$A*41", 1);
    command(0);
    tell(std::string(201, 'x'), 0);
    EXPECT_EQ(due(0), "1 200 " + std::string(200, 'x'));
    EXPECT_EQ(take(std::vector<uint8_t>(411)), "payload of 411 bytes");
    EXPECT_EQ(take(ta_request("", 201)), "command of 201 bytes");
    EXPECT_EQ(take(ta_request("", 200)), "none");
}

TEST(stand_ins, the_text_of_an_alarm_is_escaped) {
    std::vector<uint8_t> payload(sizeof(ws_alarm_pld));
    const std::string text = "a\x1B[2J\n\"\\\xFF~";
    std::copy(text.begin(), text.end(), payload.begin());
    msg_hdr hdr{};
    hdr.msg_id = WS_NOTIFY_ALARM_UPDATE;
    EXPECT_EQ(services_decode(hdr, payload),
              "request 810 from 0, alarm: \"a\\x1B[2J\\x0A\\x22\\x5C\\xFF~\" at "
              "1970-01-01T00:00:00Z");
}

} // namespace
} // namespace sim
