// Messages in, messages out: gate, dispatch, workers, handlers, replies.
#include "fake_platform.h"
#include "gps_message_handler.h"
#include "gps_service.h"
#include "ls_state.h"

#include <gtest/gtest.h>
#include <map>

namespace {

using fake::count_logged;

class message : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override { fake::reset(); } // frees what failed sends kept

    // Delivers a message and waits until all votes are returned.
    static int deliver(uint8_t type, uint32_t id, uint8_t from, std::vector<uint8_t> payload = {}) {
        bus_msg msg = fake::make_message(type, id, from, payload);
        return ls_hal_process_message(fake::connection(), &msg);
    }

    static int request(uint32_t id, uint8_t from, std::vector<uint8_t> payload = {}) {
        const int result = deliver(0, id, from, std::move(payload));
        EXPECT_TRUE(fake::wait_for_votes_returned());
        return result;
    }

    // A position without a receiver.
    static void static_location_on() {
        stub_location_on_g = 1;
        const std::string place = "5130.000,N,00007.500,W\n";
        for (size_t i = 0; i < place.size(); ++i)
            ls_stub_location_buf[i] = place[i];
    }

    static void expect_votes(int disabled, int enabled) {
        const fake::votes votes = fake::system_state_votes();
        EXPECT_EQ(votes.disabled, disabled);
        EXPECT_EQ(votes.enabled, enabled);
        EXPECT_EQ(votes.other, 0);
    }
};

TEST_F(message, missing_arguments_are_refused) {
    bus_msg msg = {};
    EXPECT_EQ(ls_hal_process_message(nullptr, &msg), -1);
    EXPECT_EQ(ls_hal_process_message(fake::connection(), nullptr), -1);
    EXPECT_EQ(count_logged(3, "s is a NULL POINTER!"), 1u);
    EXPECT_EQ(count_logged(3, "msg is a NULL POINTER!"), 1u);
    expect_votes(0, 0);
}

TEST_F(message, closed_gate_answers_requests_with_zeros_and_drops_the_rest) {
    gps_board_type_g = 2;
    EXPECT_EQ(deliver(0, 1003, 40), -1);
    EXPECT_EQ(deliver(1, 1416, 12, std::vector<uint8_t>(412)), -1);
    EXPECT_EQ(deliver(2, 201, 7, {1}), -1);
    const auto sent = fake::sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].hdr.msg_type, 1);
    EXPECT_EQ(sent[0].hdr.msg_id, 1003u);
    EXPECT_EQ(sent[0].hdr.dst_serv_id, 40);
    EXPECT_EQ(sent[0].hdr.txn_id, 77u);
    EXPECT_EQ(sent[0].payload, std::vector<uint8_t>(8, 0));
    EXPECT_EQ(count_logged(3, "gps req failed stub-loc-0 ant-type-0,board-type-2 "), 3u);
    expect_votes(0, 0);

    EXPECT_EQ(deliver(1, 407, 0), 0); // registration passes any gate
    EXPECT_EQ(count_logged(6, "Recived Registration response from SCM"), 1u);
    EXPECT_EQ(deliver(2, 1418, 12, {4, 0, 0, 0}), 0); // and so does what opens it
    EXPECT_EQ(antenna_type, 4);
    expect_votes(2, 2);
    EXPECT_EQ(request(1001, 40), 0);
    EXPECT_EQ(fake::wait_for_sent(2).back().as<ls_power_reply>().status, 1u);
}

TEST_F(message, unknown_types_and_ids_are_refused_with_their_vote_returned) {
    struct row {
        uint8_t type;
        uint32_t id;
        const char *text;
    };
    const row rows[] = {
        {3, 1003, "ls_hal_process_message, Invalid Message Type"},
        {255, 1003, "ls_hal_process_message, Invalid Message Type"},
        {1, 1003, "ls_hal_process_response_msg, Invalid Message Id 1003"},
        {2, 1003, "ls_hal_process_notification_msg, Invalid Message Id"},
        {0, 1010, "ls_process_thread_req, Invalid Message Id"},
        {0, 4711, "ls_process_thread_req, Invalid Message Id"},
    };
    for (const row &r : rows) {
        fake::reset();
        EXPECT_EQ(deliver(r.type, r.id, 40), r.type == 0 ? 0 : -1) << r.text;
        EXPECT_TRUE(fake::wait_for_votes_returned());
        EXPECT_EQ(count_logged(3, r.text), 1u) << r.text;
        EXPECT_TRUE(fake::sent().empty());
        expect_votes(1, 1);
    }
}

TEST_F(message, cfun_level_1_announces_lpp_only_while_the_stored_status_is_on) {
    fake::database().power_on_status = 0;
    EXPECT_EQ(deliver(2, 201, 7, {1}), 0);
    fake::database().power_on_status = 2;
    EXPECT_EQ(deliver(2, 201, 7, {4, 99}), 0);
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(gps_cfun_level_g, 4u);
    EXPECT_EQ(deliver(2, 201, 7, {1}), 0);
    const auto sent = fake::sent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].hdr.msg_type, 0);
    EXPECT_EQ(sent[0].hdr.msg_id, 18u);
    EXPECT_EQ(sent[0].hdr.dst_serv_id, 2);
    EXPECT_EQ(sent[0].payload, (std::vector<uint8_t>{1, 0}));
    fake::set_send_result(-1);
    EXPECT_EQ(deliver(2, 201, 7, {1}), 0);
    EXPECT_EQ(count_logged(3, "Error while sending response ls_hal_send_lpp_capabilites"), 1u);
    EXPECT_EQ(deliver(1, 18, 2), 0);
    EXPECT_EQ(count_logged(6, "Recived response from SAL : Message Id  18"), 1u);
}

TEST_F(message, short_payloads_change_nothing) {
    antenna_type = 9;
    EXPECT_EQ(deliver(2, 1418, 12), -1);
    EXPECT_EQ(deliver(2, 1418, 12, {4, 0, 0}), -1);
    EXPECT_EQ(antenna_type, 9);
    EXPECT_EQ(deliver(2, 201, 7), -1);
    EXPECT_EQ(gps_cfun_level_g, 0u);
    EXPECT_EQ(deliver(1, 1416, 12), -1);
    EXPECT_EQ(count_logged(3, "msg->pld is a NULL POINTER!"), 4u);
    expect_votes(4, 4);

    // A length without bytes is no payload; the request itself needs none.
    bus_msg msg = {};
    msg.hdr = {.msg_type = 0,
               .reserved0 = 0,
               .src_serv_id = 40,
               .dst_serv_id = 8,
               .msg_id = 1001,
               .txn_id = 5,
               .pld_len = 4000,
               .reserved1 = 0};
    EXPECT_EQ(ls_hal_process_message(fake::connection(), &msg), 0);
    EXPECT_EQ(fake::wait_for_sent(1).back().payload.size(), 8u);
    EXPECT_TRUE(fake::wait_for_votes_returned());
}

TEST_F(message, while_the_receiver_is_off_only_power_requests_are_served) {
    mt_gps_status = 0;
    gps_current_power_mode_g = 0;
    for (const uint32_t id : {1003u, 1004u, 1011u}) {
        EXPECT_EQ(request(id, 5), -1);
        EXPECT_TRUE(fake::sent().empty());
    }
    EXPECT_EQ(count_logged(3, "unable to process gps request"), 3u);
    expect_votes(3, 3);
    EXPECT_EQ(request(1001, 5), 0);
    const auto sent = fake::wait_for_sent(1);
    EXPECT_EQ(sent[0].payload, (std::vector<uint8_t>{1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(count_logged(7, "Case LS_REQUEST_GET_POWER_MODE\n"), 1u);
}

TEST_F(message, position_reply_to_the_byte) {
    static_location_on();
    EXPECT_EQ(request(1003, 40, {9, 9, 9}), 0); // a payload nobody asked for does no harm
    const auto sent = fake::wait_for_sent(1);
    ASSERT_EQ(sent[0].payload.size(), 80u);
    EXPECT_EQ(sent[0].hdr.msg_id, 1003u);
    EXPECT_EQ(sent[0].hdr.txn_id, 77u);
    const std::vector<uint8_t> literal = {
        1,    0,    0,    0,    0,    0,    0,    0,                      // status, alignment
        10,   51,   5,    0,    0,    0,    5,    2,    0xE3, 0x07, 0, 0, // 10:51:05.000, 5.2.2019
        0,    0,    0,    0,                                              //
        0,    0,    0,    0,    0,    0xC0, 0x49, 0x40,                   // 51.5
        'N',  0,    0,    0,    0,    0,    0,    0,                      //
        0,    0,    0,    0,    0,    0,    0xC0, 0x3F,                   // 0.125
        'W',  0,    0,    0,    1,    0,    0,    0,                      // west, 3D
        0,    0,    0x50, 0x40, 0,    0,    0,    0,                      // 3.25 m
        0x33, 0x33, 0x33, 0x33, 0x33, 0x0B, 0x81, 0x40,                   // 545.4 m
        0,    0,    0xA8, 0x40, 8,    0,    0,    0,                      // 5.25 m, 8 satellites
    };
    EXPECT_EQ(sent[0].payload, literal);
    EXPECT_EQ(count_logged(6, "removing "), 1u);
    EXPECT_EQ(count_logged(6, "8 1003 40 77"), 1u);
}

TEST_F(message, a_failed_position_is_zeros_behind_status_0) {
    gps_board_type_g = 3; // no way to a receiver
    antenna_type = 4;
    EXPECT_EQ(request(1003, 40), 0);
    EXPECT_EQ(fake::wait_for_sent(1)[0].payload, std::vector<uint8_t>(80, 0));
    EXPECT_EQ(request(1004, 40), 0);
    EXPECT_EQ(fake::wait_for_sent(2)[1].payload, std::vector<uint8_t>(20, 0));
    EXPECT_EQ(pending_req_count, 0);
}

// The TA's answers by poll; what the reply of board type 2 is made of.
void answer_as_ta(const fake::sent_message &sent,
                  const std::map<std::string, std::string> &answers) {
    if (sent.hdr.msg_id != 1416)
        return;
    const std::string command(reinterpret_cast<const char *>(sent.payload.data() + 1));
    gps_data_req_pld pld = {};
    const auto found = answers.find(command.substr(1, command.find('*') - 1));
    if (found != answers.end()) {
        found->second.copy(reinterpret_cast<char *>(pld.response), sizeof(pld.response));
        pld.cmd_len = static_cast<uint32_t>(found->second.size());
    }
    std::vector<uint8_t> bytes(sizeof(pld));
    memcpy(bytes.data(), &pld, sizeof(pld));
    bus_msg msg = fake::make_message(1, 1416, 12, bytes);
    ls_hal_process_message(fake::connection(), &msg);
}

TEST_F(message, time_reply_needs_both_answers) {
    gps_board_type_g = 2;
    antenna_type = 4;
    std::map<std::string, std::string> answers = {
        {"GPGPQ,ZDA", "$GPZDA,082710.00,16,09,2002,00,00*64\r\n"},
        {"PUBX,04", "$PUBX,04,1,2,113851.00*39\r\n"},
    };
    fake::on_send([&](const fake::sent_message &sent) { answer_as_ta(sent, answers); });
    EXPECT_EQ(request(1004, 40), 0);
    const std::vector<uint8_t> literal = {1,  0, 0,    0,    8, 27, 10,   0,    0, 0,
                                          16, 9, 0xD2, 0x07, 0, 0,  0xBB, 0xBC, 1, 0};
    EXPECT_EQ(fake::wait_for_sent(3).back().payload, literal);

    answers.erase("PUBX,04"); // the time stays, the status says failed
    EXPECT_EQ(request(1004, 40), 0);
    std::vector<uint8_t> failed = literal;
    failed[0] = failed[16] = failed[17] = failed[18] = 0;
    EXPECT_EQ(fake::wait_for_sent(6).back().payload, failed);

    answers.erase("GPGPQ,ZDA"); // the time of week is not even asked for
    EXPECT_EQ(request(1004, 40), 0);
    EXPECT_EQ(fake::wait_for_sent(8).back().payload, std::vector<uint8_t>(20, 0));
    EXPECT_EQ(fake::sent().size(), 8u);
}

TEST_F(message, a_young_position_is_served_again_on_board_2) {
    gps_board_type_g = 2;
    static_location_on();
    gps_pos_data pos = {};
    EXPECT_EQ(gps_get_pos(&pos), 0);
    stub_location_on_g = 0;
    antenna_type = 4;
    EXPECT_EQ(request(1003, 40), 0);
    auto sent = fake::wait_for_sent(1);
    ASSERT_EQ(sent.size(), 1u); // no 1416 went out
    EXPECT_EQ(sent[0].as<ls_position_reply>().status, 1u);
    EXPECT_DOUBLE_EQ(sent[0].as<ls_position_reply>().pos.latitude, 51.5);
    EXPECT_EQ(count_logged(6, "ls_hal_get_position: Sending buffered position data"), 1u);

    gps_get_pos(nullptr); // its failure is served with the record
    EXPECT_EQ(request(1003, 40), 0);
    sent = fake::wait_for_sent(2);
    EXPECT_EQ(sent[1].as<ls_position_reply>().status, 0u);
    EXPECT_DOUBLE_EQ(sent[1].as<ls_position_reply>().pos.latitude, 51.5);
}

TEST_F(message, a_reply_that_cannot_be_sent_is_logged) {
    static_location_on();
    fake::set_send_result(-1);
    EXPECT_EQ(request(1003, 40), 0);
    EXPECT_EQ(count_logged(3, "Error while sending response"), 1u);
    bus_msg msg = {};
    EXPECT_EQ(ls_send_response(nullptr, &msg, nullptr, 0, 0), -1);
    EXPECT_EQ(ls_send_response(fake::connection(), nullptr, nullptr, 0, 0), -1);
}

// Every client gets the reply to its own request, however many are under way.
TEST_F(message, concurrent_requests_get_their_own_replies) {
    static_location_on();
    constexpr uint32_t requests = 200;
    for (uint32_t txn = 0; txn < requests; ++txn) {
        std::vector<uint8_t> payload = {1, 2, 3};
        bus_msg msg = fake::make_message(0, 1003, static_cast<uint8_t>(32 + txn % 8), payload, txn);
        EXPECT_EQ(ls_hal_process_message(fake::connection(), &msg), 0);
        payload.assign(3, 0xFF); // the bus takes its buffer back
    }
    const auto sent = fake::wait_for_sent(requests);
    EXPECT_TRUE(fake::wait_for_votes_returned());
    std::map<uint32_t, int> replies;
    for (const fake::sent_message &reply : sent) {
        EXPECT_EQ(reply.hdr.dst_serv_id, 32 + reply.hdr.txn_id % 8);
        ++replies[reply.hdr.txn_id];
    }
    EXPECT_EQ(replies.size(), requests);
}

} // namespace
