// The serial line: when bytes arrive, what faults do to them, and the pty at its end.
#include "line.h"
#include "line_pty.h"
#include "receiver_rig.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

namespace sim {
namespace {

using rig::as_bytes;

std::string as_text(std::span<const uint8_t> bytes) {
    return {bytes.begin(), bytes.end()};
}

// A receiver at the far end of a line at 1000 baud, where a byte takes 10 ms: the 15 bytes of a
// poll for the time 0.15 s, the 38 of its answer 0.38 s.
struct far_end : testing::Test {
    rig::powered module;
    line wire;

    far_end() { wire.baud = 1000; }
    void send(double now) { line_send(wire, rig::command(rig::zda_poll), now); }
    // How many whole answers have arrived at `now`.
    size_t at(double now) {
        const std::vector<std::vector<uint8_t>> answers = line_step(wire, module, now);
        for (const std::vector<uint8_t> &one : answers)
            EXPECT_EQ(as_text(one), rig::known_zda);
        return answers.size();
    }
    double next() { return line_next_event(wire, module).value_or(-1); }
};

// Time stands in the middle between two bytes, so rounding of the sums does not matter.
TEST_F(far_end, each_direction_takes_its_time_and_is_a_queue_of_its_own) {
    EXPECT_EQ(next(), -1);
    send(0.0);
    send(0.01); // at the receiver at 0.30, its answer behind the first one's, 0.53 to 0.91
    EXPECT_NEAR(next(), 0.15, 1e-9);
    EXPECT_EQ(at(0.295), 0U);
    EXPECT_EQ(wire.command_bytes, 15U);
    EXPECT_EQ(at(0.305), 0U);
    EXPECT_EQ(wire.command_bytes, 30U);
    EXPECT_NEAR(next(), 0.53, 1e-9);
    EXPECT_EQ(at(0.525), 0U);
    EXPECT_EQ(at(0.535), 1U);
    EXPECT_EQ(at(0.905), 0U);
    EXPECT_EQ(at(0.915), 1U);
    wire.faults.late_ms = 200;
    send(2.0);
    EXPECT_EQ(at(2.725), 0U);
    EXPECT_EQ(at(2.735), 1U) << "nobody looked in between";
    wire.faults = {};
    wire.baud = 0;
    send(3.0);
    EXPECT_EQ(at(3.0), 1U);
}

TEST_F(far_end, what_is_under_way_is_lost_with_power_or_plug) {
    module.set_power(false, true, 0);
    send(0.0);
    EXPECT_EQ(at(1.0), 0U);
    EXPECT_EQ(wire.lost_bytes, 15U);
    module.set_power(true, true, 1.0);
    send(1.0);
    EXPECT_EQ(at(1.2), 0U);
    line_drop_answers(wire);
    EXPECT_EQ(at(2.0), 0U);
    EXPECT_EQ(wire.lost_bytes, 15U + 38);
    wire.faults.unplugged = true;
    send(2.0);
    EXPECT_EQ(at(3.0), 0U);
    EXPECT_EQ(wire.lost_bytes, 15U + 38 + 15);
}

TEST(line_spoil, damage) {
    const struct {
        line_faults faults;
        std::string before, after;
    } rows[] = {
        {{.cut = true, .cut_bytes = 5}, "123456", "12345"},
        {{.checksum = true}, "$A*4F\r\n", "$A*40\r\n"},
        {{.checksum = true}, "$A*41\r\n$B*42\r\n", "$A*42\r\n$B*43\r\n"},
        // A frame of 0x3434 bytes: not all there, left alone.
        {{.checksum = true}, "\xB5\x62*44\1\xAA\xBB", "\xB5\x62*44\1\xAA\xBB"},
    };
    std::mt19937 random(1);
    for (const auto &row : rows)
        EXPECT_EQ(as_text(line_spoil(as_bytes(row.before), row.faults, random)), row.after);
    // Two frames; the payload of the first reads like the checksum of a sentence.
    const std::vector<uint8_t> two =
        rig::from_hex("b5 62 05 01 03 00 2a 34 31 3f 3f b5 62 0a 04 00 00 0e 34");
    EXPECT_EQ(rig::to_hex(line_spoil(two, {.checksum = true}, random)),
              "b5 62 05 01 03 00 2a 34 31 3f c0 b5 62 0a 04 00 00 0e cb");
    const std::string text =
        as_text(line_spoil(as_bytes("answer"), {.garbage_before = 3, .garbage_after = 2}, random));
    ASSERT_EQ(text.size(), 11U);
    EXPECT_EQ(text.substr(3, 6), "answer");
    const auto noisy = line_spoil(std::vector<uint8_t>(10000), {.noise = 20}, random);
    const auto hit = 10000 - std::count(noisy.begin(), noisy.end(), 0);
    EXPECT_TRUE(hit > 140 && hit < 260) << hit;
}

// The kernel moves bytes between the two ends on a thread of its own.
std::string read_soon(int fd) {
    pollfd polled{fd, POLLIN, 0};
    char text[64];
    const ssize_t count = poll(&polled, 1, 2000) <= 0 ? -1 : read(fd, text, sizeof text);
    return count < 0 ? "nothing" : std::string(text, static_cast<size_t>(count));
}

TEST(line_pty, carries_bytes_untouched_to_who_listens_until_unplugged) {
    const scratch_dir scratch;
    line_pty port;
    std::string error;
    // Line ends, a tab, flow control, end of file: nothing of it is interpreted, both ways.
    const std::string odd = "a\r\n\t\x04\x03\x11\x13\xB5z";
    for (const char *round : {"first", "plugged again"}) {
        ASSERT_TRUE(line_pty_plug(port, scratch.path() / "tty", error)) << error;
        EXPECT_FALSE(line_pty_write(port, as_bytes("before"))) << round;
        const int device = open("tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
        ASSERT_TRUE(line_pty_check(port)) << round;
        ASSERT_EQ(write(device, odd.data(), odd.size()), static_cast<ssize_t>(odd.size()));
        pollfd master{port.master, POLLIN, 0};
        ASSERT_EQ(poll(&master, 1, 2000), 1);
        EXPECT_EQ(as_text(line_pty_read(port)), odd);
        ASSERT_TRUE(line_pty_write(port, as_bytes(odd)));
        EXPECT_EQ(read_soon(device), odd) << round;
        line_pty_unplug(port);
        EXPECT_EQ(read_soon(device), "") << round;
        EXPECT_EQ(access("tty", F_OK), -1);
        close(device);
    }
}

} // namespace
} // namespace sim
