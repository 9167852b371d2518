// lsctl nmea and ubx: what may be typed, and what an answer looks like.
#include "lsctl_engineering.h"
#include "lsctl_ubx.h"

#include <cstring>

#include <gtest/gtest.h>

namespace {

using bytes = std::vector<uint8_t>;
using words = std::vector<std::string>;

const bytes RATE_POLL = {0xB5, 0x62, 0x06, 0x08, 0x00, 0x00, 0x0E, 0x30};

TEST(lsctl_ubx, spellings_of_one_frame) {
    const words spellings[] = {
        {"B5", "62", "06", "08", "00", "00", "0E", "30"},
        {"b5,62,06,08,00,00,0e,30"},
        {"B5, 62, 6,", "8, 0, 0"},
        {"B56206080000"},
        {"0xB5", "0X62", "0x6", "0x8", "0x0", "0x0"},
        {"B5,62,06,08,00,00,00,00"},
        {"06", "08"},
    };
    for (const words &typed : spellings) {
        bytes typed_frame;
        EXPECT_EQ(ubx_parse(typed, typed_frame), "") << typed[0];
        EXPECT_EQ(typed_frame, RATE_POLL) << typed[0];
    }
    bytes frame;
    EXPECT_EQ(ubx_parse(words{"06 08 E8 03 01 00 01 00"}, frame), "");
    EXPECT_EQ(frame, (bytes{0xB5, 0x62, 6, 8, 6, 0, 0xE8, 3, 1, 0, 1, 0, 0x01, 0x39}));
}

TEST(lsctl_ubx, what_is_wrong_is_said) {
    const std::pair<const char *, const char *> rows[] = {
        {" , ", "class and id are needed"},
        {"06", "class and id are needed"},
        {"06 0x", "'0x' is not hexadecimal"},
        {"06 -1", "'-1' is not hexadecimal"},
        {"B5620", "'B5620' has an odd number of digits"},
        {"B5 62 06 08 00", "the frame ends before its payload length"},
        {"B5 62 06 08 01 00", "the length field says 1 payload bytes and two of checksum may "
                              "follow, but 0 bytes follow"},
        {"B5 62 06 08 00 00 0E 30 00", "the length field says 0 payload bytes and two of checksum "
                                       "may follow, but 3 bytes follow"},
        {"B5 62 06 08 00 00 0E 31",
         "the checksum of this frame is 0E 30, not 0E 31; 00 00 has it filled in"},
        {"0A 04 AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA",
         "the frame has 28 bytes; written out it does not fit into the 79 characters of the "
         "request (26 bytes always fit)"},
    };
    for (const auto &row : rows) {
        bytes frame;
        EXPECT_EQ(ubx_parse(words{row.first}, frame), row.second) << row.first;
    }
}

TEST(lsctl_ubx, answer_is_split_into_frames) {
    bytes answer = RATE_POLL;
    answer.insert(answer.end(), {'n', 'o', 0xB5, 0x62, 5, 1, 2, 0, 6, 8, 0x16, 0x3F});
    answer.resize(80);
    EXPECT_EQ(ubx_answer_text(ubx_split(answer)),
              "CFG-RATE (06 08), 0 payload bytes, checksum good\n"
              "2 bytes outside of frames\n"
              "  0000  6E 6F                                            no\n"
              "ACK-ACK (05 01), 2 payload bytes, checksum good\n"
              "  0000  06 08                                            ..\n");
    EXPECT_TRUE(ubx_is_ack(ubx_split(answer).at(2), 0x06, 0x08));
    EXPECT_FALSE(ubx_is_ack(ubx_split(answer).at(2), 0x06, 0x09));
    EXPECT_FALSE(ubx_is_nak(ubx_split(answer).at(2), 0x06, 0x08));
    answer[18] ^= 1; // checksum of the acknowledgement
    EXPECT_FALSE(ubx_is_ack(ubx_split(answer).at(2), 0x06, 0x08));
    EXPECT_TRUE(ubx_split(bytes(80)).empty());
}

TEST(lsctl_ubx, a_cut_frame_is_shown_as_far_as_it_goes) {
    bytes answer(80, 0x11);
    const bytes head = {0xB5, 0x62, 0x0A, 0x04, 73, 0}; // one byte more than fits
    std::copy(head.begin(), head.end(), answer.begin());
    const auto pieces = ubx_split(answer);
    ASSERT_EQ(pieces.size(), 1U);
    EXPECT_EQ(pieces[0].bytes.size(), 74U);
    EXPECT_EQ(ubx_answer_text(pieces).substr(0, 44),
              "MON-VER (0A 04), cut after 74 payload bytes\n");
    EXPECT_EQ(ubx_answer_json(pieces)[0]["complete"], false);
    answer[4] = 72;
    EXPECT_TRUE(ubx_split(answer).at(0).complete);
    // The sync bytes alone at the very end are no frame.
    bytes tail(80, 0x11);
    tail[78] = 0xB5;
    tail[79] = 0x62;
    ASSERT_EQ(ubx_split(tail).size(), 1U);
    EXPECT_FALSE(ubx_split(tail)[0].is_frame);
}

TEST(lsctl_nmea, what_is_wrong_is_said) {
    EXPECT_EQ(nmea_problem(std::string(79, '~')), "");
    EXPECT_EQ(nmea_problem(std::string(80, '~')),
              "the sentence has 80 characters; the request holds 79");
    EXPECT_EQ(nmea_problem(""), "the sentence is empty");
    EXPECT_EQ(nmea_problem("PUBX,00*33"),
              "give the sentence without $, * and checksum: the service adds them");
    for (const char *bad : {"PUBX\n", "PUBX\x7F", "PUBX\xC3"}) {
        EXPECT_EQ(nmea_problem(bad), "the sentence may hold printable ASCII characters only");
    }
    EXPECT_TRUE(nmea_expects_answer("PUBX,00"));
    EXPECT_FALSE(nmea_expects_answer("PUBX,40,GLL,0,0,0,0,0,0"));
    EXPECT_FALSE(nmea_expects_answer("PUBX,41,1,0007,0003,9600,0"));
}

TEST(lsctl_nmea, answer_as_text_or_as_bytes) {
    const auto filled = [](std::string_view text) {
        bytes answer(200);
        std::memcpy(answer.data(), text.data(), text.size());
        return answer;
    };
    EXPECT_EQ(nmea_answer_text(filled("$GPGSV,1\r\n$GPGSV,cut")), "$GPGSV,1\n$GPGSV,cut\n");
    EXPECT_EQ(nmea_answer_text(filled("\xB5g")),
              "  0000  B5 67                                            .g\n");
    EXPECT_EQ(nmea_answer_json(filled("\xB5g")).dump(),
              R"({"answer_bytes":2,"answer_hex":"B5 67"})");
    EXPECT_EQ(nmea_answer_json(filled("$A\r\n")).dump(),
              R"({"answer_bytes":4,"answer_text":"$A\n"})");
}

} // namespace
