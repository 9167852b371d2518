// Requests of the client library: what goes on the bus, which replies are taken, and the result for
// each way a request can fail.
#include "fake_bus.h"
#include "location_client.h"

#include <cerrno>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

using is = location_result;
using std::chrono::milliseconds;

constexpr milliseconds SHORT{40}; // for replies that never come; below the power probe
constexpr milliseconds LONG{5000};

// Closes its client; stands for it in calls.
struct client_ptr {
    location_client *client = nullptr;
    explicit client_ptr(uint8_t serv_id) {
        EXPECT_EQ(location_client_open(serv_id, &client), is::answered);
    }
    ~client_ptr() { location_client_close(client); }
    client_ptr(const client_ptr &) = delete;
    client_ptr &operator=(const client_ptr &) = delete;
    operator location_client *() const { return client; }
};

struct client_request : testing::Test {
    void SetUp() override { fake_reset(); }
};

const bytes MODE_ON = {1, 0, 0, 0, 2, 0, 0, 0};

bytes position_reply() {
    bytes reply(80);
    reply[0] = 1;
    const bytes latitude = {0, 0, 0, 0, 0, 0xC0, 0x47, 0x40, 'N'}; // 47.5
    std::copy(latitude.begin(), latitude.end(), reply.begin() + 24);
    reply[76] = 8; // satellites
    return reply;
}

TEST_F(client_request, opening_and_sending_report_why_they_failed) {
    const std::pair<int, location_result> opening[] = {{ENOENT, is::no_bus},
                                                       {EADDRINUSE, is::id_taken},
                                                       {EACCES, is::bus_denied},
                                                       {EIO, is::bus_error}};
    for (const auto &[error, result] : opening) {
        fake.init_errno[5] = error;
        auto *client = reinterpret_cast<location_client *>(1);
        EXPECT_EQ(location_client_open(5, &client), result) << error;
        EXPECT_EQ(client, nullptr);
    }
    location_client *own = nullptr;
    EXPECT_EQ(location_client_open(LS_OWN_SERV_ID, &own), is::bad_argument);

    const std::pair<int, location_result> sending[] = {{ENOENT, is::no_daemon},
                                                       {ECONNREFUSED, is::no_daemon},
                                                       {EAGAIN, is::bus_full},
                                                       {EACCES, is::bus_denied},
                                                       {EIO, is::bus_error}};
    const client_ptr client(40);
    for (const auto &[error, result] : sending) {
        fake.send_errno = error;
        gps_pos_data position;
        EXPECT_EQ(location_client_get_position(client, LONG, &position), result) << error;
    }
}

TEST_F(client_request, takes_the_first_free_tool_id) {
    fake.init_errno = {{32, EADDRINUSE}, {33, EACCES}};
    EXPECT_EQ(location_client_serv_id(client_ptr(0)), 34);
    fake.init_errno = {{-1, EADDRINUSE}, {63, 0}};
    EXPECT_EQ(location_client_serv_id(client_ptr(0)), 63);
    location_client *client = nullptr;
    fake.init_errno = {{-1, EADDRINUSE}, {31, 0}, {64, 0}};
    EXPECT_EQ(location_client_open(0, &client), is::ids_exhausted);
}

TEST_F(client_request, each_query_sends_its_message_and_reads_its_record) {
    fake.service = [](const sent_message &m) {
        const std::map<uint32_t, bytes> replies = {
            {1003, position_reply()},
            {1004, {1,  0,  0,    0, 23, 59, 58,   0,    0, 0,   // time of day
                    31, 12, 0xE3, 7, 0,  0,  0xBB, 0xBC, 1, 0}}, // 31.12.2019, 113851 s
            {1005, padded({1, 0, 0, 0, 1, 2, 3, 0, 0, 0, 4, 5, 0xE3, 7, 11, 9, 17}, 52)},
            {1006, {1, 0, 0, 0, 1, 2, 3, 0, 0, 0, 4, 5, 0xE3, 7, 36, 42}}};
        EXPECT_EQ(m.hdr.dst_serv_id, 8);
        EXPECT_TRUE(m.payload.empty());
        fake_reply(m.hdr, replies.at(m.hdr.msg_id));
    };
    const client_ptr client(40);
    gps_pos_data position;
    ASSERT_EQ(location_client_get_position(client, LONG, &position), is::answered);
    EXPECT_TRUE(position.latitude == 47.5 && position.lat_dir == 'N');
    gps_time_fields utc;
    uint32_t time_of_week = 0;
    ASSERT_EQ(location_client_get_time(client, LONG, &utc, &time_of_week), is::answered);
    EXPECT_TRUE(utc.second == 58 && utc.year == 2019 && time_of_week == 113851);
    gps_sat_info info;
    ASSERT_EQ(location_client_get_satellites(client, LONG, &info), is::answered);
    EXPECT_TRUE(info.num_sat_in_view == 11 && info.num_sat_usable == 9 && info.sat_prn[0] == 17);
    gps_speed_data speed;
    ASSERT_EQ(location_client_get_speed(client, LONG, &speed), is::answered);
    EXPECT_TRUE(speed.speed_int == 36 && speed.speed_frac == 42);
}

TEST_F(client_request, only_a_whole_reply_of_its_own_is_taken) {
    const struct {
        const char *name;
        std::function<void(msg_hdr &, bytes &)> spoil;
        location_result result;
    } rows[] = {
        {"untouched", [](msg_hdr &, bytes &) {}, is::answered},
        {"other transaction", [](msg_hdr &h, bytes &) { ++h.txn_id; }, is::no_reply},
        {"other message", [](msg_hdr &h, bytes &) { h.msg_id = 1004; }, is::no_reply},
        {"other service", [](msg_hdr &h, bytes &) { h.src_serv_id = 12; }, is::no_reply},
        {"not a response", [](msg_hdr &h, bytes &) { h.msg_type = 0; }, is::no_reply},
        {"status 0", [](msg_hdr &, bytes &b) { b[0] = 0; }, is::failed},
        {"status 2", [](msg_hdr &, bytes &b) { b[0] = 2; }, is::receiver_timeout},
        {"status 3", [](msg_hdr &, bytes &b) { b[0] = 3; }, is::bad_reply},
        {"empty", [](msg_hdr &, bytes &b) { b.clear(); }, is::bad_reply},
        {"one byte short", [](msg_hdr &, bytes &b) { b.resize(79); }, is::bad_reply},
        {"one byte long", [](msg_hdr &, bytes &b) { b.resize(81); }, is::bad_reply},
        {"far too long", [](msg_hdr &, bytes &b) { b.resize(400); }, is::bad_reply},
        {"gate", [](msg_hdr &, bytes &b) { b = bytes(8); }, is::gate_closed},
        {"almost the gate",
         [](msg_hdr &, bytes &b) {
             b = padded({0, 1}, 8);
         },
         is::bad_reply},
    };
    const client_ptr client(40);
    for (const auto &row : rows) {
        fake.service = [&row](const sent_message &m) {
            msg_hdr hdr = m.hdr;
            bytes reply = position_reply();
            hdr.msg_type = LS_MSG_RESPONSE;
            hdr.src_serv_id = LS_OWN_SERV_ID;
            row.spoil(hdr, reply);
            hdr.pld_len = static_cast<uint32_t>(reply.size());
            fake_deliver(hdr, reply);
        };
        gps_pos_data position;
        EXPECT_EQ(location_client_get_position(client, SHORT, &position), row.result) << row.name;
        EXPECT_EQ(position.num_satellites, row.result == is::answered ? 8 : 0) << row.name;
    }
}

// Also where eight bytes are the size of the proper reply, or more than it.
TEST_F(client_request, eight_zero_bytes_are_the_closed_gate) {
    fake.service = [](const sent_message &m) { fake_reply(m.hdr, bytes(8)); };
    const client_ptr client(40);
    uint32_t mode = 9;
    EXPECT_EQ(location_client_get_power(client, LONG, &mode), is::gate_closed);
    EXPECT_EQ(location_client_set_power(client, LONG, 2, &mode), is::gate_closed);
    EXPECT_EQ(location_client_register_periodic(client, LONG, 1, 4), is::gate_closed);
}

TEST_F(client_request, a_late_reply_is_not_taken_for_the_next_request) {
    const client_ptr client(40);
    uint32_t mode = 9;
    EXPECT_EQ(location_client_get_power(client, SHORT, &mode), is::no_reply);
    EXPECT_EQ(mode, 0U);
    const msg_hdr first = fake_sent(1001).at(0).hdr;
    fake.service = [&first](const sent_message &m) {
        fake_reply(first, power_reply(1, 0));
        fake_reply(m.hdr, MODE_ON);
        fake_reply(m.hdr, power_reply(1, 1)); // a second reply changes nothing
    };
    EXPECT_EQ(location_client_get_power(client, LONG, &mode), is::answered);
    EXPECT_EQ(mode, 2U);
}

TEST_F(client_request, replies_find_their_requests_from_several_threads) {
    // Answers each request late and from a thread of its own.
    std::vector<std::thread> workers;
    std::mutex lock;
    fake.service = [&](const sent_message &m) {
        const std::lock_guard guard(lock);
        workers.emplace_back([m] {
            std::this_thread::sleep_for(milliseconds(5));
            fake_reply(m.hdr, m.hdr.msg_id == 1001 ? MODE_ON : position_reply());
        });
    };
    const client_ptr client(40);
    const auto ask = [&client] {
        for (int i = 0; i < 10; ++i) {
            uint32_t mode = 0;
            gps_pos_data position;
            EXPECT_EQ(location_client_get_power(client, LONG, &mode), is::answered);
            EXPECT_EQ(mode, 2U);
            EXPECT_EQ(location_client_get_position(client, LONG, &position), is::answered);
            EXPECT_EQ(position.num_satellites, 8);
        }
    };
    std::thread other(ask);
    ask();
    other.join();
    for (std::thread &worker : workers) {
        worker.join();
    }
}

TEST_F(client_request, a_silent_service_is_asked_for_its_power_mode) {
    const std::pair<bytes, location_result> rows[] = {{power_reply(1, 0), is::receiver_off},
                                                      {power_reply(1, 1), is::receiver_off},
                                                      {power_reply(1, 2), is::receiver_busy},
                                                      {bytes(8), is::gate_closed}};
    const client_ptr client(40);
    gps_pos_data position;
    for (const auto &row : rows) {
        fake.service = [&row](const sent_message &m) {
            if (m.hdr.msg_id == LS_REQUEST_GET_POWER_MODE) {
                fake_reply(m.hdr, row.first);
            }
        };
        EXPECT_EQ(location_client_get_position(client, milliseconds(450), &position), row.second);
    }
    // An answer that follows the word of an off receiver still counts.
    msg_hdr asked{};
    fake.service = [&asked](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_GET_POWER_MODE) {
            fake_reply(m.hdr, power_reply(1, 0));
            fake_reply(asked, position_reply());
        } else {
            asked = m.hdr;
        }
    };
    EXPECT_EQ(location_client_get_position(client, LONG, &position), is::answered);
}

TEST_F(client_request, as_voip_the_power_mode_is_not_asked) {
    const client_ptr client(LS_SERV_VOIP);
    gps_pos_data position;
    EXPECT_EQ(location_client_get_position(client, milliseconds(400), &position), is::no_reply);
    EXPECT_TRUE(fake_sent(1001).empty());
}

TEST_F(client_request, a_failed_power_change_tells_the_mode_in_force) {
    fake.service = [](const sent_message &m) {
        fake_reply(m.hdr, m.hdr.msg_id == 1001 ? MODE_ON : power_reply(0, 0));
    };
    const client_ptr client(40);
    uint32_t in_force = 9;
    EXPECT_EQ(location_client_set_power(client, LONG, 1, &in_force), is::failed);
    EXPECT_EQ(in_force, 2U);
    EXPECT_EQ(fake_sent(1002).at(0).payload, (bytes{1, 0, 0, 0}));
}

TEST_F(client_request, nmea_travels_as_its_body) {
    bytes reply = padded({1}, 284);
    reply[84] = '$';
    reply[283] = 'x';
    fake.service = [&reply](const sent_message &m) { fake_reply(m.hdr, reply); };
    const client_ptr client(40);
    location_client_answer answer;
    EXPECT_EQ(location_client_exec_nmea(client, LONG, "PUBX,00", &answer), is::answered);
    EXPECT_TRUE(answer[0] == '$' && answer[199] == 'x');
    EXPECT_EQ(fake_sent(1011).at(0).payload,
              padded({0, 0, 0, 0, 'P', 'U', 'B', 'X', ',', '0', '0'}, 284));

    const std::string longest(79, 'A');
    EXPECT_EQ(location_client_exec_nmea(client, LONG, longest, &answer), is::answered);
    EXPECT_EQ(fake_sent(1011).at(1).payload[83], 0);
    for (const std::string &bad :
         {std::string(), longest + "A", std::string("$GPGGA"), std::string("GPGGA*47"),
          std::string("A\n"), std::string("\x80")}) {
        EXPECT_EQ(location_client_exec_nmea(client, LONG, bad, &answer), is::bad_argument) << bad;
    }
    EXPECT_EQ(fake_sent(1011).size(), 2U);
}

TEST_F(client_request, ubx_travels_as_hexadecimal_text) {
    fake.service = [](const sent_message &m) { fake_reply(m.hdr, padded({1}, 284)); };
    const client_ptr client(40);
    location_client_answer answer;
    const bytes frame = {0xB5, 0x62, 0x06, 0x08, 0x00, 0x00, 0x0E, 0x30};
    EXPECT_EQ(location_client_exec_ubx(client, LONG, frame, &answer), is::answered);
    EXPECT_STREQ(reinterpret_cast<const char *>(fake_sent(1012).at(0).payload.data() + 4),
                 "B5,62,06,08,00,00,0E,30");
    const bytes bad_frames[] = {{},
                                {0xB5, 0x62, 6, 8, 0, 0, 0},       // too short
                                {0xB4, 0x62, 6, 8, 0, 0, 0, 0},    // first sync byte
                                {0xB5, 0x63, 6, 8, 0, 0, 0, 0},    // second sync byte
                                {0xB5, 0x62, 6, 8, 0, 0, 0, 0, 0}, // length too small
                                {0xB5, 0x62, 6, 8, 1, 0, 0, 0}};   // length too large
    for (const bytes &bad : bad_frames) {
        EXPECT_EQ(location_client_exec_ubx(client, LONG, bad, &answer), is::bad_argument);
    }
    EXPECT_EQ(fake_sent(1012).size(), 1U);
}

TEST_F(client_request, ubx_text_fits_up_to_79_characters) {
    std::array<char, 80> text{};
    EXPECT_EQ(location_client_ubx_text(bytes(26, 0xAA), &text), 77U);
    EXPECT_EQ(location_client_ubx_text(bytes(27, 0xAA), &text), 0U);
    // 40 bytes of one digit each, and one more.
    EXPECT_EQ(location_client_ubx_text(bytes(40, 0x0A), &text), 79U);
    EXPECT_EQ(std::string(text.data(), 5), "A,A,A");
    EXPECT_EQ(location_client_ubx_text(bytes(41, 0x0A), &text), 0U);
}

TEST_F(client_request, history_path_ends_within_its_field_whatever_arrives) {
    bytes sent(104, 'x'); // no NUL anywhere in the path
    std::fill_n(sent.begin(), 4, uint8_t{0});
    fake.service = [&sent](const sent_message &m) { fake_reply(m.hdr, sent); };
    const client_ptr client(40);
    ls_history_path_reply reply;
    EXPECT_EQ(location_client_get_history_path(client, LONG, &reply), is::answered);
    EXPECT_EQ(std::string(reply.path), std::string(99, 'x'));
    sent[0] = 255;
    EXPECT_EQ(location_client_get_history_path(client, LONG, &reply), is::failed);
}

TEST_F(client_request, arguments_are_checked_before_sending) {
    const client_ptr client(40);
    uint32_t mode = 0;
    EXPECT_EQ(location_client_get_power(nullptr, LONG, &mode), is::bad_argument);
    EXPECT_EQ(location_client_get_power(client, LONG, nullptr), is::bad_argument);
    EXPECT_EQ(location_client_get_power(client, milliseconds(0), &mode), is::bad_argument);
    EXPECT_EQ(location_client_get_power(client, std::chrono::hours(24) + milliseconds(1), &mode),
              is::bad_argument);
    EXPECT_EQ(location_client_register_periodic(client, LONG, 0, 4), is::bad_argument);
    EXPECT_EQ(location_client_register_periodic(client, LONG, 1, 3), is::bad_argument);
    gps_lpp_location lpp;
    EXPECT_EQ(location_client_get_lpp(client, LONG, &lpp), is::bad_argument);
    EXPECT_TRUE(fake.sent.empty());
}

} // namespace
