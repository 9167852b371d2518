// The TA's exchanges; the system tests have it and the other services on a real bus.
#include "decode.h"
#include "ls_messages.h"
#include "ta.h"

#include <gtest/gtest.h>

namespace sim {
namespace {

struct ta_unit : testing::Test {
    ta unit;
    ta_faults faults;

    // What is wrong with a request 1416: command at 1, answer at 201, length at 404.
    std::string take(const std::string &command, uint32_t txn = 1, size_t size = 412) {
        std::vector<uint8_t> payload(size);
        std::copy(command.begin(), command.end(), payload.begin() + 1);
        payload[404] = static_cast<uint8_t>(command.size());
        msg_hdr hdr{};
        hdr.txn_id = txn;
        std::string error;
        return ta_take_request(unit, hdr, payload, error) ? "nothing" : error;
    }
    std::string command(double now) {
        const auto next = ta_next_command(unit, now);
        return next ? std::string(next->begin(), next->end()) : "none";
    }
    void tell(const std::string &text, double now) {
        ta_take_answer(unit, std::vector<uint8_t>(text.begin(), text.end()), faults, now);
    }
    // Transaction, length and text of the replies that are due.
    std::string due(double now) {
        std::string all;
        for (const auto &[request, payload, at] : ta_due_replies(unit, faults, now))
            all += std::to_string(request.txn_id) + " " + std::to_string(payload.cmd_len) + " " +
                   reinterpret_cast<const char *>(payload.response) + "\n";
        return all;
    }
};

TEST_F(ta_unit, carries_one_exchange_at_a_time) {
    tell("$GPGGA*56", 0); // nobody asked
    EXPECT_EQ(take("$A*41", 7), "nothing");
    EXPECT_EQ(take("$B*42", 8), "nothing");
    tell("$GPGGA*56", 0); // still not on the line
    EXPECT_EQ(due(0), "");
    EXPECT_EQ(command(10), "$A*41");
    EXPECT_EQ(command(10), "none");
    tell("$a*61", 10.5);
    EXPECT_EQ(due(10.5), "7 5 $a*61\n");
    EXPECT_EQ(command(20), "$B*42");
    EXPECT_DOUBLE_EQ(ta_next_event(unit).value(), 23) << "the receiver is silent";
    EXPECT_EQ(due(22.99), "");
    EXPECT_EQ(due(23), "8 0 \n");
}

TEST_F(ta_unit, lengths) {
    EXPECT_EQ(take(std::string(200, '$')), "nothing");
    command(0);
    tell(std::string(201, 'x'), 0);
    EXPECT_EQ(due(0), "1 200 " + std::string(200, 'x') + "\n");
    EXPECT_EQ(take("$", 1, 411), "payload of 411 bytes");
    EXPECT_EQ(take(std::string(201, '$')), "command of 201 bytes");
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
