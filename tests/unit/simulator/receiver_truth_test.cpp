// Sources: recordings, routes and places.
#include "receiver_rig.h"
#include "truth_time.h"

#include <gtest/gtest.h>

namespace {

// Lines get their checksum; those that start with another sign stay as they are.
sim::truth_source recorded(const std::string &lines, const char *line_end = "\r\n",
                           sim::recording_summary *summary = nullptr) {
    std::istringstream in(lines);
    std::string text;
    for (std::string line; std::getline(in, line);) {
        std::string full = line[0] == '$' ? sim::nmea_sentence(line.substr(1)) : line + "\r\n";
        text += full.substr(0, full.size() - 2) + line_end;
    }
    const rig::temporary_file file(text);
    std::string error;
    sim::truth_source source = sim::load_recording(file.path, error, summary);
    EXPECT_TRUE(source) << error;
    return source;
}

std::string answer(const sim::epoch &now, const char *type) {
    return sim::nmea_answer(type, {now, 18}, {});
}

constexpr const char *two_constellations =
    R"($GNRMC,235958.99,A,4404.13387,S,12118.85628,W,0.108,,311216,,,A
$GNVTG,,T,,M,0.108,N,0.199,K,A
$GNGGA,235958.99,4404.13387,S,12118.85628,W,1,12,1.01,1144.8,M,-21.4,M,,
$GNGSA,A,3,80,70,,,,,,,,,,,1.71,1.01,1.38
$GNGSA,A,2,23,,16,,,,,,,,,,1.72,1.02,1.39
$GPGSV,2,1,05,02,05,307,,16,47,064,35,23,68,103,28,46,31,150,,1
$GPGSV,2,2,05,30,12,249,17,1
$GLGSV,1,1,02,70,76,297,23,80,78,285,24,1
$GNZDA,235958.99,31,12,2016,00,00
$GNRMC,000000.50,A,4404.13401,S,12118.85633,W,0.041,12.5,010117,,,A
$GNGGA,000000.50,4404.13401,S,12118.85633,W,1,12,1.01,1144.9,M,-21.4,M,,
)";

TEST(Recording, TellsWhatAGpsReceiverWouldHaveTold) {
    const sim::epoch now = recorded(two_constellations)(0);
    EXPECT_EQ(answer(now, "GGA"), sim::nmea_sentence("GPGGA,235958.99,4404.13387,S,12118.85628,W,1,"
                                                     "02,1.02,1144.8,M,-21.4,M,,"));
    EXPECT_EQ(answer(now, "GSA"), sim::nmea_sentence("GPGSA,A,2,23,,16,,,,,,,,,,1.72,1.02,1.39"));
    EXPECT_EQ(answer(now, "GSV"), sim::nmea_sentence("GPGSV,1,1,04,02,05,307,,16,47,064,35,23,68,"
                                                     "103,28,30,12,249,17"));
    EXPECT_EQ(answer(now, "VTG"), sim::nmea_sentence("GPVTG,,T,,M,0.108,N,0.199,K,A"));
    EXPECT_EQ(answer(now, "ZDA"), sim::nmea_sentence("GPZDA,235958.99,31,12,2016,00,00"));
}

TEST(Recording, KeepsItsPaceOverMidnightAndBeginsAgain) {
    sim::recording_summary summary;
    const sim::truth_source source = recorded(two_constellations, "\n", &summary);
    EXPECT_EQ(summary.epochs, 2U);
    EXPECT_NEAR(summary.duration, 2.51, 1e-6);
    const auto second = [&](double at) { return source(at).time->second; };
    EXPECT_EQ(second(1.50), 58.99);
    EXPECT_EQ(second(1.51), 0.5);
    EXPECT_EQ(second(2.50), 0.5);
    EXPECT_EQ(second(2.51), 58.99);
}

TEST(Recording, DoesNotWaitWhereItWasCut) {
    sim::recording_summary summary;
    recorded("$GPZDA,100000.00,01,01,2024,00,00\n$GPZDA,100100.00,01,01,2024,00,00\n"
             "$GPZDA,100200.01,01,01,2024,00,00\n$GPZDA,100100.00,01,01,2024,00,00\n",
             "\n", &summary);
    EXPECT_NEAR(summary.duration, 60 + 1 + 1 + 1, 1e-6);
}

TEST(Recording, EmptyFieldsStayEmpty) {
    const sim::truth_source source =
        recorded("$GPRMC,,V,,,,,,,,,,N\n$GPGGA,,,,,,0,00,99.99,,,,,,\n"
                 "$GPGSA,A,1,,,,,,,,,,,,,99.99,99.99,99.99\n$GPGSV,1,1,02,29,,,47,47,,,47\n"
                 "$GPRMC,,V,,,,,,,,,,N\n$GPGSV,1,1,00\n"
                 "$GPRMC,110735.00,V,,,,,,,,,,N\n$GPZDA,110735.00,,,,00,00\n"
                 "$GPRMC,110736.00,V,,,,,,,010526,,,N\n");
    EXPECT_EQ(answer(source(0), "GGA"), "$GPGGA,,,,,,0,00,99.99,,,,,,*48\r\n");
    EXPECT_EQ(answer(source(0), "GSV"), sim::nmea_sentence("GPGSV,1,1,01,29,,,47"));
    EXPECT_EQ(answer(source(1), "GSV"), "$GPGSV,1,1,00*79\r\n") << "the type came again";
    EXPECT_EQ(answer(source(2), "ZDA"), "$GPZDA,110735.00,,,,00,00*67\r\n");
    EXPECT_EQ(answer(source(3), "RMC"), sim::nmea_sentence("GPRMC,110736.00,V,,,,,,,010526,,,N"));
}

TEST(Recording, ChoosesTheGpsGsaByItsSystemNumber) {
    const sim::truth_source source = recorded(
        "$GNRMC,100000.00,A,4800.00000,N,01100.00000,E,1.000,,010124,,,A,V\n"
        "$GNGSA,A,3,02,03,,,,,,,,,,,1.5,0.8,1.2,3\n$GNGSA,A,3,05,06,,,,,,,,,,,1.6,0.9,1.3,1\n");
    EXPECT_EQ(answer(source(0), "GSA"),
              sim::nmea_sentence("GPGSA,A,3,05,06,,,,,,,,,,,1.60,0.90,1.30"));
}

TEST(Recording, SkipsAndCountsDamage) {
    sim::recording_summary summary;
    const sim::truth_source source = recorded(
        "# comment\n$GPZDA,100000.00,01,01,2024,00,00\n!noise\n"
        "x$GPZDA,100001.00,01,01,2024,00,00*00\n$GPGGA,99,zz,N,,E,1\n$GPGSA\n$\n$GPXYZ,1\n",
        "\n", &summary);
    EXPECT_EQ(summary.damaged, 2U);
    EXPECT_EQ(summary.epochs, 1U);
    EXPECT_EQ(answer(source(0), "GGA"), "$GPGGA,100000.00,,,,,0,00,99.99,,,,,,*67\r\n");
}

TEST(Recording, SaysWhyItCannotBeUsed) {
    std::string error;
    EXPECT_FALSE(sim::load_recording("/nonexistent/file", error));
    EXPECT_EQ(error, "/nonexistent/file: cannot be opened");
    const rig::temporary_file file("no sentence\n");
    EXPECT_FALSE(sim::load_recording(file.path, error));
    EXPECT_EQ(error, file.path + ": no NMEA sentence with a right checksum");
}

sim::truth_source routed(const std::string &text, std::string &error) {
    const rig::temporary_file file(text);
    sim::truth_source source = sim::load_route(file.path, error, [] { return 1704110400.0; });
    error = error.substr(std::min(error.size(), file.path.size()));
    return source;
}

TEST(Route, MovesBetweenItsPoints) {
    std::string error;
    const sim::truth_source source = routed(
        "# start\n10 0 0 100\n\n 20 0.009 0 200 # north\n30 0.009 0\r\n40 0.009 -0.009\n", error);
    ASSERT_TRUE(source) << error;
    const sim::epoch north = source(5);
    EXPECT_NEAR(*north.latitude, 0.0045, 1e-9);
    EXPECT_NEAR(*north.altitude, 150.0, 1e-9);
    EXPECT_NEAR(*north.speed, 100.07, 0.01) << "1000.75 m in 10 s";
    EXPECT_EQ(north.course, 0.0);
    EXPECT_EQ(source(15).speed, 0.0);
    EXPECT_EQ(source(15).course, std::nullopt) << "no course standing still";
    EXPECT_EQ(source(15).altitude, 200.0) << "the last altitude holds";
    EXPECT_NEAR(*source(25).course, 270.0, 1e-6);
    EXPECT_NEAR(*source(35).latitude, 0.0045, 1e-9) << "begins again";
    EXPECT_EQ(sim::unix_of(*source(35).date, *source(35).time), 1704110430.0)
        << "but time goes on, from the first epoch";
}

TEST(Route, CrossesTheDateLineTheShortWay) {
    std::string error;
    const sim::truth_source source = routed("0 0 179.9\n20 0 -179.9\n", error);
    EXPECT_NEAR(*source(5).longitude, 179.95, 1e-9);
    EXPECT_NEAR(*source(15).longitude, -179.95, 1e-9);
    EXPECT_NEAR(*source(5).course, 90.0, 1e-6);
}

TEST(Route, SaysWhatIsWrongWhere) {
    constexpr std::pair<const char *, const char *> rows[] = {
        {"", ": no points"},
        {"# nothing\n", ": no points"},
        {"0 1\n", ":1: not SECONDS LATITUDE LONGITUDE [ALTITUDE]"},
        {"0 1 2 3 4\n", ":1: not SECONDS LATITUDE LONGITUDE [ALTITUDE]"},
        {"0 1 2\n1 1 x\n", ":2: not a number"},
        {"0 90.1 0\n", ":1: latitude beyond 90 degrees"},
        {"0 -90 180.1\n", ":1: longitude beyond 180 degrees"},
        {"0 1 2\n0 1 2\n", ":2: time not after the line before"},
        {"0 1 nan\n", ":1: not a number"}};
    for (const auto &[text, fault] : rows) {
        std::string error;
        const rig::temporary_file file;
        std::ofstream(file.path) << text;
        EXPECT_FALSE(sim::load_route(file.path, error)) << text;
        EXPECT_EQ(error, file.path + fault) << text;
    }
}

TEST(FixedPlace, TellsTheTimeOfItsFirstEpoch) {
    double wall = 1000.0;
    const sim::truth_source source =
        sim::make_fixed_place(48.2, 11.5, 520.0, [&wall] { return wall; });
    wall = 1483228799.25; // 2016-12-31 23:59:59.25, a leap second follows
    const sim::epoch first = source(3.0);
    EXPECT_EQ(first.time->second, 59.25);
    EXPECT_EQ(first.date->year, 2016);
    wall = 0;
    const sim::epoch next = source(4.0);
    EXPECT_EQ(next.time->second, 0.25);
    EXPECT_EQ(next.date->year, 2017);
    EXPECT_EQ(first.fix, sim::fix_quality::fix_3d);
    EXPECT_EQ(first.slots.size(), static_cast<size_t>(std::count_if(
                                      first.satellites.begin(), first.satellites.end(),
                                      [](const sim::satellite &one) { return one.used; })));
    EXPECT_TRUE(std::is_sorted(first.slots.begin(), first.slots.end()));
}

TEST(TruthTime, CountsLeapSeconds) {
    EXPECT_EQ(sim::leap_seconds_at(1483228799.9), 17);
    EXPECT_EQ(sim::leap_seconds_at(1483228800.0), 18);
    EXPECT_EQ(sim::leap_seconds_at(315964800.0), 0);
    EXPECT_EQ(sim::since_gps_epoch(315964801.0), 1.0);
}

} // namespace
