// What the client library receives unasked: position updates and, as SAL, the LPP record. And the
// end of a wait by cancelling it.
#include "fake_bus.h"
#include "location_client.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

namespace {

using is = location_result;
using std::chrono::milliseconds;

constexpr milliseconds LONG{5000};

struct client_updates : testing::Test {
    location_client *client = nullptr;

    void open(uint8_t serv_id) {
        fake_reset();
        ASSERT_EQ(location_client_open(serv_id, &client), is::answered);
    }
    void TearDown() override { location_client_close(client); }
};

bytes update(uint8_t satellites) {
    bytes payload(80);
    payload[0] = 1;
    payload[76] = satellites;
    return payload;
}

TEST_F(client_updates, registration_travels_and_is_answered) {
    open(40);
    uint8_t result = 1;
    fake.service = [&result](const sent_message &m) { fake_reply(m.hdr, {result, 0, 0, 0}); };
    EXPECT_EQ(location_client_register_periodic(client, LONG, 900, 4), is::answered);
    EXPECT_EQ(fake_sent(1007).at(0).payload, (bytes{0x84, 3, 0, 0, 4, 0, 0, 0}));
    EXPECT_EQ(location_client_unregister_periodic(client, LONG), is::answered);
    EXPECT_TRUE(fake_sent(1009).at(0).payload.empty());
    result = 0;
    EXPECT_EQ(location_client_register_periodic(client, LONG, 1, 4), is::failed);
    EXPECT_EQ(location_client_unregister_periodic(client, LONG), is::failed);
}

TEST_F(client_updates, come_in_order_and_the_oldest_gives_way) {
    open(40);
    ls_position_reply got;
    for (uint8_t i = 1; i <= 66; ++i) {
        fake_send(LS_MSG_NOTIFICATION, 1010, update(i));
    }
    for (uint8_t i = 3; i <= 66; ++i) {
        ASSERT_EQ(location_client_next_update(client, milliseconds(0), &got), is::answered);
        EXPECT_EQ(got.pos.num_satellites, i);
    }
    EXPECT_EQ(location_client_next_update(client, milliseconds(0), &got), is::no_reply);
    EXPECT_EQ(location_client_lost_updates(client), 2U);
}

TEST_F(client_updates, only_whole_updates_of_the_service_count) {
    open(40);
    fake_send(LS_MSG_NOTIFICATION, 1010, bytes(79));
    fake_send(LS_MSG_NOTIFICATION, 1010, bytes(81));
    fake_send(LS_MSG_NOTIFICATION, 1014, update(1));
    fake_send(LS_MSG_REQUEST, 1010, update(1));
    fake_deliver({LS_MSG_NOTIFICATION, 0, 6, 40, 1010, 1, 80, 0}, update(1)); // of service 6
    ls_position_reply got;
    EXPECT_EQ(location_client_next_update(client, milliseconds(0), &got), is::no_reply);
    EXPECT_EQ(location_client_lost_updates(client), 2U);
}

TEST_F(client_updates, lpp_is_asked_by_notification_and_answered_by_request) {
    open(LS_SERV_SAL);
    bytes record(24);
    record[0] = 1;                            // south
    record[11] = 70;                          // confidence
    record[16] = 0x05;                        // latitude
    fake_send(LS_MSG_REQUEST, 19, bytes(24)); // nobody asked yet
    fake.service = [&record](const sent_message &) {
        fake_send(LS_MSG_REQUEST, 19, bytes(23)); // not a record
        fake_send(LS_MSG_REQUEST, 19, record);
    };
    gps_lpp_location lpp;
    ASSERT_EQ(location_client_get_lpp(client, LONG, &lpp), is::answered);
    EXPECT_TRUE(lpp.latitude_sign == 1 && lpp.confidence == 70 && lpp.degrees_latitude == 5);
    EXPECT_EQ(fake_sent(208).at(0).hdr.msg_type, LS_MSG_NOTIFICATION);
    EXPECT_EQ(fake_sent(208).at(0).payload, bytes(24));
    // The record of the last time does not answer the next question.
    fake.service = nullptr;
    EXPECT_EQ(location_client_get_lpp(client, milliseconds(30), &lpp), is::no_reply);
    EXPECT_EQ(lpp.confidence, 0);
}

TEST_F(client_updates, cancelling_ends_the_wait_until_resumed) {
    open(40);
    ls_position_reply got;
    std::thread canceller([this] {
        std::this_thread::sleep_for(milliseconds(20));
        location_client_cancel(client);
    });
    EXPECT_EQ(location_client_next_update(client, LONG, &got), is::cancelled);
    canceller.join();
    uint32_t mode = 0;
    EXPECT_EQ(location_client_get_power(client, LONG, &mode), is::cancelled);
    location_client_resume(client);
    EXPECT_EQ(location_client_get_power(client, milliseconds(20), &mode), is::no_reply);
}

} // namespace
