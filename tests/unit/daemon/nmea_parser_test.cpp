// The sentence codec: literal sentences in, literal bodies and fields out.
#include "fake_platform.h"
#include "gps_nmea_parser.h"
#include "ls_state.h"

#include <array>
#include <gtest/gtest.h>
#include <random>

namespace {

using buffer = std::array<char, NMEA_BUFFER_SIZE>;

buffer received(std::string_view text, size_t at = 0) {
    buffer out = {};
    text.copy(out.data() + at, out.size() - at - 1);
    return out;
}

class nmea_parser : public testing::Test {
  protected:
    void SetUp() override { fake::reset(); }
};

TEST_F(nmea_parser, builds_sentences) {
    struct row {
        const char *body;
        const char *sentence;
    };
    const row rows[] = {
        {"GPGPQ,GGA", "$GPGPQ,GGA*3C\r\n"},
        {"PUBX,00", "$PUBX,00*33\r\n"},
        {"PUBX,40,GLL,0,0,0,0,0,0", "$PUBX,40,GLL,0,0,0,0,0,0*5C\r\n"},
        {"z", "$z*7A\r\n"}, // a digit above 9 is upper case
    };
    for (const row &r : rows) {
        buffer out = {};
        EXPECT_EQ(ls_hal_create_nmea_sentence(r.body, out.data()), 0u) << r.body;
        EXPECT_STREQ(out.data(), r.sentence);
    }
}

TEST_F(nmea_parser, create_refuses_what_is_missing_or_does_not_fit) {
    buffer out = {};
    EXPECT_EQ(ls_hal_create_nmea_sentence(nullptr, out.data()), 1u);
    EXPECT_EQ(ls_hal_create_nmea_sentence("GPGPQ,GGA", nullptr), 1u);
    EXPECT_EQ(fake::count_logged(3, "nmea_msg or nmea_sent found NULL\n"), 2u);
    const std::string longest(NMEA_BUFFER_SIZE - 7, 'A'); // $ * h h CR LF NUL
    EXPECT_EQ(ls_hal_create_nmea_sentence(longest.c_str(), out.data()), 0u);
    EXPECT_EQ(strlen(out.data()), NMEA_BUFFER_SIZE - 1);
    EXPECT_EQ(ls_hal_create_nmea_sentence((longest + "A").c_str(), out.data()), 1u);
    EXPECT_EQ(fake::count_logged(3, "ls_hal_create_nmea_sentence: error calculating cksum\n"), 1u);
}

TEST_F(nmea_parser, ubx_checksum_lands_behind_the_payload) {
    std::array<uint8_t, 9> frame = {0xB5, 0x62, 0x06, 0x08, 0x00, 0x00, 0xFF, 0xFF, 0xEE};
    ls_hal_calculate_ubx_checksum(frame.data() + 2, 4);
    EXPECT_EQ(frame[6], 0x0E);
    EXPECT_EQ(frame[7], 0x30);
    EXPECT_EQ(frame[8], 0xEE);
}

constexpr char zda_body[] = "GPZDA,082710.00,16,09,2002,00,00";
constexpr char zda[] = "$GPZDA,082710.00,16,09,2002,00,00*64\r\n";

TEST_F(nmea_parser, finds_the_sentence_where_the_search_reaches_it) {
    struct row {
        const char *name;
        buffer message;
        bool found;
    };
    const row rows[] = {
        {"at the start", received(zda), true},
        {"behind CR LF", received(std::string("\r\n") + zda), true},
        {"behind one byte: odd positions are not tested", received(zda, 1), false},
        {"behind LF alone", received(std::string("\n") + zda), false},
        {"behind two letters: reading starts at the cursor", received(std::string("xx") + zda),
         false},
        {"behind four blanks", received(std::string("    ") + zda), true},
        {"behind a NUL at position 2", received(zda, 2), false},
    };
    for (const row &r : rows) {
        buffer body = {};
        EXPECT_EQ(ls_hal_extract_nmea_msg(r.message.data(), body.data()), r.found ? 0u : 1u)
            << r.name;
        EXPECT_STREQ(body.data(), r.found ? zda_body : "") << r.name;
    }
}

TEST_F(nmea_parser, extract_says_why_it_failed) {
    struct row {
        const char *name;
        const char *message;
        const char *text;
    };
    const row rows[] = {
        {"no dollar", "GPZDA,082710.00*64\r\n",
         "ls_hal_extract_nmea_msg: nmea sentence not found\n"},
        {"empty buffer", "", "ls_hal_extract_nmea_msg: nmea sentence not found\n"},
        {"no star", "$GPZDA,082710.00", "failed to compare \n"},
        {"empty body", "$*00\r\n", "failed to compare \n"},
        {"wrong checksum", "$GPZDA,082710.00,16,09,2002,00,00*65\r\n", "checksum failed 65 64 \n"},
        {"lower case checksum", "$z*7a\r\n", "checksum failed 7a 7A \n"},
        {"checksum cut", "$GPZDA,082710.00,16,09,2002,00,00*6", "checksum failed 6 64 \n"},
        {"checksum missing", "$GPZDA,082710.00,16,09,2002,00,00*", "checksum failed  64 \n"},
    };
    for (const row &r : rows) {
        fake::reset();
        buffer body;
        body.fill('x');
        EXPECT_EQ(ls_hal_extract_nmea_msg(received(r.message).data(), body.data()), 1u) << r.name;
        EXPECT_EQ(fake::count_logged(3, r.text), 1u) << r.name;
        if (std::string_view(r.text).starts_with("checksum")) {
            EXPECT_STREQ(body.data(), "") << r.name;
        }
    }
    EXPECT_EQ(ls_hal_extract_nmea_msg(nullptr, nullptr), 1u);
    EXPECT_EQ(fake::count_logged(3, "nmea_msg or nmea_sent found NULL\n"), 1u);
}

TEST_F(nmea_parser, static_location_takes_any_checksum) {
    buffer body = {};
    const buffer message = received("$GPZDA,1*00\r\n");
    EXPECT_EQ(ls_hal_extract_nmea_msg(message.data(), body.data()), 1u);
    stub_location_on_g = 1;
    EXPECT_EQ(ls_hal_extract_nmea_msg(message.data(), body.data()), 0u);
    EXPECT_STREQ(body.data(), "GPZDA,1");
}

// The received buffer may be longer than the body buffer: a serial answer has up to 205 bytes.
TEST_F(nmea_parser, a_body_longer_than_its_buffer_is_refused) {
    for (const size_t size : {NMEA_BUFFER_SIZE - 1, NMEA_BUFFER_SIZE}) {
        std::string message = "$" + std::string(size, 'A');
        message += size % 2 == 0 ? "*00" : "*41"; // exclusive-or of an even or odd number of A
        std::array<char, 256> buf = {};
        message.copy(buf.data(), buf.size() - 1);
        buffer body = {};
        EXPECT_EQ(ls_hal_extract_nmea_msg(buf.data(), body.data()),
                  size < NMEA_BUFFER_SIZE ? 0u : 1u)
            << size;
    }
}

TEST_F(nmea_parser, picks_fields) {
    struct row {
        const char *body;
        int n;
        const char *token; // null = failure
        const char *text;
    };
    const row rows[] = {
        {"GPGGA,123318,,N", 0, "GPGGA", ""},
        {"GPGGA,123318,,N", 1, "123318", ""},
        {"GPGGA,123318,,N", 2, nullptr, "ls_hal_get_token: Error copying Token from nmea_msg\n"},
        {"GPGGA,123318,,N", 3, "N", ""},
        {"GPGGA,123318,,N", 4, nullptr, "ls_hal_get_token: token not found\n"},
        {"GPGGA,123318,,N", -1, nullptr, "ls_hal_get_token: token not found\n"},
        {"", 0, nullptr, "ls_hal_get_token: error calculating cksum\n"},
        {"A,12345678901234567890", 1, "12345678901234567890", ""},
        {"A,1234567890123456789012345", 1, "12345678901234567890", ""},
    };
    for (const row &r : rows) {
        fake::reset();
        char token[NMEA_TOKEN_SIZE] = "untouched";
        EXPECT_EQ(ls_hal_get_token(r.body, token, r.n), r.token == nullptr ? 1u : 0u)
            << r.body << " " << r.n;
        EXPECT_STREQ(token, r.token == nullptr ? "" : r.token) << r.body << " " << r.n;
        EXPECT_EQ(fake::count_logged(3, r.text), r.token == nullptr ? 1u : 0u) << r.body;
    }
    char token[NMEA_TOKEN_SIZE];
    EXPECT_EQ(ls_hal_get_token(nullptr, token, 0), 1u);
    EXPECT_EQ(ls_hal_get_token("A", nullptr, 0), 1u);
}

// Exact-size heap buffers: the sanitizer sees every step past an end.
TEST_F(nmea_parser, random_bytes_stay_inside_their_buffers) {
    std::mt19937 random(20);
    const std::string alphabet = "$*,\r\n AG09\x80";
    for (int round = 0; round < 20000; ++round) {
        const std::unique_ptr<char[]> message(new char[NMEA_BUFFER_SIZE]());
        const std::unique_ptr<char[]> body(new char[NMEA_BUFFER_SIZE]());
        const std::unique_ptr<char[]> token(new char[NMEA_TOKEN_SIZE]());
        const size_t size = random() % NMEA_BUFFER_SIZE;
        for (size_t i = 0; i < size; ++i)
            message[i] = random() % 8 == 0 ? '\0' : alphabet[random() % alphabet.size()];
        stub_location_on_g = static_cast<int32_t>(random() % 2);
        if (ls_hal_extract_nmea_msg(message.get(), body.get()) != 0)
            continue;
        EXPECT_NE(body[0], '\0');
        for (int n = 0; n < 20; ++n)
            ls_hal_get_token(body.get(), token.get(), n);
        if (round % 1000 == 0)
            fake::reset();
    }
}

} // namespace
