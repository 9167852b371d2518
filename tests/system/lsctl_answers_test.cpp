// What lsctl makes of the receiver's own answers, of records that do not say what they seem to, and
// of the static location's file.
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
    judged_answers() { setenv("LOCATION_TERMINAL_ROOT", term.dir().c_str(), 1); }

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
                  {"", {"time", "--json"}, 0, "\"clock_ahead_s\":"},
                  {"checksum", vtg, 1, "{\"error\":\"wrong_checksum\""},
                  {"checksum", vtg, 1, "\"checksum_good\":false"},
                  {"checksum", {"ubx", "06", "08"}, 1, "!lsctl: the answer has a wrong checksum"},
                  {"cut", vtg, 1, "\"verdict\":\"cut\",\"checksum_good\":null"},
                  {"cut", {"ubx", "06", "08"}, 1, "cut after 5 payload bytes"},
                  {"silent", vtg, 1, "\"verdict\":\"nothing\",\"checksum_good\":null"},
                  {"", {"lpp"}, 0, " m vertical, whole metres"},
                  {"silent", {"lpp", "--json"}, 1, "{\"error\":\"lpp_empty\""},
              });
}

TEST_F(judged_answers, with_the_static_location) {
    const auto reports = [](const std::string &place) {
        return wait_until([&] { return lsctl({"position"}).out.find(place) != std::string::npos; });
    };
    expect_answers(term, {{"", {"static", "on", "-33.85678", "70.5w"}, 0, "33.856783 deg S"}});
    EXPECT_TRUE(reports("(33 deg 51.4070' S)"));
    EXPECT_TRUE(reports("(70 deg 30.0000' W)"));
    // The service does not look at checksums now; lsctl does.
    expect_answers(term,
                   {{"checksum", {"speed", "--json"}, 1, "\"candidates_kmh\":[43.009,"},
                    {"checksum", {"speed", "--json"}, 1, ",299.777,"},
                    {"checksum", {"speed"}, 1, "(the receiver's answer has a wrong checksum)"},
                    {"", {"lpp"}, 0, "Accuracy     2 m vertical"},
                    {"", {"static", "on", "91", "0"}, 2, "!lsctl: '91' is no latitude"},
                    {"", {"static", "off"}, 0, "Static location  off\n"}});
    EXPECT_TRUE(reports("0.000000 deg N"));
}
