// The sentence codec: literal sentences in, literal bodies and fields out.
#include "daemon_fixture.h"
#include "gps_nmea_parser.h"

namespace {

using buffer = std::array<char, NMEA_BUFFER_SIZE>;
using nmea_parser = daemon_fixture;

TEST_F(nmea_parser, builds_sentences_that_fit) {
    const std::string longest(NMEA_BUFFER_SIZE - 7, 'A'); // $ * h h CR LF NUL
    const struct {
        std::string body, sentence; // empty = refused
    } rows[] = {
        {"PUBX,40,GLL,0,0,0,0,0,0", "$PUBX,40,GLL,0,0,0,0,0,0*5C\r\n"},
        {"z", "$z*7A\r\n"}, // a digit above 9 is upper case
        {longest, "$" + longest + (longest.size() % 2 == 0 ? "*00\r\n" : "*41\r\n")},
        {longest + "A", ""},
    };
    for (const auto &r : rows) {
        buffer out = {};
        EXPECT_EQ(ls_hal_create_nmea_sentence(r.body.c_str(), out.data()), r.sentence.empty());
        EXPECT_TRUE(r.sentence.empty() || out.data() == r.sentence) << out.data();
    }
}

TEST_F(nmea_parser, extracts_a_body_or_says_why_not) {
    const std::string body = "GPZDA,082710.00,16,09,2002,00,00";
    const std::string zda = "$" + body + "*64\r\n";
    const std::string longest(NMEA_BUFFER_SIZE - 1, 'A'); // the checksum of an even number is 0
    static_assert(NMEA_BUFFER_SIZE % 2 == 0);
    const char *const not_found = "ls_hal_extract_nmea_msg: nmea sentence not found\n";
    const struct {
        const char *name;
        std::string message;
        const char *text; // null = found
    } rows[] = {
        {"at the start", zda, nullptr},
        {"behind four blanks", "    " + zda, nullptr},
        {"behind one byte: odd positions are not tested", "\0"s + zda, not_found},
        {"behind LF alone", "\n" + zda, not_found},
        {"behind two letters: reading starts at the cursor", "xx" + zda, "failed to compare \n"},
        {"behind a NUL at position 2", "\0\0"s + zda, "failed to compare \n"},
        {"empty buffer", "", not_found},
        {"no star", "$" + body, "failed to compare \n"},
        {"wrong checksum", "$" + body + "*65\r\n", "checksum failed 65 64 \n"},
        {"lower case checksum", "$z*7a\r\n", "checksum failed 7a 7A \n"},
        {"checksum cut", "$" + body + "*6", "checksum failed 6 64 \n"},
        {"the longest body", "$" + longest + "*41", nullptr},
        {"a longer one", "$A" + longest + "*00", "failed to compare \n"},
    };
    for (const auto &r : rows) {
        fake::reset();
        std::string message = r.message;
        message.resize(256); // as a serial answer: longer than a body may be
        buffer out = {};
        EXPECT_EQ(ls_hal_extract_nmea_msg(message.data(), out.data()), r.text ? 1u : 0u) << r.name;
        if (r.text != nullptr)
            EXPECT_EQ(errors(r.text), 1u) << r.name;
        // Only a wrong checksum takes back what was read.
        const bool taken_back = r.text != nullptr && std::string(r.text).starts_with("checksum");
        const std::string read = r.message.substr(r.message.find('$') + 1);
        if (taken_back || r.text == nullptr || r.message == "$" + body)
            EXPECT_EQ(out.data(), taken_back ? "" : read.substr(0, read.find('*'))) << r.name;
    }
}

TEST_F(nmea_parser, picks_fields) {
    const std::string gga = "GPGGA,123318,,N";
    const struct {
        std::string body;
        int n;
        std::string token; // empty = failure
        const char *text;
    } rows[] = {
        {gga, 0, "GPGGA", ""},
        {gga, 2, "", "ls_hal_get_token: Error copying Token from nmea_msg\n"},
        {gga, 3, "N", ""},
        {gga, 4, "", "ls_hal_get_token: token not found\n"},
        {gga, -1, "", "ls_hal_get_token: token not found\n"},
        {"", 0, "", "ls_hal_get_token: error calculating cksum\n"},
        {"A,1234567890123456789012345", 1, "12345678901234567890", ""},
    };
    for (const auto &r : rows) {
        fake::reset();
        char token[NMEA_TOKEN_SIZE] = "untouched";
        EXPECT_EQ(ls_hal_get_token(r.body.c_str(), token, r.n), r.token.empty() ? 1u : 0u) << r.n;
        EXPECT_EQ(token, r.token) << r.body << " " << r.n;
        EXPECT_EQ(errors(r.text), r.token.empty() ? 1u : 0u) << r.body << " " << r.n;
    }
}

} // namespace
