// Sources: recordings, routes and places.
#include "receiver_rig.h"
#include "truth_time.h"

#include <gtest/gtest.h>

namespace {

struct truth : testing::Test {
    scratch_dir scratch;
    std::string error;
    sim::recording_summary summary;
    // Lines get their checksum; those that start with another sign stay as they are.
    sim::truth_source recorded(const std::string &lines) {
        std::istringstream in(lines);
        std::string text;
        for (std::string line; std::getline(in, line);)
            text += line[0] == '$' ? sim::nmea_sentence(line.substr(1)) : line + "\n";
        scratch_dir::write("file", text);
        return sim::load_recording("file", error, &summary);
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
    EXPECT_EQ(answer(now, "GSA"), "GPGSA,A,2,23,,16,,,,,,,,,,1.72,1.02,1.39");
    EXPECT_EQ(answer(now, "GSV"), "GPGSV,1,1,04,02,05,307,,16,47,064,35,23,68,103,28,30,12,249,17");
    // Its own pace, over midnight, and again from the beginning.
    EXPECT_EQ(source(1.50).time->second, 58.99);
    EXPECT_EQ(source(1.51).time->second, 0.5);
    EXPECT_EQ(source(2.51).time->second, 58.99);
    EXPECT_EQ(answer(source(2), "GSA"), "GPGSA,A,3,05,06,,,,,,,,,,,1.60,0.90,1.30") << "system 1";
}

TEST_F(truth, RecordingDoesNotWaitWhereItWasCut) {
    recorded("$GPZDA,100000.00,01,01,2024,00,00\n$GPZDA,100100.00,01,01,2024,00,00\n"
             "$GPZDA,100200.01,01,01,2024,00,00\n$GPZDA,100100.00,01,01,2024,00,00\n");
    EXPECT_NEAR(summary.duration, 60 + 1 + 1 + 1, 1e-6);
}

TEST_F(truth, RecordingKeepsEmptyFieldsEmpty) {
    const sim::truth_source source =
        recorded("$GPRMC,,V,,,,,,,,,,N\n$GPGGA,,,,,,0,00,99.99,,,,,,\n"
                 "$GPGSA,A,1,,,,,,,,,,,,,99.99,99.99,99.99\n$GPGSV,1,1,02,29,,,47,47,,,47\n"
                 "$GPRMC,,V,,,,,,,,,,N\n$GPGSV,1,1,00\n$GPRMC,110736.00,V,,,,,,,010526,,,N\n");
    EXPECT_EQ(answer(source(0), "GGA"), "GPGGA,,,,,,0,00,99.99,,,,,,");
    EXPECT_EQ(answer(source(0), "GSV"), "GPGSV,1,1,01,29,,,47");
    EXPECT_EQ(answer(source(1), "GSV"), "GPGSV,1,1,00") << "the type came again";
    EXPECT_EQ(answer(source(2), "RMC"), "GPRMC,110736.00,V,,,,,,,010526,,,N");
}

TEST_F(truth, RecordingSkipsDamageAndSaysWhyItCannotBeUsed) {
    const sim::truth_source source =
        recorded("# comment\n$GPZDA,100000.00,01,01,2024,00,00\n!noise\n"
                 "x$GPZDA,100001.00,01,01,2024,00,00*00\n$GPGGA,99,zz,N,,E,1\n$GPGSA\n$\n");
    EXPECT_EQ(summary.damaged, 2U);
    EXPECT_EQ(summary.epochs, 1U);
    EXPECT_EQ(answer(source(0), "GGA"), "GPGGA,100000.00,,,,,0,00,99.99,,,,,,");
    EXPECT_FALSE(recorded("no sentence\n"));
    EXPECT_EQ(error, "file: no NMEA sentence with a right checksum");
}

TEST_F(truth, RouteMovesBetweenItsPointsOrSaysWhatIsWrongWhere) {
    const sim::truth_source source =
        routed("# start\n10 0 0 100\n\n 20 0.009 0 200 # north\n30 0.009 0\r\n40 0.009 -0.009\n");
    ASSERT_TRUE(source) << error;
    const sim::epoch north = source(5);
    EXPECT_NEAR(*north.latitude, 0.0045, 1e-9);
    EXPECT_NEAR(*north.speed, 100.07, 0.01) << "1000.75 m in 10 s";
    EXPECT_EQ(north.course, 0.0);
    EXPECT_EQ(source(15).course, std::nullopt) << "no course standing still";
    EXPECT_EQ(source(15).altitude, 200.0) << "the last altitude holds";
    EXPECT_NEAR(*source(35).latitude, 0.0045, 1e-9) << "begins again";
    EXPECT_EQ(sim::unix_of(*source(35).date, *source(35).time), 1704110430.0) << "time goes on";
    EXPECT_NEAR(*routed("0 0 179.9\n20 0 -179.9\n")(15).longitude, -179.95, 1e-9);
    constexpr std::pair<const char *, const char *> rows[] = {
        {"0 1\n", "file:1: not SECONDS LATITUDE LONGITUDE [ALTITUDE]"},
        {"0 1 2\n1 1 x\n", "file:2: not a number"},
        {"0 90.1 0\n", "file:1: latitude beyond 90 degrees"},
        {"0 1 2\n0 1 2\n", "file:2: time not after the line before"}};
    for (const auto &[text, fault] : rows) {
        EXPECT_FALSE(routed(text)) << text;
        EXPECT_EQ(error, fault);
    }
}

TEST_F(truth, FixedPlaceCountsOnFromItsFirstEpochOverALeapSecond) {
    double wall = 1483228799.25; // 2016-12-31 23:59:59.25, a leap second follows
    const auto source = sim::make_fixed_place(48.2, 11.5, 520.0, [&wall] { return wall; });
    EXPECT_EQ(answer(source(3), "ZDA"), "GPZDA,235959.25,31,12,2016,00,00");
    wall = 0;
    EXPECT_EQ(answer(source(4), "ZDA"), "GPZDA,000000.25,01,01,2017,00,00");
}

} // namespace
