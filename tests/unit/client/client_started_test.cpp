// The client library's requests that are started and taken: the descriptor, the tickets, and both
// forms from several threads at once, which the thread sanitizer watches.
#include "fake_bus.h"
#include "location_client.hpp"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>
#include <poll.h>

namespace {

constexpr int64_t LONG_MS = 60000; // not reached

struct client_started_test : testing::Test {
    location_client_owner owner;
    location_client *client = nullptr;
    gps_pos_data position{};
    uint32_t mode = 9;

    void SetUp() override {
        fake_reset();
        ASSERT_EQ(location_client_open(40, owner), LOCATION_ANSWERED);
        client = owner.get();
    }
    bool readable(int timeout_ms = 0) const {
        pollfd polled{location_client_fd(client), POLLIN, 0};
        return poll(&polled, 1, timeout_ms) == 1;
    }
    uint32_t start_position(int64_t timeout_ms = LONG_MS) const {
        uint32_t ticket = 0;
        EXPECT_EQ(location_client_start_position(client, timeout_ms, &ticket), LOCATION_ANSWERED);
        return ticket;
    }
    static void wait_for_sent(uint32_t msg_id, size_t count) {
        while (fake_sent(msg_id).size() < count)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
};

TEST_F(client_started_test, a_result_is_there_until_it_is_taken) {
    const uint32_t ticket = start_position();
    wait_for_sent(LS_REQUEST_GET_POSITION, 1);
    EXPECT_FALSE(readable());
    EXPECT_EQ(location_client_take_position(client, ticket, &position), LOCATION_PENDING);
    fake_reply(fake_sent(LS_REQUEST_GET_POSITION).at(0).hdr, padded({1}, 80, {8}, 76));
    EXPECT_TRUE(readable(LONG_MS));
    EXPECT_EQ(location_client_next_ticket(client), ticket);
    EXPECT_EQ(location_client_take_power(client, ticket, &mode), LOCATION_BAD_ARGUMENT);
    EXPECT_EQ(location_client_take_position(client, ticket, &position), LOCATION_ANSWERED);
    EXPECT_EQ(position.num_satellites, 8);
    EXPECT_EQ(location_client_take_position(client, ticket, &position), LOCATION_BAD_ARGUMENT);
    EXPECT_FALSE(readable());
    EXPECT_EQ(location_client_next_ticket(client), 0U);
    // An update makes it readable, too.
    fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, padded({1}, 80));
    EXPECT_TRUE(readable());
    ls_position_reply update;
    EXPECT_EQ(location_client_next_update(client, 0, &update), LOCATION_ANSWERED);
    EXPECT_FALSE(readable());
}

TEST_F(client_started_test, what_fails_ends_by_itself_and_says_why) {
    fake.service = [](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_GET_POWER_MODE)
            fake_reply(m.hdr, {1, 0, 0, 0, 0, 0, 0, 0});
    };
    const uint32_t off = start_position(), late = start_position(30);
    EXPECT_TRUE(readable(LONG_MS));
    EXPECT_EQ(location_client_next_ticket(client), late);
    EXPECT_EQ(location_client_take_position(client, late, &position), LOCATION_NO_REPLY);
    EXPECT_TRUE(readable(LONG_MS));
    EXPECT_EQ(location_client_take_position(client, off, &position), LOCATION_RECEIVER_OFF);
    fake.send_errno = ENOENT;
    const uint32_t unsent = start_position();
    EXPECT_TRUE(readable(LONG_MS));
    EXPECT_EQ(location_client_take_position(client, unsent, &position), LOCATION_NO_DAEMON);
    fake.send_errno = 0;
    uint32_t ticket = 9;
    EXPECT_EQ(location_client_start_nmea(client, LONG_MS, "A*00", &ticket), LOCATION_BAD_ARGUMENT);
    EXPECT_EQ(ticket, 0U);
}

TEST_F(client_started_test, eight_at_once_and_an_abandoned_one_makes_room) {
    uint32_t ticket = 0;
    for (int i = 0; i < LOCATION_CLIENT_MAX_STARTED; ++i)
        ticket = start_position();
    wait_for_sent(LS_REQUEST_GET_POSITION, LOCATION_CLIENT_MAX_STARTED);
    uint32_t more = 9;
    EXPECT_EQ(location_client_start_speed(client, LONG_MS, &more), LOCATION_TOO_MANY);
    location_client_abandon(client, ticket);
    EXPECT_EQ(location_client_take_position(client, ticket, &position), LOCATION_BAD_ARGUMENT);
    while (location_client_start_speed(client, LONG_MS, &more) == LOCATION_TOO_MANY)
        std::this_thread::yield();
    EXPECT_FALSE(readable());
    location_client_cancel(client);
    EXPECT_TRUE(readable(LONG_MS));
    location_client_resume(client);
    location_client_abandon(client, location_client_next_ticket(client));
    start_position(); // and the client closes with it under way
}

TEST_F(client_started_test, both_forms_from_several_threads) {
    fake.service = [](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_GET_POSITION)
            std::thread([m] { fake_reply(m.hdr, padded({1}, 80, {1}, 76)); }).join();
        else
            fake_reply(m.hdr, {1, 0, 0, 0, 2, 0, 0, 0});
        fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, padded({1}, 80));
    };
    constexpr int rounds = 100;
    std::thread waits([&] {
        ls_position_reply update;
        for (int i = 0; i < rounds; ++i) {
            uint32_t now = 0;
            EXPECT_EQ(location_client_get_power(client, LONG_MS, &now), LOCATION_ANSWERED);
            EXPECT_EQ(now, GPS_POWER_ON);
            EXPECT_EQ(location_client_next_update(client, LONG_MS, &update), LOCATION_ANSWERED);
        }
    });
    for (int i = 0; i < rounds; ++i) {
        const uint32_t first = start_position(), second = start_position();
        if (i % 3 == 0)
            location_client_abandon(client, second);
        location_result result = LOCATION_PENDING;
        while (result == LOCATION_PENDING && readable(LONG_MS))
            result = location_client_take_position(client, first, &position);
        EXPECT_EQ(result, LOCATION_ANSWERED);
        while (i % 3 != 0 &&
               location_client_take_position(client, second, &position) == LOCATION_PENDING)
            readable(1);
        EXPECT_EQ(position.num_satellites, 1);
    }
    waits.join();
}

} // namespace
