// Sources: recordings and routes.
#include "nmea.h"
#include "scratch_dir.h"
#include "sentence.h"

#include <gtest/gtest.h>
#include <sstream>

namespace {

struct truth : testing::Test {
    scratch_dir scratch;
    std::string error;
    // Lines get their checksum.
    sim::truth_source recorded(const std::string &lines) {
        std::istringstream in(lines);
        std::string text;
        for (std::string line; std::getline(in, line);)
            text += sim::nmea_sentence(line.substr(1));
        scratch_dir::write("file", text);
        return sim::load_recording("file", error);
    }
    sim::truth_source routed(const std::string &text) {
        scratch_dir::write("file", text);
        return sim::load_route("file", error, [] { return 1704110400.0; });
    }
};

std::string answer(const sim::epoch &now, const char *type) {
    const std::string text = sim::nmea_answer(type, {now, 18}, {});
    return text.substr(1, text.size() - 6);
}

TEST_F(truth, RecordingTellsWhatAGpsReceiverWouldHaveTold) {
    const sim::truth_source source = recorded(
        R"($GNRMC,235958.99,A,4404.13387,S,12118.85628,W,0.108,,311216,,,A
$GNGGA,235958.99,4404.13387,S,12118.85628,W,1,12,1.01,1144.8,M,-21.4,M,,
$GNGSA,A,3,80,70,,,,,,,,,,,1.71,1.01,1.38
$GNGSA,A,2,23,,16,,,,,,,,,,1.72,1.02,1.39
$GPGSV,2,1,05,02,05,307,,16,47,064,35,23,68,103,28,46,31,150,,1
$GPGSV,2,2,05,30,12,249,17,1
$GLGSV,1,1,02,70,76,297,23,80,78,285,24,1
$GNRMC,000000.50,A,4404.13401,S,12118.85633,W,0.041,12.5,010117,,,A
$GNGSA,A,3,02,03,,,,,,,,,,,1.5,0.8,1.2,3
$GNGSA,A,3,05,06,,,,,,,,,,,1.6,0.9,1.3,1
)");
    const sim::epoch now = source(0);
    EXPECT_EQ(answer(now, "GGA"),
              "GPGGA,235958.99,4404.13387,S,12118.85628,W,1,02,1.02,1144.8,M,-21.4,M,,");
    EXPECT_EQ(answer(now, "GSV"), "GPGSV,1,1,04,02,05,307,,16,47,064,35,23,68,103,28,30,12,249,17");
    // Its own pace, over midnight, and again from the beginning.
    EXPECT_EQ(source(1.50).time->second, 58.99);
    EXPECT_EQ(source(1.51).time->second, 0.5);
    EXPECT_EQ(source(2.51).time->second, 58.99);
    EXPECT_EQ(answer(source(2), "GSA"), "GPGSA,A,3,05,06,,,,,,,,,,,1.60,0.90,1.30") << "system 1";
}

TEST_F(truth, RouteMovesBetweenItsPointsOrSaysWhatIsWrongWhere) {
    const sim::truth_source source =
        routed("# start\n10 0 0 100\n\n 20 0.009 0 200 # north\n30 0.009 0\r\n40 0.009 -0.009\n");
    ASSERT_TRUE(source) << error;
    const sim::epoch north = source(5);
    EXPECT_NEAR(*north.latitude, 0.0045, 1e-9);
    EXPECT_NEAR(*north.speed, 100.07, 0.01) << "1000.75 m in 10 s";
    EXPECT_EQ(source(15).course, std::nullopt) << "no course standing still";
    EXPECT_EQ(source(15).altitude, 200.0) << "the last altitude holds";
    EXPECT_NEAR(*source(35).latitude, 0.0045, 1e-9) << "begins again";
    EXPECT_NEAR(*routed("0 0 179.9\n20 0 -179.9\n")(15).longitude, -179.95, 1e-9);
    EXPECT_FALSE(routed("0 1 2\n0 1 2\n"));
    EXPECT_EQ(error, "file:2: time not after the line before");
}

} // namespace
