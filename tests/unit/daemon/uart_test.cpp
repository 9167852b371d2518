// The serial transport on a pty: configuration, read, time-out, line failure.
#include "daemon_fixture.h"

#include <csignal>
#include <termios.h>

namespace {

using uart = daemon_fixture;

TEST_F(uart, the_line_is_raw_at_9600_baud_and_gives_up_after_three_seconds) {
    const line_peer peer(nullptr);
    ASSERT_EQ(ls_hal_uart_init(), 0);
    const int fd = open("dev/ttymxc2", O_RDWR | O_NOCTTY);
    termios set = {};
    ASSERT_EQ(tcgetattr(fd, &set), 0);
    close(fd);
    using modes = std::array<tcflag_t, 5>;
    EXPECT_EQ((modes{set.c_iflag, set.c_oflag, set.c_lflag, cfgetospeed(&set),
                     set.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS | CLOCAL | CREAD)}),
              (modes{IGNPAR, 0, 0, B9600, CS8 | CLOCAL | CREAD}));
    EXPECT_EQ(set.c_cc[VMIN], 0);
    EXPECT_EQ(set.c_cc[VTIME], 30); // tenths of a second
}

// The platform's libraries have signals and handlers of their own, on any thread.
TEST_F(uart, a_signal_of_somebody_else_is_no_failure_of_the_line) {
    const line_peer peer(nullptr);
    ASSERT_EQ(ls_hal_uart_init(), 0);
    struct sigaction action = {};
    action.sa_handler = [](int) {}; // and no SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    std::thread reader([] {
        std::array<uint8_t, 205> answer = {};
        int32_t length = 205;
        EXPECT_EQ(ls_hal_tty_read(answer.data(), &length), 0);
        EXPECT_EQ(length, 5);
    });
    for (int i = 0; i < 20; ++i) {
        usleep(5000);
        pthread_kill(reader.native_handle(), SIGUSR1);
    }
    peer.send("whole");
    reader.join();
    EXPECT_TRUE(fake::sent().empty()); // no alarm
}

TEST_F(uart, a_read_takes_what_is_there_up_to_what_is_wanted) {
    const line_peer peer(nullptr);
    ASSERT_EQ(ls_hal_uart_init(), 0);
    peer.send(std::string(500, 'A'));
    usleep(20000); // one read is to see all of it
    std::array<uint8_t, 400> answer = {};
    const auto read = [&](int32_t wanted) {
        EXPECT_EQ(ls_hal_tty_read(answer.data(), &wanted), 0);
        return wanted;
    };
    EXPECT_EQ(read(1000), 400); // clamped to the buffer
    EXPECT_EQ(read(205), 100);
    peer.send("B");
    EXPECT_EQ(read(205), 1); // a single byte has no 2nd last
}

} // namespace
