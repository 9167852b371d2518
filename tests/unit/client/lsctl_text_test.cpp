// Values as lsctl shows them that a receiver seldom sends; what may be typed behind lsctl nmea and
// ubx, and what an answer to it looks like.
#include "fake_bus.h"
#include "lsctl_engineering.h"
#include "lsctl_lpp.h"
#include "lsctl_text.h"

#include <cmath>

#include <gtest/gtest.h>

namespace {

using words = std::vector<std::string>;

const bytes RATE_POLL = {0xB5, 0x62, 0x06, 0x08, 0x00, 0x00, 0x0E, 0x30};

TEST(lsctl_text, utc_only_from_a_date_and_time) {
    const std::pair<gps_time_fields, const char *> rows[] = {
        {{23, 59, 60, 0, 31, 12, 2016}, "2016-12-31T23:59:60Z"}, // leap second
        {{}, ""},
        {{1, 1, 1, 0, 1, 13, 2019}, ""}, // month
        {{1, 1, 1, 0, 0, 1, 2019}, ""},  // day
        {{24, 1, 1, 0, 1, 1, 2019}, ""}, // hour
        {{1, 60, 1, 0, 1, 1, 2019}, ""}, // minute
        {{1, 1, 61, 0, 1, 1, 2019}, ""}, // second
    };
    for (const auto &row : rows)
        EXPECT_EQ(lsctl_utc(row.first), row.second);
}

TEST(lsctl_text, degrees_and_minutes_are_rounded_as_a_whole) {
    const struct {
        double degrees;
        char hemisphere;
        const char *text;
    } rows[] = {{59.9999991, 'S', "59 deg 59.9999' S"},
                {59.9999999, 'S', "60 deg 00.0000' S"},
                {1.5, '\0', "1 deg 30.0000' ?"},
                {NAN, 'N', "unknown"},
                {1e300, 'N', "unknown"}};
    for (const auto &row : rows)
        EXPECT_EQ(lsctl_degrees_minutes(row.degrees, row.hemisphere), row.text);
    gps_lpp_location edge{};
    for (const auto &[code, degrees] : {std::pair{0x7FFFFFU, 179.99998}, {0x800000U, -180.0}}) {
        edge.degrees_longitude = code;
        EXPECT_NEAR(lpp_longitude_deg(edge), degrees, 3e-6) << code;
    }
}

TEST(lsctl_ubx, spellings_of_one_frame) {
    const words spellings[] = {
        {"b5,62,06,08,00,00,0e,30"},
        {"B5, 62, 6,", "8, 0, 0"},
        {"B56206080000"},
        {"0xB5", "0X62", "0x6", "0x8", "0x0", "0x0"},
        {"B5,62,06,08,00,00,00,00"},
        {"06", "08"},
    };
    bytes frame;
    for (const words &typed : spellings) {
        EXPECT_EQ(ubx_parse(typed, frame), "") << typed[0];
        EXPECT_EQ(frame, RATE_POLL) << typed[0];
    }
    EXPECT_EQ(ubx_parse(words{"06 08 E8 03 01 00 01 00"}, frame), "");
    EXPECT_EQ(frame, (bytes{0xB5, 0x62, 6, 8, 6, 0, 0xE8, 3, 1, 0, 1, 0, 0x01, 0x39}));
}

TEST(lsctl_ubx, what_is_wrong_is_said) {
    const std::pair<const char *, const char *> rows[] = {
        {"06", "class and id are needed"},
        {"06 0x", "'0x' is not hexadecimal"},
        {"B5620", "'B5620' has an odd number of digits"},
        {"B5 62 06 08 00", "the frame ends before its payload length"},
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
    // A frame that fills the answer, and one a byte longer; sync bytes at the very end.
    answer = padded({0xB5, 0x62, 0x0A, 0x04, 72, 0}, 80, {0xB5, 0x62}, 78);
    EXPECT_TRUE(ubx_split(answer).at(0).complete);
    answer[4] = 73;
    EXPECT_EQ(ubx_answer_json(ubx_split(answer))[0]["complete"], false);
    EXPECT_EQ(ubx_split(answer).at(0).bytes.size(), 74U);
    answer[0] = 0x11;
    EXPECT_FALSE(ubx_split(answer).at(0).is_frame);
}

TEST(lsctl_nmea, what_is_wrong_is_said) {
    constexpr const char *text = "the sentence may hold printable ASCII characters only";
    const std::pair<std::string, const char *> rows[] = {
        {std::string(79, '~'), ""},
        {std::string(80, '~'), "the sentence has 80 characters; the request holds 79"},
        {"", "the sentence is empty"},
        {"PUBX,00*33", "give the sentence without $, * and checksum: the service adds them"},
        {"PUBX\n", text},
        {"PUBX\x7F", text},
        {"PUBX\xC3", text}};
    for (const auto &[typed, problem] : rows)
        EXPECT_EQ(nmea_problem(typed), problem) << typed;
    EXPECT_TRUE(nmea_expects_answer("PUBX,00"));
    EXPECT_FALSE(nmea_expects_answer("PUBX,40,GLL,0,0,0,0,0,0"));
    EXPECT_FALSE(nmea_expects_answer("PUBX,41,1,0007,0003,9600,0"));
}

TEST(lsctl_nmea, answer_as_text_or_as_bytes) {
    const bytes text = padded({'$', 'A', '\r', '\n', '$', 'c', 'u', 't'}, 200);
    EXPECT_EQ(nmea_answer_text(text), "$A\n$cut\n");
    EXPECT_EQ(nmea_answer_json(text).dump(), R"({"answer_bytes":8,"answer_text":"$A\n$cut\n"})");
    const bytes binary = padded({0xB5, 'g'}, 200);
    EXPECT_EQ(nmea_answer_text(binary),
              "  0000  B5 67                                            .g\n");
    EXPECT_EQ(nmea_answer_json(binary).dump(), R"({"answer_bytes":2,"answer_hex":"B5 67"})");
}

} // namespace
