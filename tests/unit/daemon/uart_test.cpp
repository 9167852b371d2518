// The serial transport on a pty: configuration, write, read, time-out, line failure.
#include "fake_platform.h"
#include "gps_uart.h"
#include "line_peer.h"
#include "ls_messages.h"
#include "ls_state.h"
#include "scratch_dir.h"

#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <termios.h>

namespace {

class uart : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override { ls_hal_uart_close(); }

    scratch_dir dir;
};

TEST_F(uart, a_missing_device_fails_the_start) {
    EXPECT_EQ(ls_hal_uart_init(), -1);
    EXPECT_EQ(fake::count_logged(3, "Unable to open /dev/ttymxc2\n"), 1u);
}

TEST_F(uart, a_device_that_is_no_terminal_fails_the_start) {
    scratch_dir::write("dev/ttymxc2", "");
    EXPECT_EQ(ls_hal_uart_init(), -1);
    EXPECT_EQ(fake::count_logged(3, "Tty set attributes failed\n"), 1u);
}

TEST_F(uart, the_line_is_raw_at_9600_baud_and_gives_up_after_three_seconds) {
    line_peer peer(nullptr);
    ASSERT_EQ(ls_hal_uart_init(), 0);
    const int fd = open("dev/ttymxc2", O_RDWR | O_NOCTTY);
    termios set = {};
    ASSERT_EQ(tcgetattr(fd, &set), 0);
    close(fd);
    EXPECT_EQ(cfgetospeed(&set), static_cast<speed_t>(B9600));
    EXPECT_EQ(set.c_iflag, static_cast<tcflag_t>(IGNPAR));
    EXPECT_EQ(set.c_oflag, 0u);
    EXPECT_EQ(set.c_lflag, 0u);
    EXPECT_EQ(set.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS | CLOCAL | CREAD),
              static_cast<tcflag_t>(CS8 | CLOCAL | CREAD));
    EXPECT_EQ(set.c_cc[VMIN], 0);
    EXPECT_EQ(set.c_cc[VTIME], 30);
}

TEST_F(uart, text_and_frames_go_out_and_come_back) {
    line_peer peer([](const std::string &command) { return command; });
    ASSERT_EQ(ls_hal_uart_init(), 0);
    const std::string text = "$z*7A\r\n";
    const std::string frame("\xB5\x62\x06\x08\x00\x00\x0E\x30", 8);
    for (const std::string &command : {text, frame}) {
        EXPECT_EQ(ls_hal_tty_write(reinterpret_cast<const uint8_t *>(command.data()),
                                   static_cast<int32_t>(command.size())),
                  0);
        std::array<uint8_t, 400> answer = {};
        int32_t length = 200;
        EXPECT_EQ(ls_hal_tty_read(answer.data(), &length), 0);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(answer.data()), static_cast<size_t>(length)),
                  command);
    }
    EXPECT_EQ(fake::count_logged(7, "Received buffer = $z*7A"), 1u);
    EXPECT_EQ(fake::count_logged(7, "2nd last byte = 0xd, last byte = 0xa"), 1u);
    EXPECT_EQ(fake::count_logged(7, "0xb5 "), 1u);
}

TEST_F(uart, a_read_takes_what_is_there_up_to_what_is_wanted) {
    line_peer peer(nullptr);
    ASSERT_EQ(ls_hal_uart_init(), 0);
    peer.send(std::string(500, 'A'));
    usleep(20000); // one read is to see all of it
    std::array<uint8_t, 400> answer = {};
    int32_t length = 1000; // clamped to the buffer
    EXPECT_EQ(ls_hal_tty_read(answer.data(), &length), 0);
    EXPECT_EQ(length, 400);
    length = 205;
    EXPECT_EQ(ls_hal_tty_read(answer.data(), &length), 0);
    EXPECT_EQ(length, 100);
    peer.send("B");
    EXPECT_EQ(ls_hal_tty_read(answer.data(), &(length = 205)), 0); // a single byte has no 2nd last
    EXPECT_EQ(length, 1);
}

TEST_F(uart, silence_is_result_2_after_three_seconds) {
    line_peer peer(nullptr);
    ASSERT_EQ(ls_hal_uart_init(), 0);
    std::array<uint8_t, 205> answer = {};
    int32_t length = 205;
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(ls_hal_tty_read(answer.data(), &length), 2);
    const std::chrono::duration<double> waited = std::chrono::steady_clock::now() - before;
    EXPECT_EQ(length, 0);
    EXPECT_NEAR(waited.count(), 3.0, 0.3);
    EXPECT_EQ(fake::count_logged(3, "Read from tty device failed. Device Timeout..\n"), 1u);
}

// Without a line every call fails at once, which is what a dead device looks like.
TEST_F(uart, a_line_failure_raises_one_alarm_a_call) {
    std::array<uint8_t, 8> bytes = {};
    EXPECT_EQ(ls_hal_tty_write(bytes.data(), 8), 1);
    int32_t length = 8;
    EXPECT_EQ(ls_hal_tty_read(bytes.data(), &length), 1);
    EXPECT_EQ(length, -1);
    EXPECT_EQ(fake::count_logged(3, "Write to tty device failed\n"), 1u);
    EXPECT_EQ(fake::count_logged(3, "Error while reading from tty device\n"), 1u);

    const auto sent = fake::sent();
    ASSERT_EQ(sent.size(), 2u);
    for (const fake::sent_message &message : sent) {
        EXPECT_EQ(message.hdr.msg_type, 2);
        EXPECT_EQ(message.hdr.msg_id, 810u);
        EXPECT_EQ(message.hdr.dst_serv_id, 6);
        ASSERT_EQ(message.payload.size(), 96u);
        const auto alarm = message.as<ws_alarm_pld>();
        EXPECT_STREQ(alarm.text, "GPS Communication (RX/TX) error");
        EXPECT_NEAR(static_cast<double>(alarm.time), static_cast<double>(time(nullptr)), 2);
    }

    fake::set_send_result(-1);
    EXPECT_EQ(ls_hal_tty_write(bytes.data(), 8), 1);
    EXPECT_EQ(fake::count_logged(
                  3, "Error while sending WS_NOTIFY_ALARM_UPDATEnotification message to WS.\n"),
              1u);
    gps_p_g = nullptr;
    EXPECT_EQ(ls_hal_tty_write(bytes.data(), 8), -1);
    EXPECT_EQ(ls_hal_tty_read(bytes.data(), &(length = 8)), -1);
    EXPECT_EQ(fake::count_logged(3, "gps_p_g is a NULL POINTER!"), 2u);
}

TEST_F(uart, missing_buffers_are_refused) {
    int32_t length = 1;
    EXPECT_EQ(ls_hal_tty_write(nullptr, 1), 1);
    EXPECT_EQ(ls_hal_tty_read(nullptr, &length), 1);
    EXPECT_EQ(fake::count_logged(3, "ls_hal_tty_write: sentence found NULL"), 1u);
    EXPECT_EQ(fake::count_logged(3, "ls_hal_tty_read: sentence found NULL"), 1u);
    EXPECT_TRUE(fake::sent().empty());
}

} // namespace
