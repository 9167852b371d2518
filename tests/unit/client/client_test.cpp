// The client library: what goes on the bus, which replies and updates are taken, and the result for
// each way a request can fail.
#include "fake_bus.h"
#include "location_client.hpp"

#include <cerrno>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds NONE{0};
constexpr milliseconds SHORT{40};    // for replies that never come; below the power probe
constexpr milliseconds PROBED{3000}; // long enough for it
constexpr milliseconds LONG{5000};

const bytes MODE_ON = {1, 0, 0, 0, 2, 0, 0, 0};
const bytes MODE_OFF = {1, 0, 0, 0, 0, 0, 0, 0};

// A position of 47.5 degrees north from so many satellites.
bytes position_reply(uint8_t satellites = 8) {
    bytes reply = padded({1}, 80, {0, 0, 0, 0, 0, 0xC0, 0x47, 0x40, 'N'}, 24);
    reply[76] = satellites;
    return reply;
}

struct client_test : testing::Test {
    location_client *client = nullptr;
    gps_pos_data position;
    uint32_t mode = 9;

    void SetUp() override {
        fake_reset();
        open(40);
    }
    void TearDown() override { location_client_close(client); }
    location_result open(uint8_t serv_id) {
        location_client_close(client);
        return location_client_open(serv_id, &client);
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
        {"one byte long", [](msg_hdr &, bytes &b) { b.resize(81); }, LOCATION_BAD_REPLY},
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
    // Also where eight bytes are the size of the proper reply, or more than it.
    fake.service = always(bytes(8));
    EXPECT_EQ(location_client_get_power(client, LONG, &mode), LOCATION_GATE_CLOSED);
    EXPECT_EQ(location_client_register_periodic(client, LONG, 1, 4), LOCATION_GATE_CLOSED);
    fake.service = always(bytes(4));
    EXPECT_EQ(location_client_register_periodic(client, LONG, 1, 4), LOCATION_FAILED);
}

TEST_F(client_test, a_silent_service_is_asked_for_its_power_mode) {
    // Each waits for more than 2 s, so all do at once; the service hears each on its own thread.
    static thread_local const bytes *mode_told;
    fake.service = [](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_GET_POWER_MODE)
            fake_reply(m.hdr, *mode_told);
    };
    const auto ask = [](location_client *asking, const bytes &told) {
        return std::async(std::launch::async, [asking, &told] {
            mode_told = &told;
            gps_pos_data got;
            return location_client_get_position(asking, PROBED, &got);
        });
    };
    // Behind an answer to these the service switches a receiver off, unless something is asked.
    location_client *sal, *voip;
    location_client_open(LS_SERV_SAL, &sal);
    location_client_open(LS_SERV_VOIP, &voip);
    open(40); // the last one gets what is sent
    auto of_sal = ask(sal, MODE_OFF), of_voip = ask(voip, MODE_OFF);
    auto off = ask(client, MODE_OFF), busy = ask(client, MODE_ON);
    auto late = std::async(std::launch::async, [this] {
        mode_told = &MODE_OFF;
        gps_speed_data got;
        return location_client_get_speed(client, PROBED, &got);
    });
    // A query of a slow line is not doubled.
    std::this_thread::sleep_for(milliseconds(700));
    EXPECT_TRUE(fake_sent(1001).empty());
    // An answer that follows the word of an off receiver still counts.
    for (int i = 0; i < 500 && fake_sent(1001).size() < 3; ++i)
        std::this_thread::sleep_for(milliseconds(5));
    std::this_thread::sleep_for(milliseconds(20));
    fake_reply(fake_sent(LS_REQUEST_GET_SPEED).at(0).hdr, padded({1}, sizeof(ls_speed_reply)));
    EXPECT_EQ(late.get(), LOCATION_ANSWERED);
    EXPECT_EQ(off.get(), LOCATION_RECEIVER_OFF);
    EXPECT_EQ(busy.get(), LOCATION_RECEIVER_BUSY);
    EXPECT_EQ(of_sal.get(), LOCATION_NO_REPLY);
    EXPECT_EQ(of_voip.get(), LOCATION_NO_REPLY);
    EXPECT_EQ(fake_sent(1001).size(), 3U);
    location_client_close(sal);
    location_client_close(voip);
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
    fake.service = [](const sent_message &m) {
        bytes reply = padded(padded(m.payload, 284, {1}, 0), 284, {'$'}, 84);
        reply[5] ^= 1; // of another command
        fake_reply(m.hdr, reply);
        reply[5] ^= 1;
        fake_reply(m.hdr, padded(reply, 284, {'x'}, 283));
    };
    location_client_answer answer;
    const std::string longest(79, 'A');
    EXPECT_EQ(location_client_exec_nmea(client, LONG, longest, &answer), LOCATION_ANSWERED);
    EXPECT_TRUE(answer[0] == '$' && answer[199] == 'x');
    EXPECT_EQ(fake_sent(1011).at(0).payload, padded({}, 284, bytes(79, 'A'), 4));
    for (const std::string &bad : {longest + "A", std::string("GPGGA*47")})
        EXPECT_EQ(location_client_exec_nmea(client, LONG, bad, &answer), LOCATION_BAD_ARGUMENT)
            << bad;
}

TEST_F(client_test, ubx_travels_as_hexadecimal_text) {
    fake.service = always(padded({1}, 284));
    location_client_answer answer;
    const bytes frame = {0xB5, 0x62, 0x06, 0x08, 0x00, 0x00, 0x0E, 0x30};
    EXPECT_EQ(location_client_exec_ubx(client, LONG, frame, &answer), LOCATION_ANSWERED);
    EXPECT_STREQ(reinterpret_cast<const char *>(fake_sent(1012).at(0).payload.data() + 4),
                 "B5,62,06,08,00,00,0E,30");
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
        fake_send(LS_MSG_REQUEST, 19, padded(padded({1}, 12, {70}, 11), 24, {5}, 16));
    };
    gps_lpp_location lpp;
    ASSERT_EQ(location_client_get_lpp(client, LONG, &lpp), LOCATION_ANSWERED);
    EXPECT_TRUE(lpp.latitude_sign == 1 && lpp.confidence == 70 && lpp.degrees_latitude == 5);
    EXPECT_EQ(fake_sent(208).at(0).hdr.msg_type, LS_MSG_NOTIFICATION);
    EXPECT_EQ(fake_sent(208).at(0).payload, bytes(24));
    // The record of the last time does not answer the next question.
    fake.service = nullptr;
    EXPECT_EQ(location_client_get_lpp(client, SHORT, &lpp), LOCATION_NO_REPLY);
    EXPECT_EQ(lpp.confidence, 0);
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

TEST_F(client_test, cancelling_ends_the_wait_until_resumed) {
    const auto start = std::chrono::steady_clock::now();
    const auto canceller = std::async(std::launch::async, [this] {
        std::this_thread::sleep_for(milliseconds(20));
        location_client_cancel(client);
    });
    ls_position_reply got;
    EXPECT_EQ(location_client_next_update(client, LONG, &got), LOCATION_CANCELLED);
    EXPECT_LT(std::chrono::steady_clock::now() - start, LONG);
    location_client_resume(client);
    EXPECT_EQ(location_client_get_power(client, SHORT, &mode), LOCATION_NO_REPLY);
}

} // namespace
