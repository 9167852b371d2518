// What lsctl makes of the receiver's own answers, of records that do not say what they seem to.
#include "system_fixture.h"

#include <gtest/gtest.h>

namespace {

// A terminal that moves along the equator at 299.777 km/h.
std::string fast_route() {
    scratch_dir::write("route", "0 0 8.0 400\n1001.5 0 8.75 400\n");
    return std::filesystem::absolute("route");
}

// A terminal that moves along the equator at 299.777 km/h.
struct judged_answers : testing::Test {
    const scratch_dir files;
    terminal term{words{"--route", fast_route()}};
};

struct expectation {
    std::string fault; // that of the line meanwhile; empty = none
    words arguments;
    int status;
    std::string text; // a part of the output, and behind "!" of the error
};

void expect_answers(terminal &term, const std::vector<expectation> &table) {
    for (const auto &[fault, arguments, status, text] : table) {
        if (!fault.empty())
            term.ctl({"fault", fault, "on"});
        const process_result got = lsctl(arguments);
        const std::string shown = got.out + "!" + got.err;
        EXPECT_EQ(got.status, status) << fault << " " << arguments[0] << ": " << shown;
        EXPECT_NE(shown.find(text), std::string::npos)
            << fault << " " << arguments[0] << ": " << shown << "\nwanted: " << text;
        if (!fault.empty())
            term.ctl({"fault", fault, "off"});
    }
}

} // namespace

TEST_F(judged_answers, are_judged) {
    const words vtg = {"nmea", "GPGPQ,VTG", "--json"};
    expect_answers(
        term, {
                  {"", {"speed"}, 0, "299.8 km/h  (83.3 m/s, 161.9 knots)\nCourse 90.0 deg"},
                  {"",
                   {"speed", "--json", "--raw"},
                   0,
                   "\"speed_whole_kmh\":43,\"speed_fraction_digits\""},
                  {"", vtg, 0, "\"verdict\":\"good\",\"checksum_good\":true"},
                  {"", {"ubx", "cfg-rate"}, 0, "measurement period         100 ms\n"},
                  {"", {"ubx", "MON-VER"}, 0, "(cut by the service, which hands on 80 bytes"},
                  {"checksum", vtg, 1, "{\"error\":\"wrong_checksum\""},
                  {"checksum", vtg, 1, "\"checksum_good\":false"},
                  {"checksum", {"ubx", "06", "08"}, 1, "!lsctl: the answer has a wrong checksum"},
                  {"cut", vtg, 1, "\"verdict\":\"cut\",\"checksum_good\":null"},
                  {"cut", {"ubx", "06", "08"}, 1, "cut after 5 payload bytes"},
                  {"silent", vtg, 1, "\"verdict\":\"nothing\",\"checksum_good\":null"},
                  {"", {"lpp"}, 0, "Accuracy     3 m vertical"},
                  {"silent", {"lpp", "--json"}, 1, "{\"error\":\"lpp_empty\""},
              });
}
