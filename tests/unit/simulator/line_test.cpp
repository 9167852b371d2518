// The serial line: when bytes arrive, and what faults do to them.
#include "line.h"
#include "receiver_rig.h"

#include <gtest/gtest.h>

namespace sim {
namespace {

using rig::as_bytes;

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
            EXPECT_EQ(one, as_bytes(rig::known_zda));
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
    EXPECT_EQ(at(0.305), 0U);
    EXPECT_NEAR(next(), 0.53, 1e-9);
    EXPECT_EQ(at(0.525), 0U);
    EXPECT_EQ(at(0.535), 1U);
    EXPECT_EQ(at(0.905), 0U);
    EXPECT_EQ(at(0.915), 1U);
    wire.faults.late_ms = 200;
    send(2.0);
    EXPECT_EQ(at(2.725), 0U);
    EXPECT_EQ(at(2.735), 1U) << "nobody looked in between";
}

TEST(line_spoil, frames_get_a_wrong_checksum_and_nothing_else) {
    std::mt19937 random(1);
    // The payload of the first reads like the checksum of a sentence; the last is not all there.
    const std::vector<uint8_t> three = rig::from_hex(
        "b5 62 05 01 03 00 2a 34 31 3f 3f b5 62 0a 04 00 00 0e 34 b5 62 2a 34 34 34 01 aa bb");
    EXPECT_EQ(
        rig::to_hex(line_spoil(three, {.checksum = true}, random)),
        "b5 62 05 01 03 00 2a 34 31 3f c0 b5 62 0a 04 00 00 0e cb b5 62 2a 34 34 34 01 aa bb");
}

} // namespace
} // namespace sim
