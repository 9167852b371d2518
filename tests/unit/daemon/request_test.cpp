// What goes to and fro between the daemon and the receiver: sentences, the serial line, exchanges
// over it, and the hand-off with the TA's answers.
#include "daemon_fixture.h"
#include "gps_nmea_parser.h"
#include "gps_power.h"
#include "gps_service.h"

#include <csignal>
#include <termios.h>

namespace {

using nmea_buffer = std::array<char, NMEA_BUFFER_SIZE>;
using nmea_parser = daemon_fixture; // its sentences and bodies are literal

TEST_F(nmea_parser, builds_sentences_that_fit) {
    const std::string longest(NMEA_BUFFER_SIZE - 7, 'A'); // $ * h h CR LF NUL
    // Body and sentence: empty = refused.
    const std::pair<std::string, std::string> rows[] = {
        {"z", "$z*7A\r\n"}, // a digit above 9 is upper case
        {longest, nmea(longest)},
        {longest + "A", ""},
    };
    for (const auto &[body, sentence] : rows) {
        nmea_buffer out = {};
        EXPECT_EQ(ls_hal_create_nmea_sentence(body.c_str(), out.data()), sentence.empty());
        EXPECT_TRUE(sentence.empty() || out.data() == sentence) << out.data();
    }
}

TEST_F(nmea_parser, extracts_a_body_or_says_why_not) {
    const std::string body = "GPZDA,082710.00,16,09,2002,00,00";
    const std::string zda = "$" + body + "*64\r\n";
    const std::string longest(NMEA_BUFFER_SIZE - 1, 'A');
    const char *const not_found = "ls_hal_extract_nmea_msg: nmea sentence not found\n";
    // Name, message, and what is logged of it: null = found.
    const std::tuple<const char *, std::string, const char *> rows[] = {
        {"at the start", zda, nullptr},
        {"behind four blanks", "    " + zda, nullptr},
        {"behind one byte: odd positions are not tested", "\0"s + zda, not_found},
        {"behind two letters: reading starts at the cursor", "xx" + zda, "failed to compare \n"},
        {"behind a NUL at position 2", "\0\0"s + zda, "failed to compare \n"},
        {"empty buffer", "", not_found},
        {"no star", "$" + body, "failed to compare \n"},
        {"wrong checksum", "$" + body + "*65\r\n", "checksum failed 65 64 \n"},
        {"lower case checksum", "$z*7a\r\n", "checksum failed 7a 7A \n"},
        {"checksum cut", "$" + body + "*6", "checksum failed 6 64 \n"},
        {"the longest body", nmea(longest), nullptr},
        {"a longer one", nmea("A" + longest), "failed to compare \n"},
    };
    for (const auto &[name, message, text] : rows) {
        fake::reset();
        std::string answer = message;
        answer.resize(256); // as a serial answer: longer than a body may be
        nmea_buffer out = {};
        EXPECT_EQ(ls_hal_extract_nmea_msg(answer.data(), out.data()), text ? 1u : 0u) << name;
        EXPECT_EQ(errors(text ? text : ""), text ? 1u : 0u) << name;
        // Only a wrong checksum takes back what was read.
        const bool taken_back = text != nullptr && std::string(text).starts_with("checksum");
        const std::string read = message.substr(message.find('$') + 1);
        if (taken_back || text == nullptr || message == "$" + body)
            EXPECT_EQ(out.data(), taken_back ? "" : read.substr(0, read.find('*'))) << name;
    }
}

TEST_F(nmea_parser, picks_fields) {
    const std::string gga = "GPGGA,123318,,N";
    // Body, number of the field, the field: empty = failure, and what is logged.
    const std::tuple<std::string, int, std::string, const char *> rows[] = {
        {gga, 0, "GPGGA", ""},
        {gga, 2, "", "ls_hal_get_token: Error copying Token from nmea_msg\n"},
        {gga, 3, "N", ""},
        {gga, 4, "", "ls_hal_get_token: token not found\n"},
        {gga, -1, "", "ls_hal_get_token: token not found\n"},
        {"A", 0, "A", ""},
        {"", 0, "", "ls_hal_get_token: error calculating cksum\n"},
        {"A,1234567890123456789012345", 1, "12345678901234567890", ""},
    };
    for (const auto &[body, n, field, text] : rows) {
        fake::reset();
        char token[NMEA_TOKEN_SIZE] = "untouched";
        EXPECT_EQ(ls_hal_get_token(body.c_str(), token, n), field.empty() ? 1u : 0u) << n;
        EXPECT_EQ(token, field) << body << " " << n;
        EXPECT_EQ(errors(text), field.empty() ? 1u : 0u) << body << " " << n;
    }
}

const std::string ubx_poll = "\xB5\x62\x06\x08\x00\x00\x0E\x30"s;
const std::string too_long = "\xB5\x62\x06\x08\xC1\x00"s; // 193 + 8 bytes

class request : public receiver_fixture {
  protected:
    // Of a sentence's body, or of a frame.
    int32_t exchange(const std::string &poll = "z") {
        gps_sentence buffer = {};
        const std::string command = is_frame(poll) ? poll : nmea(poll);
        command.copy(reinterpret_cast<char *>(buffer.data()), buffer.size());
        answer = {};
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

TEST_F(request, the_line_is_raw_at_9600_baud_and_gives_up_after_three_seconds) {
    const int fd = open("dev/ttymxc2", O_RDWR | O_NOCTTY);
    termios set = {};
    ASSERT_EQ(tcgetattr(fd, &set), 0);
    close(fd);
    using modes = std::array<tcflag_t, 7>;
    EXPECT_EQ((modes{set.c_iflag, set.c_oflag, set.c_lflag, cfgetospeed(&set),
                     set.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS | CLOCAL | CREAD),
                     set.c_cc[VMIN], set.c_cc[VTIME]}),
              (modes{IGNPAR, 0, 0, B9600, CS8 | CLOCAL | CREAD, 0, 30})); // 30 tenths
}

// The platform's libraries have signals and handlers of their own, on any thread.
TEST_F(request, a_signal_of_somebody_else_is_no_failure_of_the_line) {
    struct sigaction action = {};
    action.sa_handler = [](int) {}; // and no SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    std::thread reader([this] {
        EXPECT_EQ(exchange(), 0);
        EXPECT_EQ(answer.length, 5u);
    });
    for (int i = 0; i < 20; ++i) {
        usleep(5000);
        pthread_kill(reader.native_handle(), SIGUSR1);
    }
    peer->send("whole");
    reader.join();
    EXPECT_TRUE(fake::sent().empty()); // no alarm
}

TEST_F(request, a_read_takes_what_is_there_up_to_what_is_wanted) {
    peer->send_unasked(std::string(500, 'A'));
    std::array<uint8_t, 400> read_bytes = {};
    const auto read = [&](int32_t wanted) {
        EXPECT_EQ(ls_hal_tty_read(read_bytes.data(), &wanted), 0);
        return wanted;
    };
    EXPECT_EQ(read(1000), 400); // clamped to the buffer
    EXPECT_EQ(read(205), 100);
}

TEST_F(request, commands_go_out_whole_and_an_answer_is_one_bounded_read) {
    const std::string longest = "\xB5\x62\x06\x08\xC0\x00"s + std::string(194, '\0'); // 192 + 8
    for (const std::string &command : {"z"s, ubx_poll, longest}) {
        answer_raw(command, std::string(300, 'A'));
        EXPECT_EQ(exchange(command), 0);
        EXPECT_EQ(answer.length, 205u);
        EXPECT_EQ(strlen(answer.text), 205u);
    }
    EXPECT_EQ(exchange(too_long), 1); // would not fit its buffer: not sent
    EXPECT_EQ(peer->commands(), (std::vector<std::string>{"$z*7A\r\n", ubx_poll, longest}));
    ls_hal_uart_close();
    EXPECT_EQ(exchange(), 1);
    EXPECT_EQ(fake::sent().size(), 1u); // one alarm
}

// What lies on the line when a command is written: the answer to it behind a sound exchange, left
// over behind one that was not.
TEST_F(request, what_lies_on_the_line_is_dropped_in_doubt_only) {
    const std::tuple<const char *, std::string, std::string, bool> rows[] = {
        {"a sentence", "GPGPQ,GGA", nmea("GPGGA,1"), true},
        {"of another talker, behind a line end", "GPGPQ,GGA", "\r\n$GNGGA,1*00", true},
        {"of another type", "GPGPQ,GGA", nmea("GPGSA,1"), false},
        {"another message of the maker", "PUBX,04", nmea("PUBX,00,1"), false},
        {"the message of the maker", "PUBX,04", nmea("PUBX,04,1"), true},
        {"anything, for a command of no such kind", "x", nmea("GPTXT,1"), true},
        {"noise", "PUBX,04", "noise", false},
        {"the frame", ubx_poll, ubx_poll, true},
        {"its refusal", ubx_poll, "\xB5\x62\x05\x00\x02\x00\x06\x08"s, true},
        {"another frame", ubx_poll, "\xB5\x62\x06\x3E\x00\x00\x0E\x30"s, false},
        {"a sentence for a frame", ubx_poll, nmea("GPGGA,1"), false},
        {"silence", "PUBX,04", "", false},
        {"more than fits", "GPGPQ,GGA", "$GPGGA," + std::string(198, '1'), false},
    };
    for (const auto &[name, asked, answered, is_sound] : rows) {
        SCOPED_TRACE(name);
        SetUp();
        answer_raw(asked, answered);
        answer_raw("z", is_sound ? "" : "own");
        EXPECT_EQ(exchange(asked), answered.empty() ? 2 : 0);
        peer->send_unasked("queued");
        EXPECT_EQ(exchange(), 0);
        // Its own answer may be there by then, too.
        EXPECT_TRUE(std::string_view(answer.text).starts_with(is_sound ? "queued" : "own"))
            << answer.text;
    }
}

TEST_F(request, what_a_receiver_says_at_its_start_is_dropped) {
    mt_gps_status = 0;
    answer_raw("z", "$own");
    EXPECT_EQ(exchange(), 0); // ends the doubt of the open line
    for (const uint32_t mode : {0u, 2u})
        EXPECT_EQ(gps_set_power_mode(mode, 3), 0) << mode;
    peer->send_unasked("GPTXT");
    EXPECT_EQ(exchange(), 0);
    EXPECT_STREQ(answer.text, "$own");
}

TEST_F(request, a_ta_request_needs_the_antenna_and_room) {
    on_board_2("$answer", 7);
    EXPECT_EQ(exchange(), 0);
    EXPECT_EQ(exchange(too_long), 1); // for the TA's record
    antenna_type = 3;
    EXPECT_EQ(exchange(), 1);
    EXPECT_EQ(told(fake::sent()), "0 1416>12 412 bytes");
}

TEST_F(request, ta_answers_over_200_bytes_are_corrupt) {
    const std::string text(200, 'A');
    for (const uint32_t cmd_len : {200u, 201u, 0xFFFFFFFFu}) {
        on_board_2(text, cmd_len);
        EXPECT_EQ(exchange(), cmd_len == 200 ? 0 : 1);
        EXPECT_EQ(answer.length, cmd_len);
        EXPECT_EQ(answer.text[2], cmd_len == 200 ? 'A' : '\0');
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
