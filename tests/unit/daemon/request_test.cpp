// The receiver exchange: the serial path, and the hand-off with the TA's answers.
#include "fake_platform.h"
#include "gps_message_handler.h"
#include "gps_service.h"
#include "gps_uart.h"
#include "line_peer.h"
#include "ls_state.h"
#include "scratch_dir.h"

#include <array>
#include <gtest/gtest.h>

namespace {

using command = std::array<char, GPS_COMMAND_SIZE>;

command text_command(std::string_view text) {
    command cmd = {};
    text.copy(cmd.data(), cmd.size());
    return cmd;
}

// What the TA sends back, delivered as the bus would.
void deliver_ta_answer(std::string_view answer, uint32_t cmd_len) {
    gps_data_req_pld pld = {};
    answer.copy(reinterpret_cast<char *>(pld.response), sizeof(pld.response));
    pld.cmd_len = cmd_len;
    std::vector<uint8_t> bytes(sizeof(pld));
    memcpy(bytes.data(), &pld, sizeof(pld));
    bus_msg msg = fake::make_message(1, 1416, 12, bytes);
    ls_hal_process_message(fake::connection(), &msg);
}

class request : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override { ls_hal_uart_close(); }

    void on_board_2() {
        gps_board_type_g = 2;
        antenna_type = 4;
    }

    scratch_dir dir;
    std::array<char, GPS_ANSWER_SIZE> resp = {};
    uint32_t len = 200;
};

TEST_F(request, other_boards_fail_at_once) {
    gps_board_type_g = 3;
    EXPECT_EQ(gps_get_data_req(text_command("$z*7A\r\n").data(), resp.data(), &len), 1);
    EXPECT_TRUE(fake::logged().empty());
}

TEST_F(request, serial_exchange_gives_answer_and_length) {
    line_peer peer([](const std::string &) { return std::string(300, 'A'); });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    EXPECT_EQ(gps_get_data_req(text_command("$z*7A\r\n").data(), resp.data(), &len), 0);
    EXPECT_EQ(len, 205u); // one read, bounded
    EXPECT_EQ(strlen(resp.data()), 205u);
    EXPECT_EQ(peer.commands(), std::vector<std::string>{"$z*7A\r\n"});
}

TEST_F(request, serial_frames_have_the_length_they_claim) {
    line_peer peer([](const std::string &) { return "x"; });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    command poll = text_command(std::string_view("\xB5\x62\x06\x08\x00\x00\x0E\x30", 8));
    EXPECT_EQ(gps_get_data_req(poll.data(), resp.data(), &len), 0);
    command whole = text_command(std::string_view("\xB5\x62\x06\x08\xC0\x00", 6)); // 192 + 8
    EXPECT_EQ(gps_get_data_req(whole.data(), resp.data(), &len), 0);
    command over = text_command(std::string_view("\xB5\x62\x06\x08\xC1\x00", 6));
    EXPECT_EQ(gps_get_data_req(over.data(), resp.data(), &len), 1);
    const auto commands = peer.commands();
    ASSERT_EQ(commands.size(), 2u); // what would not fit its buffer was not sent
    EXPECT_EQ(commands[0].size(), 8u);
    EXPECT_EQ(commands[1].size(), 200u);
}

TEST_F(request, a_dead_line_fails_the_exchange) {
    EXPECT_EQ(gps_get_data_req(text_command("$z*7A\r\n").data(), resp.data(), &len), 1);
    EXPECT_EQ(fake::count_logged(3, "ERROR: tty write failed \n"), 1u);
}

TEST_F(request, ta_request_carries_the_command) {
    on_board_2();
    fake::on_send([](const fake::sent_message &) { deliver_ta_answer("$answer", 7); });
    EXPECT_EQ(gps_get_data_req(text_command("$GPGPQ,GGA*3C\r\n").data(), resp.data(), &len), 0);
    EXPECT_EQ(len, 7u);
    EXPECT_STREQ(resp.data(), "$answer");
    EXPECT_EQ(fake::count_logged(7, "received buffer = $answer"), 1u);

    command frame = text_command(std::string_view("\xB5\x62\x01\x01\x00\x00\x02\x07", 8));
    len = 8;
    EXPECT_EQ(gps_get_data_req(frame.data(), resp.data(), &len), 0);

    const auto sent = fake::sent();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].hdr.msg_type, 0);
    EXPECT_EQ(sent[0].hdr.msg_id, 1416u);
    EXPECT_EQ(sent[0].hdr.dst_serv_id, 12);
    ASSERT_EQ(sent[0].payload.size(), 412u);
    EXPECT_EQ(sent[0].as<gps_data_req_pld>().cmd_len, 15u);
    EXPECT_STREQ(reinterpret_cast<const char *>(sent[0].payload.data() + 1), "$GPGPQ,GGA*3C\r\n");
    EXPECT_EQ(sent[1].as<gps_data_req_pld>().cmd_len, 8u);
    EXPECT_EQ(memcmp(sent[1].payload.data() + 1, frame.data(), 9), 0);
}

TEST_F(request, ta_needs_antenna_type_4_and_a_bus) {
    gps_board_type_g = 2;
    antenna_type = 3;
    EXPECT_EQ(gps_get_data_req(text_command("$z*7A\r\n").data(), resp.data(), &len), 1);
    EXPECT_TRUE(fake::logged().empty());
    antenna_type = 4;
    fake::set_send_result(-1);
    EXPECT_EQ(gps_get_data_req(text_command("$z*7A\r\n").data(), resp.data(), &len), 1);
    EXPECT_EQ(fake::count_logged(3, "Error while sending message to service"), 1u);
}

TEST_F(request, ta_answers_over_200_bytes_are_corrupt) {
    on_board_2();
    for (const uint32_t cmd_len : {200u, 201u, 0xFFFFFFFFu}) {
        fake::on_send([cmd_len](const fake::sent_message &) {
            deliver_ta_answer(std::string(200, 'A'), cmd_len);
        });
        resp.fill('x');
        EXPECT_EQ(gps_get_data_req(text_command("$z*7A\r\n").data(), resp.data(), &len),
                  cmd_len == 200 ? 0 : 1);
        EXPECT_EQ(len, cmd_len);
        EXPECT_EQ(resp[2], cmd_len == 200 ? 'A' : 'x');
    }
    EXPECT_EQ(fake::count_logged(3, "gps_get_data_req: rffe module returned corrupt pointer: "
                                    "gps_data_req_pld.cmd_len = 201"),
              1u);
}

TEST_F(request, a_short_ta_answer_is_completed_with_zeros) {
    on_board_2();
    fake::on_send([](const fake::sent_message &) {
        std::vector<uint8_t> bytes(210, 'A');
        bus_msg msg = fake::make_message(1, 1416, 12, bytes);
        ls_hal_process_message(fake::connection(), &msg);
    });
    EXPECT_EQ(gps_get_data_req(text_command("$z*7A\r\n").data(), resp.data(), &len), 0);
    EXPECT_EQ(len, 0u);
}

// The late answer clears the flag without waking anybody; the one after it counts again.
TEST_F(request, a_late_ta_answer_does_not_answer_the_next_request) {
    on_board_2();
    rffe_req_sem_wait_time = 0;
    EXPECT_EQ(gps_get_data_req(text_command("$z*7A\r\n").data(), resp.data(), &len), 1);
    EXPECT_EQ(fake::count_logged(3, "gps_get_data_req: semaphore timed out, did not receive GPS "
                                    "data from TA\n"),
              1u);
    EXPECT_EQ(ta_req_timed_out_g, 1);
    deliver_ta_answer("$late", 5);
    EXPECT_EQ(ta_req_timed_out_g, 0);

    rffe_req_sem_wait_time = 15;
    fake::on_send([](const fake::sent_message &) { deliver_ta_answer("$fresh", 6); });
    EXPECT_EQ(gps_get_data_req(text_command("$z*7A\r\n").data(), resp.data(), &len), 0);
    EXPECT_STREQ(resp.data(), "$fresh");
}

TEST_F(request, a_ta_answer_on_board_1_is_ignored) {
    deliver_ta_answer("$stray", 6);
    EXPECT_EQ(sem_trywait(&ta_data_sem), -1);
    EXPECT_EQ(ta_data_req_pld.cmd_len, 0u);
    EXPECT_EQ(fake::count_logged(6, "Received GPS data from TA: Message Id  1416\n"), 1u);
}

} // namespace
