// What may be typed behind lsctl ubx, and how an answer to it is split.
#include "fake_bus.h"
#include "lsctl_engineering.h"

#include <gtest/gtest.h>

namespace {

using words = std::vector<std::string>;

const bytes RATE_POLL = {0xB5, 0x62, 0x06, 0x08, 0x00, 0x00, 0x0E, 0x30};

TEST(lsctl_ubx, spellings_of_one_frame) {
    const words spellings[] = {
        {"B5, 62, 6,", "8, 0, 0"},   {"B56206080000"}, {"0xB5", "0X62", "0x6", "0x8", "0x0", "0x0"},
        {"B5,62,06,08,00,00,00,00"}, {"06", "08"},
    };
    bytes frame;
    for (const words &typed : spellings) {
        EXPECT_EQ(ubx_parse(typed, frame), "") << typed[0];
        EXPECT_EQ(frame, RATE_POLL) << typed[0];
    }
    EXPECT_EQ(ubx_parse(words{"06 08 E8 03 01 00 01 00"}, frame), "");
    EXPECT_EQ(frame, (bytes{0xB5, 0x62, 6, 8, 6, 0, 0xE8, 3, 1, 0, 1, 0, 0x01, 0x39}));
}

TEST(lsctl_ubx, answer_is_split_into_frames) {
    bytes answer = RATE_POLL;
    answer.insert(answer.end(), {'n', 'o', 0xB5, 0x62, 5, 0, 2, 0, 6, 8, 0x15, 0x3A});
    answer.resize(80);
    EXPECT_TRUE(ubx_split(answer).at(0).checksum_ok);
    EXPECT_EQ(ubx_split(answer).at(1).bytes.size(), 2U);
    EXPECT_TRUE(ubx_is_nak(ubx_split(answer).at(2), 0x06, 0x08));
    EXPECT_FALSE(ubx_is_nak(ubx_split(answer).at(2), 0x06, 0x09));
    answer[18] ^= 1; // its checksum
    EXPECT_FALSE(ubx_is_nak(ubx_split(answer).at(2), 0x06, 0x08));
    // A frame that fills the answer, and one a byte longer; sync bytes at the very end.
    answer = padded({0xB5, 0x62, 0x0A, 0x04, 72, 0}, 80, {0xB5, 0x62}, 78);
    EXPECT_TRUE(ubx_split(answer).at(0).complete);
    answer[4] = 73;
    EXPECT_FALSE(ubx_split(answer).at(0).complete);
    EXPECT_EQ(ubx_split(answer).at(0).bytes.size(), 74U);
}

} // namespace
