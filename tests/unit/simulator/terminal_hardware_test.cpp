// The hardware of board 1 put together: power lines, serial device, faults that change while it
// runs. The receiver is the stand-in.
#include "terminal.h"
#include "terminal_fake_receiver.h"
#include "terminal_loop.h"
#include "terminal_say.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace sim {
namespace {

struct board_one : testing::Test {
    std::string root;
    terminal_paths paths;
    std::string error;
    int device = -1;

    void SetUp() override {
        std::string name = testing::TempDir() + "/hardware_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        root = name;
        paths = tree_paths(root);
        std::filesystem::create_directories(root + "/dev");
        fake_receiver_delay_s = 0;
        terminal_options options;
        options.baud = 0;
        say_to_stderr(true); // the test's own findings go to stdout
        ASSERT_TRUE(terminal_up(options, paths, 1, error)) << error;
        // The test looks at its end of the device often enough.
        loop_add_timer([] { return loop_now() + 0.001; }, [] {});
        device = open(paths.uart.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_GE(device, 0);
    }
    void TearDown() override {
        if (device >= 0) {
            close(device);
        }
        terminal_down();
        loop_close();
        std::filesystem::remove_all(root);
    }

    void put(const std::string &file, const char *text) const {
        const int fd = open((paths.gpio + "/" + file).c_str(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0) << file;
        EXPECT_GT(write(fd, text, strlen(text)), 0);
        close(fd);
    }
    void drive(const char *line, const char *level) const {
        put(std::string("gpio") + line + "/direction", "out");
        put(std::string("gpio") + line + "/value", level);
    }
    // Sends a line and returns what comes back while the loop runs; "" = nothing soon.
    std::string exchange(const char *text) const {
        if (write(device, text, strlen(text)) < 0) {
            return "error";
        }
        std::string answer;
        loop_until(
            [&] {
                pollfd polled{device, POLLIN, 0};
                std::array<char, 64> part;
                ssize_t count = 0;
                while (poll(&polled, 1, 0) > 0 &&
                       (count = read(device, part.data(), part.size())) > 0) {
                    answer.append(part.data(), static_cast<size_t>(count));
                }
                return answer.ends_with('>');
            },
            loop_now() + patience);
        return answer;
    }
    double patience = 5;
};

TEST_F(board_one, receiver_answers_with_both_power_lines_up) {
    drive("102", "1");
    patience = 0.05;
    EXPECT_EQ(exchange("one line\n"), "");
    drive("37", "1");
    patience = 5;
    EXPECT_EQ(exchange("both\n"), "<both>");
    EXPECT_EQ(terminal_power(), "gpio102=1 gpio37=1 receiver on\n");
    drive("102", "0");
    patience = 0.05;
    EXPECT_EQ(exchange("off\n"), "");
    EXPECT_EQ(terminal_power(), "gpio102=0 gpio37=1 receiver off\n");
}

TEST_F(board_one, lines_are_exported_again_when_the_device_is_closed) {
    put("unexport", "102");
    put("unexport", "37");
    terminal_step();
    EXPECT_FALSE(std::filesystem::exists(paths.gpio + "/gpio102"));
    EXPECT_FALSE(std::filesystem::exists(paths.gpio + "/gpio37"));
    close(std::exchange(device, -1));
    terminal_step();
    EXPECT_TRUE(std::filesystem::exists(paths.gpio + "/gpio102/direction"));
    EXPECT_TRUE(std::filesystem::exists(paths.gpio + "/gpio37/direction"));
}

TEST_F(board_one, faults_act_at_once_and_end_at_once) {
    drive("102", "1");
    drive("37", "1");
    EXPECT_EQ(exchange("before\n"), "<before>");
    ASSERT_TRUE(terminal_fault("garbage-before", "2", true, error)) << error;
    EXPECT_EQ(exchange("x\n").size(), 5U);
    ASSERT_TRUE(terminal_fault("garbage-before", "", false, error)) << error;
    EXPECT_EQ(exchange("after\n"), "<after>");
    EXPECT_FALSE(terminal_fault("nothing", "", true, error));
}

TEST_F(board_one, unplugged_device_comes_back_under_its_path) {
    drive("102", "1");
    drive("37", "1");
    EXPECT_EQ(exchange("before\n"), "<before>");
    ASSERT_TRUE(terminal_fault("unplugged", "", true, error)) << error;
    EXPECT_EQ(exchange("gone\n"), "error");
    EXPECT_FALSE(std::filesystem::exists(paths.uart));
    EXPECT_NE(terminal_describe().find("unplugged"), std::string::npos);
    ASSERT_TRUE(terminal_fault("unplugged", "", false, error)) << error;
    close(device);
    device = open(paths.uart.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    ASSERT_GE(device, 0);
    EXPECT_EQ(exchange("back\n"), "<back>"); // the receiver has kept its power
}

TEST(terminal, what_cannot_come_up_says_why) {
    terminal_options options;
    options.faults = {"slient"};
    std::string error;
    EXPECT_FALSE(terminal_up(options, tree_paths(testing::TempDir() + "/nowhere"), 1, error));
    EXPECT_NE(error.find("no fault \"slient\""), std::string::npos) << error;
    terminal_down();
    options.faults.clear();
    options.place = "nowhere";
    EXPECT_FALSE(terminal_up(options, tree_paths(testing::TempDir() + "/nowhere"), 1, error));
    EXPECT_NE(error.find("--place nowhere"), std::string::npos) << error;
    terminal_down();
}

} // namespace
} // namespace sim
