// The receiver exchange: the serial path, and the hand-off with the TA's answers.
#include "daemon_fixture.h"
#include "gps_power.h"
#include "gps_service.h"

namespace {

class request : public daemon_fixture {
  protected:
    int32_t exchange(std::string_view command = "$z*7A\r\n") {
        gps_sentence buffer = {};
        command.copy(buffer.data(), buffer.size());
        return gps_get_data_req(gps_sentence_bytes(buffer), &answer);
    }
    static void on_board_2(std::string_view answer, uint32_t cmd_len) {
        gps_board_type_g = 2;
        antenna_type = 4;
        fake::on_send(
            [=](const fake::sent_message &) { fake::deliver_ta_answer(answer, cmd_len); });
    }

    gps_answer answer = {};
};

TEST_F(request, commands_go_out_whole_and_an_answer_is_one_bounded_read) {
    EXPECT_EQ(exchange(), 1);
    EXPECT_EQ(fake::sent().size(), 1u); // one alarm
    line_peer peer([](const std::string &) { return std::string(300, 'A'); });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    const std::string poll = "\xB5\x62\x06\x08\x00\x00\x0E\x30"s;
    const std::string longest = "\xB5\x62\x06\x08\xC0\x00"s + std::string(194, '\0'); // 192 + 8
    for (const std::string &command : {"$z*7A\r\n"s, poll, longest}) {
        answer = {};
        EXPECT_EQ(exchange(command), 0);
        EXPECT_EQ(answer.length, 205u);
        EXPECT_EQ(strlen(answer.text), 205u);
    }
    EXPECT_EQ(exchange("\xB5\x62\x06\x08\xC1\x00"s), 1); // would not fit its buffer: not sent
    EXPECT_EQ(peer.commands(), (std::vector<std::string>{"$z*7A\r\n", poll, longest}));
}

// What lies on the line when a command is written: the answer to it behind a sound exchange, left
// over behind one that was not.
TEST_F(request, what_lies_on_the_line_is_dropped_in_doubt_only) {
    const std::string ubx_poll = "\xB5\x62\x06\x08\x00\x00\x0E\x30"s;
    const struct {
        const char *name;
        std::string command, answer;
        bool is_sound;
    } rows[] = {
        {"a sentence", "$GPGPQ,GGA*3C\r\n", nmea("GPGGA,1"), true},
        {"of another talker, behind a line end", "$GPGPQ,GGA*3C\r\n", "\r\n$GNGGA,1*00", true},
        {"of another type", "$GPGPQ,GGA*3C\r\n", nmea("GPGSA,1"), false},
        {"another message of the maker", "$PUBX,04*37\r\n", nmea("PUBX,00,1"), false},
        {"the message of the maker", "$PUBX,04*37\r\n", nmea("PUBX,04,1"), true},
        {"anything, for a command of no such kind", "$x*78\r\n", nmea("GPTXT,1"), true},
        {"noise", "$PUBX,04*37\r\n", "noise", false},
        {"the frame", ubx_poll, ubx_poll, true},
        {"its refusal", ubx_poll, "\xB5\x62\x05\x00\x02\x00\x06\x08"s, true},
        {"another frame", ubx_poll, "\xB5\x62\x06\x3E\x00\x00\x0E\x30"s, false},
        {"a sentence for a frame", ubx_poll, nmea("GPGGA,1"), false},
        {"silence", "$PUBX,04*37\r\n", "", false},
        {"more than fits", "$GPGPQ,GGA*3C\r\n", "$GPGGA," + std::string(198, '1'), false},
    };
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        line_peer peer([&](const std::string &command) {
            return command == r.command ? r.answer : r.is_sound ? ""s : "own"s;
        });
        ASSERT_EQ(ls_hal_uart_init(), 0);
        EXPECT_EQ(exchange(r.command), r.answer.empty() ? 2 : 0);
        peer.send_unasked("queued");
        answer = {};
        EXPECT_EQ(exchange("$z*7A\r\n"), 0);
        // Its own answer may be there by then, too.
        EXPECT_TRUE(std::string_view(answer.text).starts_with(r.is_sound ? "queued" : "own"))
            << answer.text;
        ls_hal_uart_close();
    }
}

TEST_F(request, what_a_receiver_says_at_its_start_is_dropped) {
    make_gpio_files();
    mt_gps_status = 0;
    line_peer peer([](const std::string &) { return "$own"s; });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    EXPECT_EQ(exchange(), 0); // ends the doubt of the open line
    for (const uint32_t mode : {0u, 2u})
        EXPECT_EQ(gps_set_power_mode(mode, 3), 0) << mode;
    peer.send_unasked("GPTXT");
    answer = {};
    EXPECT_EQ(exchange(), 0);
    EXPECT_STREQ(answer.text, "$own");
}

TEST_F(request, a_ta_request_needs_the_antenna_and_room) {
    on_board_2("$answer", 7);
    EXPECT_EQ(exchange("$GPGPQ,GGA*3C\r\n"), 0);
    EXPECT_EQ(answer.length, 7u);
    EXPECT_STREQ(answer.text, "$answer");
    EXPECT_EQ(exchange("\xB5\x62\x06\x08\xC1\x00"s), 1); // would not fit the TA's record
    antenna_type = 3;
    EXPECT_EQ(exchange(), 1);
    EXPECT_EQ(told(fake::sent()), "0 1416>12 412 bytes");
}

TEST_F(request, ta_answers_over_200_bytes_are_corrupt) {
    const std::string text(200, 'A');
    for (const uint32_t cmd_len : {200u, 201u, 0xFFFFFFFFu}) {
        on_board_2(text, cmd_len);
        memset(answer.text, 'x', sizeof(answer.text));
        EXPECT_EQ(exchange(), cmd_len == 200 ? 0 : 1);
        EXPECT_EQ(answer.length, cmd_len);
        EXPECT_EQ(answer.text[2], cmd_len == 200 ? 'A' : 'x');
    }
}

// The late answer clears the flag without waking anybody; the one after it counts again.
TEST_F(request, a_late_or_stray_ta_answer_does_not_answer_the_next_request) {
    fake::deliver_ta_answer("$stray", 6); // on board type 1
    EXPECT_EQ(sem_trywait(&ta_data_sem), -1);
    EXPECT_EQ(ta_data_req_pld.cmd_len, 0u);
    on_board_2("$fresh", 6);
    for (const char *stray : {"$stray1", "$stray2"})
        fake::deliver_ta_answer(stray, 7);
    EXPECT_EQ(exchange(), 0);
    EXPECT_STREQ(answer.text, "$fresh");
    EXPECT_EQ(sem_trywait(&ta_data_sem), -1); // the strays are forgotten
    fake::on_send(nullptr);
    rffe_req_sem_wait_time = 0;
    EXPECT_EQ(exchange(), 1);
    EXPECT_EQ(ta_req_timed_out_g, 1);
    fake::deliver_ta_answer("$late", 5);
    EXPECT_EQ(ta_req_timed_out_g, 0);
    rffe_req_sem_wait_time = 15;
    on_board_2("$fresh", 6);
    EXPECT_EQ(exchange(), 0);
    EXPECT_STREQ(answer.text, "$fresh");
}

} // namespace
