// The client library: what goes on the bus, which replies and updates are taken, the result for
// each way a request can fail; the descriptor and the tickets of what is started; and both forms
// from several threads at once, which the thread sanitizer watches.
#include "fake_bus.h"
#include "location_client.hpp"

#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>
#include <poll.h>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds NONE{0};
constexpr milliseconds SHORT{40};    // for replies that never come; below the power probe
constexpr milliseconds PROBED{3000}; // long enough for it
constexpr milliseconds LONG{60000};  // not reached

bytes position_reply(uint8_t satellites = 8) {
    return padded({1}, 80, {satellites}, 76);
}

struct client_test : testing::Test {
    location_client_owner owner;
    location_client *client = nullptr;
    gps_pos_data position{};
    uint32_t mode = 9;

    void SetUp() override {
        fake_reset();
        open(40);
    }
    location_result open(uint8_t serv_id) {
        owner.reset(); // the bus knows one at a time
        const location_result result = location_client_open(serv_id, owner);
        client = owner.get();
        return result;
    }
    bool readable(milliseconds timeout = NONE) const {
        pollfd polled{location_client_fd(client), POLLIN, 0};
        return poll(&polled, 1, static_cast<int>(timeout.count())) == 1;
    }
    static uint32_t start_position(location_client *asking, milliseconds timeout = LONG) {
        uint32_t ticket = 0;
        EXPECT_EQ(location_client_start_position(asking, timeout, &ticket), LOCATION_ANSWERED);
        return ticket;
    }
    // Waits until it is over.
    location_result take_position(location_client *asking, uint32_t ticket) {
        location_result result;
        while ((result = location_client_take_position(asking, ticket, &position)) ==
               LOCATION_PENDING)
            std::this_thread::sleep_for(milliseconds(1));
        return result;
    }
    static void wait_for_sent(uint32_t msg_id, size_t count) {
        while (fake_sent(msg_id).size() < count)
            std::this_thread::sleep_for(milliseconds(2));
    }
};

TEST_F(client_test, opening_and_sending_report_why_they_failed) {
    const struct {
        int error;
        location_result opening, sending;
    } rows[] = {{ENOENT, LOCATION_NO_BUS, LOCATION_NO_DAEMON},
                {EADDRINUSE, LOCATION_ID_TAKEN, LOCATION_BUS_ERROR},
                {EACCES, LOCATION_BUS_DENIED, LOCATION_BUS_DENIED},
                {ECONNREFUSED, LOCATION_BUS_ERROR, LOCATION_NO_DAEMON},
                {EAGAIN, LOCATION_BUS_ERROR, LOCATION_BUS_FULL}};
    for (const auto &row : rows) {
        fake.send_errno = row.error;
        EXPECT_EQ(location_client_get_position(client, LONG, &position), row.sending) << row.error;
        fake.init_errno[5] = row.error;
        auto *other = reinterpret_cast<location_client *>(1);
        EXPECT_EQ(location_client_open(5, &other), row.opening) << row.error;
        EXPECT_EQ(other, nullptr);
    }
    EXPECT_EQ(open(LS_OWN_SERV_ID), LOCATION_BAD_ARGUMENT);
}

TEST_F(client_test, takes_the_first_free_tool_id) {
    fake.init_errno = {{32, EADDRINUSE}, {33, EACCES}, {34, EIO}, {35, EBUSY}};
    EXPECT_EQ(open(0), LOCATION_ANSWERED);
    EXPECT_EQ(location_client_serv_id(client), 36);
    fake.init_errno = {{-1, EBUSY}, {31, 0}, {64, 0}};
    EXPECT_EQ(open(0), LOCATION_BUS_LOCKED);
    fake.init_errno = {{-1, EADDRINUSE}, {31, 0}, {63, EACCES}, {64, 0}};
    EXPECT_EQ(open(0), LOCATION_IDS_EXHAUSTED);
    fake.init_errno = {{-1, ENOENT}};
    EXPECT_EQ(open(0), LOCATION_NO_BUS);
}

TEST_F(client_test, only_a_whole_reply_of_its_own_is_taken) {
    const struct {
        const char *name;
        std::function<void(msg_hdr &, bytes &)> spoil;
        location_result result;
    } rows[] = {
        {"untouched", [](msg_hdr &, bytes &) {}, LOCATION_ANSWERED},
        {"other transaction", [](msg_hdr &h, bytes &) { ++h.txn_id; }, LOCATION_NO_REPLY},
        {"other message", [](msg_hdr &h, bytes &) { h.msg_id = 1004; }, LOCATION_NO_REPLY},
        {"other service", [](msg_hdr &h, bytes &) { h.src_serv_id = 12; }, LOCATION_NO_REPLY},
        {"not a response", [](msg_hdr &h, bytes &) { h.msg_type = 0; }, LOCATION_NO_REPLY},
        {"status 0", [](msg_hdr &, bytes &b) { b[0] = 0; }, LOCATION_FAILED},
        {"status 2", [](msg_hdr &, bytes &b) { b[0] = 2; }, LOCATION_RECEIVER_TIMEOUT},
        {"empty", [](msg_hdr &, bytes &b) { b.clear(); }, LOCATION_BAD_REPLY},
        {"one byte short", [](msg_hdr &, bytes &b) { b.resize(79); }, LOCATION_BAD_REPLY},
        {"far too long", [](msg_hdr &, bytes &b) { b.resize(400); }, LOCATION_BAD_REPLY},
        {"gate", [](msg_hdr &, bytes &b) { b.assign(8, 0); }, LOCATION_GATE_CLOSED},
        {"almost the gate", [](msg_hdr &, bytes &b) { b = padded({}, 8, {1}, 7); },
         LOCATION_BAD_REPLY},
    };
    for (const auto &row : rows) {
        fake.service = [&row](const sent_message &m) {
            msg_hdr hdr = m.hdr;
            bytes reply = position_reply();
            hdr.msg_type = LS_MSG_RESPONSE;
            hdr.src_serv_id = LS_OWN_SERV_ID;
            row.spoil(hdr, reply);
            fake_deliver(hdr, reply);
            fake_deliver(hdr, position_reply(9)); // a second reply changes nothing
        };
        EXPECT_EQ(location_client_get_position(client, SHORT, &position), row.result) << row.name;
        EXPECT_EQ(position.num_satellites, row.result == LOCATION_ANSWERED ? 8 : 0) << row.name;
    }
}

TEST_F(client_test, a_silent_service_is_asked_for_its_power_mode) {
    static thread_local uint8_t told; // each request asks on its own thread
    told = GPS_POWER_OFF;
    fake.service = [](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_GET_POWER_MODE)
            fake_reply(m.hdr, {1, 0, 0, 0, told, 0, 0, 0});
    };
    // Behind an answer to these the service switches a receiver off, unless something is asked.
    location_client_owner sal, voip;
    location_client_open(LS_SERV_SAL, sal);
    location_client_open(LS_SERV_VOIP, voip);
    open(40); // the last one gets what is sent
    const uint32_t of_sal = start_position(sal.get(), PROBED);
    const uint32_t of_voip = start_position(voip.get(), PROBED);
    const uint32_t off = start_position(client);
    uint32_t late = 0;
    location_client_start_speed(client, LONG, &late);
    auto busy = std::async(std::launch::async, [this] {
        told = GPS_POWER_ON;
        gps_pos_data got;
        return location_client_get_position(client, PROBED, &got);
    });
    // A query of a slow line is not doubled.
    std::this_thread::sleep_for(milliseconds(700));
    EXPECT_TRUE(fake_sent(LS_REQUEST_GET_POWER_MODE).empty());
    // An answer that follows the word of an off receiver still counts.
    wait_for_sent(LS_REQUEST_GET_POWER_MODE, 3);
    std::this_thread::sleep_for(milliseconds(20));
    fake_reply(fake_sent(LS_REQUEST_GET_SPEED).at(0).hdr, padded({1}, sizeof(ls_speed_reply)));
    EXPECT_EQ(take_position(client, off), LOCATION_RECEIVER_OFF);
    gps_speed_data speed;
    EXPECT_EQ(location_client_take_speed(client, late, &speed), LOCATION_ANSWERED);
    EXPECT_EQ(busy.get(), LOCATION_RECEIVER_BUSY);
    EXPECT_EQ(take_position(sal.get(), of_sal), LOCATION_NO_REPLY);
    EXPECT_EQ(take_position(voip.get(), of_voip), LOCATION_NO_REPLY);
    EXPECT_EQ(fake_sent(LS_REQUEST_GET_POWER_MODE).size(), 3U);
}

TEST_F(client_test, a_time_out_counts_from_the_call) {
    const milliseconds held_up{1000}; // by a full queue
    fake.service = [&](const sent_message &) { std::this_thread::sleep_for(held_up); };
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(location_client_get_power(client, held_up, &mode), LOCATION_NO_REPLY);
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(1800));
    // Nor is there a second more for the second request of a failed change.
    fake.service = [](const sent_message &m) {
        if (m.hdr.msg_id == 1002)
            fake_reply(m.hdr, bytes(8));
    };
    const auto second = std::chrono::steady_clock::now();
    EXPECT_EQ(location_client_set_power(client, SHORT, 2, &mode), LOCATION_NO_REPLY);
    EXPECT_LT(std::chrono::steady_clock::now() - second, milliseconds(900));
}

TEST_F(client_test, nmea_travels_as_its_body) {
    const bytes reply = padded(padded({1}, 284, {'$'}, 84), 284, {'x'}, 283);
    fake.service = [&reply](const sent_message &m) {
        fake_reply(m.hdr, reply); // of another command
        always(reply)(m);
    };
    location_client_answer answer;
    const std::string longest(79, 'A');
    EXPECT_EQ(location_client_exec_nmea(client, LONG, longest, &answer), LOCATION_ANSWERED);
    EXPECT_TRUE(answer[0] == '$' && answer[199] == 'x');
    EXPECT_EQ(fake_sent(1011).at(0).payload, padded({}, 284, bytes(79, 'A'), 4));
    for (const std::string &bad : {longest + "A", std::string("GPGGA*47")}) {
        uint32_t ticket = 9;
        EXPECT_EQ(location_client_exec_nmea(client, LONG, bad, &answer), LOCATION_BAD_ARGUMENT);
        EXPECT_EQ(location_client_start_nmea(client, LONG, bad, &ticket), LOCATION_BAD_ARGUMENT);
        EXPECT_EQ(ticket, 0U) << bad;
    }
}

TEST_F(client_test, a_frame_has_to_be_one_and_to_fit_as_text) {
    location_client_answer answer;
    const bytes bad_frames[] = {{0xB5, 0x62, 6, 8, 0, 0, 0},
                                {0xB5, 0x62, 6, 8, 0, 0, 0, 0, 0}, // length too small
                                {0xB5, 0x62, 6, 8, 1, 0, 0, 0}};   // length too large
    for (const bytes &bad : bad_frames)
        EXPECT_EQ(location_client_exec_ubx(client, LONG, bad, &answer), LOCATION_BAD_ARGUMENT);
    // 79 characters: bytes of two digits each, of one digit each.
    std::array<char, 80> text{};
    EXPECT_EQ(location_client_ubx_text(bytes(26, 0xAA), &text), 77U);
    EXPECT_EQ(location_client_ubx_text(bytes(27, 0xAA), &text), 0U);
    EXPECT_EQ(location_client_ubx_text(bytes(40, 0x0A), &text), 79U);
}

TEST_F(client_test, history_path_ends_within_its_field_whatever_arrives) {
    const bytes sent = padded({}, 104, bytes(100, 'x'), 4); // no NUL anywhere in the path
    fake.service = [&sent](const sent_message &m) { fake_reply(m.hdr, sent); };
    ls_history_path_reply reply;
    EXPECT_EQ(location_client_get_history_path(client, LONG, &reply), LOCATION_ANSWERED);
    EXPECT_EQ(std::string(reply.path), std::string(99, 'x'));
}

TEST_F(client_test, updates_come_in_order_and_the_oldest_gives_way) {
    fake_send(LS_MSG_NOTIFICATION, 1010, bytes(79)); // cut: counts as lost
    fake_send(LS_MSG_NOTIFICATION, 1014, position_reply(99));
    fake_send(LS_MSG_REQUEST, 1010, position_reply(99));
    fake_deliver({LS_MSG_NOTIFICATION, 0, 6, 40, 1010, 1, 80, 0}, position_reply(99)); // of WS
    for (uint8_t i = 1; i <= 66; ++i)
        fake_send(LS_MSG_NOTIFICATION, 1010, position_reply(i));
    ls_position_reply got;
    for (uint8_t i = 3; i <= 66; ++i) {
        ASSERT_EQ(location_client_next_update(client, NONE, &got), LOCATION_ANSWERED);
        EXPECT_EQ(got.pos.num_satellites, i);
    }
    EXPECT_EQ(location_client_next_update(client, NONE, &got), LOCATION_NO_REPLY);
    EXPECT_EQ(location_client_lost_updates(client), 3U);
}

TEST_F(client_test, lpp_is_asked_by_notification_and_answered_by_request) {
    open(LS_SERV_SAL);
    fake_send(LS_MSG_REQUEST, 19, bytes(24)); // nobody asked yet
    fake.service = [](const sent_message &) {
        fake_send(LS_MSG_REQUEST, 19, bytes(23)); // not a record
        fake_send(LS_MSG_REQUEST, 19, padded({}, 24, {70}, 11));
    };
    gps_lpp_location lpp;
    ASSERT_EQ(location_client_get_lpp(client, LONG, &lpp), LOCATION_ANSWERED);
    EXPECT_EQ(lpp.confidence, 70);
    // An answer counts for all who asked before it, whoever asks behind it.
    fake.service = [&, asked = false](const sent_message &) mutable {
        if (std::exchange(asked, true))
            return;
        fake_send(LS_MSG_REQUEST, 19, padded({}, 24, {70}, 11));
        std::thread([&] {
            gps_lpp_location other;
            EXPECT_EQ(location_client_get_lpp(client, SHORT, &other), LOCATION_NO_REPLY);
        }).join();
    };
    EXPECT_EQ(location_client_get_lpp(client, LONG, &lpp), LOCATION_ANSWERED);
    EXPECT_EQ(lpp.confidence, 70);
}

TEST_F(client_test, a_result_is_there_until_it_is_taken) {
    const uint32_t ticket = start_position(client);
    wait_for_sent(LS_REQUEST_GET_POSITION, 1);
    EXPECT_FALSE(readable());
    EXPECT_EQ(location_client_take_position(client, ticket, &position), LOCATION_PENDING);
    fake_reply(fake_sent(LS_REQUEST_GET_POSITION).at(0).hdr, position_reply());
    EXPECT_TRUE(readable(LONG));
    EXPECT_EQ(location_client_next_ticket(client), ticket);
    EXPECT_EQ(location_client_take_power(client, ticket, &mode), LOCATION_BAD_ARGUMENT);
    EXPECT_EQ(location_client_take_position(client, ticket, &position), LOCATION_ANSWERED);
    EXPECT_EQ(position.num_satellites, 8);
    EXPECT_EQ(location_client_take_position(client, ticket, &position), LOCATION_BAD_ARGUMENT);
    EXPECT_FALSE(readable());
    EXPECT_EQ(location_client_next_ticket(client), 0U);
    // An update makes it readable, too.
    fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, position_reply());
    EXPECT_TRUE(readable());
    ls_position_reply update;
    EXPECT_EQ(location_client_next_update(client, NONE, &update), LOCATION_ANSWERED);
    EXPECT_FALSE(readable());
}

TEST_F(client_test, eight_at_once_and_an_abandoned_one_makes_room) {
    uint32_t ticket = 0;
    for (int i = 0; i < LOCATION_CLIENT_MAX_STARTED; ++i)
        ticket = start_position(client);
    wait_for_sent(LS_REQUEST_GET_POSITION, LOCATION_CLIENT_MAX_STARTED);
    uint32_t more = 9;
    EXPECT_EQ(location_client_start_speed(client, LONG, &more), LOCATION_TOO_MANY);
    location_client_abandon(client, ticket);
    EXPECT_EQ(location_client_take_position(client, ticket, &position), LOCATION_BAD_ARGUMENT);
    while (location_client_start_speed(client, LONG, &more) == LOCATION_TOO_MANY)
        std::this_thread::yield();
    EXPECT_FALSE(readable());
    auto waits = std::async(std::launch::async, [this] {
        ls_position_reply update;
        return location_client_next_update(client, LONG, &update);
    });
    EXPECT_EQ(waits.wait_for(milliseconds(20)), std::future_status::timeout);
    location_client_cancel(client);
    EXPECT_EQ(waits.wait_for(LONG / 2), std::future_status::ready);
    EXPECT_EQ(waits.get(), LOCATION_CANCELLED);
    EXPECT_TRUE(readable(LONG));
    location_client_resume(client);
    location_client_abandon(client, location_client_next_ticket(client));
    start_position(client); // and the client closes with it under way
}

TEST_F(client_test, both_forms_from_several_threads) {
    fake.service = [](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_GET_POSITION)
            std::thread([m] { fake_reply(m.hdr, position_reply(1)); }).join();
        else
            fake_reply(m.hdr, {1, 0, 0, 0, 2, 0, 0, 0});
        fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, position_reply());
    };
    constexpr int rounds = 100;
    std::thread waits([&] {
        ls_position_reply update;
        for (int i = 0; i < rounds; ++i) {
            uint32_t now = 0;
            EXPECT_EQ(location_client_get_power(client, LONG, &now), LOCATION_ANSWERED);
            EXPECT_EQ(now, GPS_POWER_ON);
            EXPECT_EQ(location_client_next_update(client, LONG, &update), LOCATION_ANSWERED);
        }
    });
    for (int i = 0; i < rounds; ++i) {
        const uint32_t first = start_position(client), second = start_position(client);
        if (i % 3 == 0)
            location_client_abandon(client, second);
        location_result result = LOCATION_PENDING;
        while (result == LOCATION_PENDING && readable(LONG))
            result = location_client_take_position(client, first, &position);
        EXPECT_EQ(result, LOCATION_ANSWERED);
        if (i % 3 != 0)
            EXPECT_EQ(take_position(client, second), LOCATION_ANSWERED);
        EXPECT_EQ(position.num_satellites, 1);
    }
    waits.join();
}

} // namespace
