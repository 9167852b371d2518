// Messages in, messages out: gate, dispatch, workers, handlers, replies.
#include "daemon_fixture.h"
#include "gps_message_handler.h"
#include "gps_service.h"

namespace {

using message = daemon_fixture;
using fake::votes;

TEST_F(message, closed_gate_answers_requests_with_zeros_and_drops_the_rest) {
    gps_board_type_g = 2;
    EXPECT_EQ(fake::deliver(0, 1003, 40), -1);
    EXPECT_EQ(fake::deliver(2, 201, 7, {1}), -1);
    EXPECT_EQ(told(fake::sent()), "1 1003>40 0000000000000000");
    EXPECT_EQ(fake::sent().back().hdr.txn_id, 77u);
    EXPECT_EQ(fake::system_state_votes(), (votes{0, 0}));

    EXPECT_EQ(fake::deliver(1, 407, 0), 0);                 // registration passes any gate
    EXPECT_EQ(fake::deliver(2, 1418, 12, {4, 0, 0, 0}), 0); // and so does what opens it
    EXPECT_EQ(antenna_type, 4);
    EXPECT_EQ(fake::system_state_votes(), (votes{2, 2}));
    EXPECT_EQ(serve(1001).at(0).payload, (bytes{1, 0, 0, 0, 2, 0, 0, 0}));
    EXPECT_EQ(fake::deliver(2, 201, 7, {0}), 0);
}

TEST_F(message, what_it_does_not_know_is_refused_with_its_vote_returned) {
    const struct {
        uint8_t type;
        uint32_t id;
        bytes payload;
        const char *text;
    } rows[] = {
        {255, 1003, {}, "ls_hal_process_message, Invalid Message Type"},
        {1, 1003, {}, "ls_hal_process_response_msg, Invalid Message Id 1003"},
        {2, 1003, {}, "ls_hal_process_notification_msg, Invalid Message Id"},
        {0, 4711, {}, "ls_process_thread_req, Invalid Message Id"},
        {2, 1418, {4, 0, 0}, "msg->pld is a NULL POINTER!"},
        {2, 201, {}, "msg->pld is a NULL POINTER!"},
        {1, 1416, {}, "msg->pld is a NULL POINTER!"},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.text);
        fake::reset();
        EXPECT_EQ(fake::deliver(r.type, r.id, 40, r.payload), r.type == 0 ? 0 : -1);
        EXPECT_TRUE(fake::wait_for_votes_returned());
        EXPECT_EQ(errors(r.text), 1u);
        EXPECT_TRUE(fake::sent().empty());
        EXPECT_EQ(antenna_type, 0);
        EXPECT_EQ(fake::system_state_votes(), (votes{1, 1}));
    }
    // A length without bytes is no payload; the request itself needs none.
    bus_msg msg = {{0, 0, 40, 8, 1001, 5, 4000, 0}, nullptr};
    EXPECT_EQ(ls_hal_process_message(fake::connection(), &msg), 0);
    EXPECT_EQ(fake::wait_for_sent(1).back().payload.size(), 8u);
    EXPECT_TRUE(fake::wait_for_votes_returned());
}

TEST_F(message, while_the_receiver_is_off_only_power_requests_are_served) {
    mt_gps_status = 0;
    gps_current_power_mode_g = 0;
    for (const uint32_t id : {1003u, 1004u, 1011u})
        EXPECT_EQ(fake::deliver(0, id, 5), -1) << id;
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(fake::system_state_votes(), (votes{3, 3}));
    EXPECT_EQ(serve(1001, 5).at(0).payload, (bytes{1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(message, a_failing_query_leaves_nothing_but_zeros) {
    gps_board_type_g = 3; // no way to a receiver
    antenna_type = 4;
    EXPECT_EQ(serve(1003).at(0).payload, bytes(80)); // zeros behind status 0
    EXPECT_EQ(serve(1004).at(0).payload, bytes(20));
    EXPECT_EQ(pending_req_count, 0);
}

TEST_F(message, a_young_position_is_served_again_on_board_2) {
    gps_board_type_g = 2;
    static_location_on();
    gps_pos_data pos = {};
    EXPECT_EQ(gps_get_pos(&pos), 0);
    stub_location_on_g = 0;
    antenna_type = 4;
    for (const uint32_t status : {1u, 0u}) {
        const auto sent = serve(1003);
        ASSERT_EQ(sent.size(), 1u); // no 1416 went out
        EXPECT_EQ(sent[0].as<ls_position_reply>().status, status);
        EXPECT_DOUBLE_EQ(sent[0].as<ls_position_reply>().pos.latitude, 51.5);
        gps_get_pos(nullptr); // its failure is served with the record
    }
    gps_pos_buffer_time = 0; // not even the same second is younger than this
    rffe_req_sem_wait_time = 0;
    EXPECT_EQ(serve(1003).at(0).hdr.msg_id, 1416u);
}

} // namespace
