// The serial line: when bytes arrive, what faults do to them, and the pty at its end.
#include "line.h"
#include "line_pty.h"
#include "terminal_fake_receiver.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace sim {
namespace {

// A receiver that is on, at the far end of a line at 1000 baud: a byte takes 10 ms.
struct far_end {
    receiver module{receiver_options{}};
    line wire;

    far_end() {
        fake_receiver_delay_s = 0;
        wire.baud = 1000;
        module.set_power(true, true, 0);
    }

    // What has arrived at `now`, joined with "|".
    std::string at(double now) {
        std::string text;
        for (const std::vector<uint8_t> &answer : line_step(wire, module, now)) {
            text += (text.empty() ? "" : "|") + as_text(answer);
        }
        return text;
    }
    void send(const char *text, double now) { line_send(wire, as_bytes(text), now); }
};

// Time stands in the middle between two bytes, so rounding of the sums does not matter.
TEST(line, exchange_takes_the_time_of_both_directions) {
    far_end end;
    end.send("ab\n", 1.0);        // 3 bytes: at the receiver at 1.03
    EXPECT_EQ(end.at(1.065), ""); // "<ab>" is 4 bytes: 1.07
    EXPECT_EQ(end.at(1.075), "<ab>");
}

TEST(line, late_step_does_not_move_events) {
    far_end end;
    fake_receiver_delay_s = 0.5;
    end.send("a\n", 1.0);
    // Nobody looked in between: command at 1.02, answer from 1.52 to 1.55, all taken in one call.
    EXPECT_EQ(end.at(1.555), "<a>");
}

TEST(line, answers_queue_behind_each_other) {
    far_end end;
    end.send("a\nb\n", 0.0); // both answers start at 0.04
    EXPECT_EQ(end.at(0.065), "");
    EXPECT_EQ(end.at(0.075), "<a>"); // 3 bytes
    EXPECT_EQ(end.at(0.095), "");
    EXPECT_EQ(end.at(0.105), "<b>");
}

TEST(line, command_waits_for_the_one_before_it) {
    far_end end;
    end.send("aaaa\n", 0.0); // until 0.05
    end.send("b\n", 0.01);   // until 0.07, its answer until 0.14 (the first one's ends at 0.11)
    EXPECT_EQ(end.at(0.065), "");
    EXPECT_EQ(end.wire.command_bytes, 5U);
    EXPECT_EQ(end.at(0.075), "");
    EXPECT_EQ(end.wire.command_bytes, 7U);
    EXPECT_EQ(end.at(0.115), "<aaaa>");
    EXPECT_EQ(end.at(0.135), "");
    EXPECT_EQ(end.at(0.145), "<b>");
}

TEST(line, directions_do_not_wait_for_each_other) {
    far_end end;
    end.send("a\n", 0.0); // answer from 0.02 to 0.05
    EXPECT_EQ(end.at(0.03), "");
    end.send("b\n", 0.03); // at the receiver at 0.05, answer until 0.08
    EXPECT_EQ(end.at(0.055), "<a>");
    EXPECT_EQ(end.at(0.085), "<b>");
}

TEST(line, without_baud_rate_nothing_takes_time) {
    far_end end;
    end.wire.baud = 0;
    end.send("a\nb\n", 5.0);
    EXPECT_EQ(end.at(5.0), "<a>|<b>");
    EXPECT_FALSE(line_next_event(end.wire, end.module).has_value());
}

TEST(line, says_when_to_come_back) {
    far_end end;
    fake_receiver_delay_s = 1;
    EXPECT_FALSE(line_next_event(end.wire, end.module).has_value());
    end.send("a\n", 2.0);
    EXPECT_DOUBLE_EQ(line_next_event(end.wire, end.module).value(), 2.02);
    EXPECT_EQ(end.at(2.03), "");
    EXPECT_DOUBLE_EQ(line_next_event(end.wire, end.module).value(), 3.02);
    EXPECT_EQ(end.at(3.03), "");
    EXPECT_NEAR(line_next_event(end.wire, end.module).value(), 3.05, 1e-9);
}

TEST(line, command_to_a_receiver_without_power_is_lost) {
    far_end end;
    end.module.set_power(false, true, 0);
    end.send("abc\n", 0.0);
    EXPECT_EQ(end.at(1.0), "");
    EXPECT_EQ(end.wire.lost_bytes, 4U);
    end.module.set_power(true, true, 1.0);
    end.send("b\n", 1.0);
    EXPECT_EQ(end.at(2.0), "<b>");
}

TEST(line, answer_on_its_way_is_lost_with_the_power) {
    far_end end;
    end.send("a\n", 0.0);
    EXPECT_EQ(end.at(0.03), "");
    line_drop_answers(end.wire);
    EXPECT_EQ(end.at(1.0), "");
    EXPECT_EQ(end.wire.lost_bytes, 3U);
}

TEST(line, late_answer_starts_later) {
    far_end end;
    end.wire.faults.late_ms = 200;
    end.send("a\n", 0.0); // 0.02, then 0.2, then 0.03
    EXPECT_EQ(end.at(0.245), "");
    EXPECT_EQ(end.at(0.255), "<a>");
}

TEST(line, unplugged_line_carries_nothing) {
    far_end end;
    end.wire.faults.unplugged = true;
    end.send("a\n", 0.0);
    EXPECT_EQ(end.at(1.0), "");
    EXPECT_EQ(end.wire.lost_bytes, 2U);
}

struct spoil_case {
    const char *name;
    line_faults faults;
    std::string before;
    std::string after;
};

const spoil_case SPOIL_CASES[] = {
    {"nothing", {}, "$GPGGA,1*5A\r\n", "$GPGGA,1*5A\r\n"},
    {"cut_half", {.cut = true}, "123456", "123"},
    {"cut_half_of_odd", {.cut = true}, "12345", "12"},
    {"cut_shorter", {.cut = true, .cut_bytes = 5}, "123456", "12345"},
    {"cut_as_long", {.cut = true, .cut_bytes = 6}, "123456", "123456"},
    {"cut_longer", {.cut = true, .cut_bytes = 7}, "123456", "123456"},
    {"checksum_digit", {.checksum = true}, "$A*48\r\n", "$A*49\r\n"},
    {"checksum_nine", {.checksum = true}, "$A*49\r\n", "$A*4A\r\n"},
    {"checksum_wraps", {.checksum = true}, "$A*4F\r\n", "$A*40\r\n"},
    {"checksum_of_each", {.checksum = true}, "$A*41\r\n$B*42\r\n", "$A*42\r\n$B*43\r\n"},
    {"checksum_missing", {.checksum = true}, "$A*4", "$A*4"},
    {"checksum_frame",
     {.checksum = true},
     "\xB5\x62\x05\x01\x02*4\x33\x44\x55",
     "\xB5\x62\x05\x01\x02*4\x33\x44\x55"}, // length 0x342A: not all there, left alone
};

TEST(line_spoil, damage) {
    for (const spoil_case &row : SPOIL_CASES) {
        std::mt19937 random(1);
        EXPECT_EQ(as_text(line_spoil(as_bytes(row.before), row.faults, random)), row.after)
            << row.name;
    }
}

TEST(line_spoil, checksum_of_frames) {
    // The payload of the first reads like the checksum of a sentence.
    const std::vector<uint8_t> two{0xB5, 0x62, 0x05, 0x01, 0x03, 0x00, '*',  '4',  '1', 0x3F,
                                   0x3F, 0xB5, 0x62, 0x0A, 0x04, 0x00, 0x00, 0x0E, 0x34};
    std::vector<uint8_t> wrong = two;
    wrong[10] = 0xC0;
    wrong[18] = 0xCB;
    std::mt19937 random(1);
    EXPECT_EQ(line_spoil(two, {.checksum = true}, random), wrong);
}

TEST(line_spoil, garbage_stands_around_the_answer) {
    std::mt19937 random(1);
    const std::string text =
        as_text(line_spoil(as_bytes("answer"), {.garbage_before = 3, .garbage_after = 2}, random));
    ASSERT_EQ(text.size(), 11U);
    EXPECT_EQ(text.substr(3, 6), "answer");
}

// As many wrong bits as asked for, and the same ones with the same seed.
TEST(line_spoil, noise_is_as_frequent_as_asked_and_repeatable) {
    const std::vector<uint8_t> clean(10000, 0x55);
    std::mt19937 random(7);
    const std::vector<uint8_t> once = line_spoil(clean, {.noise = 20}, random);
    int wrong_bits = 0;
    for (const uint8_t byte : once) {
        wrong_bits += __builtin_popcount(byte ^ 0x55U);
    }
    EXPECT_GT(wrong_bits, 140);
    EXPECT_LT(wrong_bits, 260);
    std::mt19937 again(7);
    EXPECT_EQ(line_spoil(clean, {.noise = 20}, again), once);
}

// A plugged pty in a directory of its own.
struct line_pty_on_disk : testing::Test {
    std::string directory;
    std::string link;
    line_pty port;

    void SetUp() override {
        std::string name = testing::TempDir() + "/line_pty_XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        link = directory + "/tty";
        std::string error;
        ASSERT_TRUE(line_pty_plug(port, link, error)) << error;
    }
    void TearDown() override {
        line_pty_unplug(port);
        std::filesystem::remove_all(directory);
    }
    int open_device() const { return open(link.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC); }

    // The kernel moves bytes between the two ends on a thread of its own.
    static std::string read_soon(int fd) {
        pollfd polled{fd, POLLIN, 0};
        std::array<char, 512> text;
        if (poll(&polled, 1, 2000) <= 0) {
            return "nothing";
        }
        const ssize_t count = read(fd, text.data(), text.size());
        return count < 0 ? "error" : std::string(text.data(), static_cast<size_t>(count));
    }
};

TEST_F(line_pty_on_disk, carries_bytes_untouched) {
    const int device = open_device();
    ASSERT_GE(device, 0);
    ASSERT_TRUE(line_pty_check(port));
    // Line ends, a tab, flow control, end of file: nothing of it is interpreted, both ways.
    const std::string odd = "a\r\n\t\x04\x03\x11\x13\xB5z";
    ASSERT_EQ(write(device, odd.data(), odd.size()), static_cast<ssize_t>(odd.size()));
    pollfd master{port.master, POLLIN, 0};
    ASSERT_EQ(poll(&master, 1, 2000), 1);
    EXPECT_EQ(as_text(line_pty_read(port)), odd);
    ASSERT_TRUE(line_pty_write(port, as_bytes(odd)));
    EXPECT_EQ(read_soon(device), odd);
    close(device);
}

TEST_F(line_pty_on_disk, what_nobody_listens_to_is_lost) {
    EXPECT_FALSE(line_pty_check(port));
    EXPECT_FALSE(line_pty_write(port, as_bytes("before")));
    const int device = open_device();
    ASSERT_GE(device, 0);
    EXPECT_TRUE(line_pty_write(port, as_bytes("now")));
    EXPECT_EQ(read_soon(device), "now");
    close(device);
    EXPECT_FALSE(line_pty_write(port, as_bytes("after")));
}

TEST_F(line_pty_on_disk, unplugging_hangs_up_and_plugging_brings_the_path_back) {
    const int device = open_device();
    ASSERT_GE(device, 0);
    line_pty_unplug(port);
    EXPECT_EQ(write(device, "x", 1), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(read_soon(device), "");
    EXPECT_EQ(open_device(), -1);
    close(device);
    std::string error;
    ASSERT_TRUE(line_pty_plug(port, link, error)) << error;
    const int again = open_device();
    ASSERT_GE(again, 0);
    EXPECT_TRUE(line_pty_write(port, as_bytes("back")));
    EXPECT_EQ(read_soon(again), "back");
    close(again);
}

TEST_F(line_pty_on_disk, plugging_where_no_link_can_be_made_fails) {
    line_pty other;
    std::string error;
    EXPECT_FALSE(line_pty_plug(other, directory + "/missing/tty", error));
    EXPECT_NE(error.find("creating the link"), std::string::npos) << error;
    EXPECT_EQ(other.master, -1);
}

} // namespace
} // namespace sim
