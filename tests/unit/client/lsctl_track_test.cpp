// The location history as a track: lines, times, pauses, the antimeridian, and each format's text.
#include "lsctl_track_page.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace {

const track_progress silent = [](double) {};

struct zone {
    explicit zone(const char *name) {
        setenv("TZ", name, 1);
        tzset();
    }
    ~zone() {
        unsetenv("TZ");
        tzset();
    }
    zone(const zone &) = delete;
    zone &operator=(const zone &) = delete;
};

// Central Europe, spelled out: does not need the time zone database.
constexpr const char *BERLIN = "CET-1CEST,M3.5.0,M10.5.0/3";

class lsctl_track : public testing::Test {
  protected:
    // A line `seconds` after noon of 2019-02-05, at a place.
    void add(int seconds, const std::string &place = "47.366800N,8.541300E",
             const std::string &fix = "2D,") {
        char clock[16];
        std::snprintf(clock, sizeof clock, "%02d:%02d:%02d", 12 + seconds / 3600, seconds / 60 % 60,
                      seconds % 60);
        text += "2019-02-05 " + std::string(clock) + "," + fix + place + ",+2.25m,08\n";
    }
    track parsed() { return track_parse(text, {}, silent); }
    std::string written(track_writer write, int64_t gap_s = 0) {
        char *bytes = nullptr;
        size_t size = 0;
        FILE *out = open_memstream(&bytes, &size);
        write(parsed(), gap_s, out, silent);
        std::fclose(out);
        std::string result(bytes, size);
        std::free(bytes);
        return result;
    }

    zone plain{"UTC0"};
    std::string text;
};

size_t count(const std::string &in, const std::string &what) {
    size_t found = 0;
    for (size_t at = in.find(what); at != std::string::npos; at = in.find(what, at + 1)) {
        ++found;
    }
    return found;
}

TEST_F(lsctl_track, reads_a_line) {
    track_point point;
    ASSERT_TRUE(
        track_parse_line("2019-02-05 10:51:05,2D,70.132317S,11.516667W,+2.25m,08", 0, &point));
    EXPECT_EQ(point.utc, 1549363865);
    EXPECT_EQ(point.fix, track_fix::fix_2d);
    EXPECT_DOUBLE_EQ(point.latitude, -70.132317);
    EXPECT_DOUBLE_EQ(point.longitude, -11.516667);
    EXPECT_DOUBLE_EQ(point.accuracy_m, 2.25);
    EXPECT_EQ(point.satellites, 8U);
    EXPECT_TRUE(point.placed);
}

TEST_F(lsctl_track, tells_lines_from_what_is_none) {
    const struct {
        const char *name;
        const char *line;
        bool good;
        bool placed;
    } rows[] = {
        {"without fix field", "2019-02-05 10:51:05,70.1N,11.5E,+2.25m,08", true, true},
        {"no fix", "2019-02-05 10:51:05,ER,70.1N,11.5E,+2.25m,08", true, false},
        {"no hemispheres", "2019-02-05 10:51:05,2D,0.0X,0.0Y,+2.25m,08", true, false},
        {"one hemisphere", "2019-02-05 10:51:05,2D,1.0N,0.0Y,+2.25m,08", true, false},
        {"negative accuracy", "2019-02-05 10:51:05,2D,70.1N,11.5E,-1.00m,08", true, true},
        {"200 satellites as a signed byte", "2019-02-05 10:51:05,2D,1.0N,1.0E,+1m,-56", true, true},
        {"leap day", "2020-02-29 10:51:05,2D,70.1N,11.5E,+2.25m,08", true, true},
        {"the pole", "2019-02-05 10:51:05,2D,90.000000S,180.000000W,+2.25m,08", true, true},
        {"no leap day", "2019-02-29 10:51:05,2D,70.1N,11.5E,+2.25m,08", false, false},
        {"hour 24", "2019-02-05 24:00:00,2D,70.1N,11.5E,+2.25m,08", false, false},
        {"month 13", "2019-13-05 10:51:05,2D,70.1N,11.5E,+2.25m,08", false, false},
        {"beyond the pole", "2019-02-05 10:51:05,2D,90.000001N,11.5E,+2.25m,08", false, false},
        {"beyond 180", "2019-02-05 10:51:05,2D,70.1N,180.000001E,+2.25m,08", false, false},
        {"letters swapped", "2019-02-05 10:51:05,2D,70.1E,11.5N,+2.25m,08", false, false},
        {"other fix", "2019-02-05 10:51:05,3D,70.1N,11.5E,+2.25m,08", false, false},
        {"no sign", "2019-02-05 10:51:05,2D,70.1N,11.5E,2.25m,08", false, false},
        {"not a number", "2019-02-05 10:51:05,2D,nanN,11.5E,+2.25m,08", false, false},
        {"cut in the count", "2019-02-05 10:51:05,2D,70.1N,11.5E,+2.25m,0", false, false},
        {"cut before the count", "2019-02-05 10:51:05,2D,70.1N,11.5E,+2.25m", false, false},
        {"cut in front", "5 10:51:05,2D,70.1N,11.5E,+2.25m,08", false, false},
        {"more behind", "2019-02-05 10:51:05,2D,70.1N,11.5E,+2.25m,08,1", false, false},
        {"empty", "", false, false},
    };
    for (const auto &row : rows) {
        track_point point{};
        EXPECT_EQ(track_parse_line(row.line, 0, &point), row.good) << row.name;
        EXPECT_EQ(point.placed, row.placed) << row.name;
    }
}

TEST_F(lsctl_track, counts_bad_lines_and_goes_on) {
    text = "0000E,+1.00m,08\n";
    add(0);
    text += "\n";
    add(1);
    text += "2019-02-05 12:00:02,2D,47.3"; // no line end either
    const track all = parsed();
    EXPECT_EQ(all.points.size(), 2U);
    EXPECT_EQ(all.bad_lines, 3U);
    EXPECT_TRUE(all.first_bad);
    EXPECT_EQ(all.points[1].line, "2019-02-05 12:00:01,2D,47.366800N,8.541300E,+2.25m,08");
}

TEST_F(lsctl_track, both_ends_of_a_range_belong_to_it) {
    for (int second = 0; second < 4; ++second) {
        add(second);
    }
    const int64_t noon = 1549368000;
    const track some = track_parse(text, {noon + 1, noon + 2}, silent);
    ASSERT_EQ(some.points.size(), 2U);
    EXPECT_EQ(some.points[0].utc, noon + 1);
    EXPECT_EQ(some.points[1].utc, noon + 2);
    EXPECT_EQ(some.out_of_range, 2U);
}

TEST_F(lsctl_track, the_hour_that_comes_twice_runs_on) {
    const zone berlin(BERLIN);
    text = "2019-10-27 01:59:00,2D,1.0N,1.0E,+1.00m,08\n"  // 23:59 UTC
           "2019-10-27 02:30:00,2D,1.0N,1.0E,+1.00m,08\n"  // 00:30, summer
           "2019-10-27 02:59:59,2D,1.0N,1.0E,+1.00m,08\n"  // 00:59:59, summer
           "2019-10-27 02:00:00,2D,1.0N,1.0E,+1.00m,08\n"  // 01:00, winter
           "2019-10-27 02:59:00,2D,1.0N,1.0E,+1.00m,08\n"  // 01:59, winter
           "2019-10-27 03:00:00,2D,1.0N,1.0E,+1.00m,08\n"; // 02:00
    const int64_t base = 1572134340;
    const int64_t wanted[] = {0, 1860, 3659, 3660, 7200, 7260};
    const track all = parsed();
    ASSERT_EQ(all.points.size(), 6U);
    for (size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(all.points[i].utc - base, wanted[i]) << i;
    }
}

TEST_F(lsctl_track, times_as_people_type_them) {
    const zone berlin(BERLIN);
    const int64_t now = 1549360265; // 2019-02-05 10:51:05 local
    const struct {
        const char *typed;
        bool end;
        int64_t offset; // from now; 0 = refused
    } rows[] = {
        {"2019-02-05 10:51:00", false, -5},
        {"2019-02-05T10:51:00", true, -5},
        {"2019-02-05 10:50", false, -65},
        {"2019-02-05 10:50", true, -6},
        {"10:50", false, -65},
        {"10:50:10", true, -55},
        {"2019-02-05", false, -39065},
        {"2019-02-05", true, 47334},
        {"90m", false, -5400},
        {"30s", true, -30},
        {"2d", false, -172800},
        {"", false, 0},
        {"yesterday", false, 0},
        {"2019-02-30", false, 0},
        {"2019-02-05x10:51", false, 0},
        {"24:00", false, 0},
        {"-5m", false, 0},
        {"m", false, 0},
    };
    for (const auto &row : rows) {
        int64_t utc = now;
        EXPECT_EQ(track_parse_time(row.typed, now, row.end, &utc), row.offset != 0) << row.typed;
        EXPECT_EQ(utc - now, row.offset) << row.typed << row.end;
    }
}

std::vector<size_t> sizes(const track &all, int64_t gap_s) {
    std::vector<size_t> result;
    for (const track_stretch &stretch : track_stretches(all, gap_s)) {
        result.push_back(stretch.size());
    }
    return result;
}

TEST_F(lsctl_track, pauses_are_steps_much_longer_than_those_around) {
    using row = std::vector<int>;
    const struct {
        const char *name;
        row seconds;
        int64_t gap_s;
        std::vector<size_t> stretches;
    } rows[] = {
        {"longest step of 1 s", {0, 1, 2, 15, 16, 17}, 0, {6}},
        {"one more", {0, 1, 2, 16, 17, 18}, 0, {3, 3}},
        {"an interval that changes", {0, 1, 2, 3, 4, 5, 6, 66, 126, 186, 246, 306, 366}, 0, {13}},
        {"set back", {10, 11, 12, 5, 6, 7}, 0, {3, 3}},
        {"given, reached", {0, 1, 2, 4, 5}, 2, {5}},
        {"given, passed", {0, 1, 2, 5, 6}, 2, {3, 2}},
        {"one line", {0}, 0, {1}},
        {"none", {}, 0, {}},
    };
    for (const auto &each : rows) {
        text.clear();
        for (const int second : each.seconds) {
            add(second);
        }
        EXPECT_EQ(sizes(parsed(), each.gap_s), each.stretches) << each.name;
    }
    text.clear();
    add(0);
    add(1, "0.000000X,0.000000Y", "ER,");
    add(2);
    EXPECT_EQ(sizes(parsed(), 0), (std::vector<size_t>{1, 1}));
}

TEST_F(lsctl_track, the_antimeridian_cuts) {
    add(0, "10.000000S,179.000000E");
    add(4, "14.000000S,177.000000W"); // a quarter of the way to the edge
    EXPECT_NE(written(track_write_geojson)
                  .find("[\n[179.000000,-10.000000],\n"
                        "[180.000000,-11.000000]\n]"),
              std::string::npos);
    EXPECT_NE(written(track_write_geojson)
                  .find("[\n[-180.000000,-11.000000],\n"
                        "[-177.000000,-14.000000]\n]"),
              std::string::npos);
    const track all = parsed();
    EXPECT_NEAR(track_distance_m(all.points[0], all.points[1]), 622e3, 5e3);
    // Drawn the short way: 4 degrees, not 356.
    EXPECT_LT(page_lay_out(all, 0).metres_per_mm, 5000);

    text.clear();
    add(0, "10.000000S,179.000000E");
    add(1, "10.000000S,180.000000W"); // exactly there: nothing to add, and GPX calls it -180
    add(2, "10.000000S,179.000000W");
    const auto pieces = track_pieces(parsed(), track_stretches(parsed(), 0).at(0));
    ASSERT_EQ(pieces.size(), 2U);
    EXPECT_EQ(pieces[0].size(), 2U);
    EXPECT_EQ(pieces[1].size(), 2U);
    text.clear();
    add(0, "10.000000S,180.000000E");
    EXPECT_NE(written(track_write_gpx).find("lon=\"-180.000000\""), std::string::npos);
}

TEST_F(lsctl_track, each_format_of_a_fix_and_of_none) {
    add(0, "47.366800N,8.541300W");
    add(1, "0.000000X,0.000000Y", "ER,");
    EXPECT_EQ(written(track_write_lines), text);
    EXPECT_EQ(written(track_write_csv),
              "time_utc,time_local,fix_type,latitude_deg,longitude_deg,horizontal_accuracy_m,"
              "satellites_used\n"
              "2019-02-05T12:00:00Z,2019-02-05 12:00:00,2D,47.366800,-8.541300,2.25,8\n"
              "2019-02-05T12:00:01Z,2019-02-05 12:00:01,none,,,2.25,8\n");
    EXPECT_EQ(written(track_write_json),
              "{\"positions\":[\n"
              "{\"time_utc\":\"2019-02-05T12:00:00Z\",\"time_local\":\"2019-02-05 12:00:00\","
              "\"fix_type\":\"2D\",\"latitude_deg\":47.366800,\"longitude_deg\":-8.541300,"
              "\"horizontal_accuracy_m\":2.25,\"satellites_used\":8},\n"
              "{\"time_utc\":\"2019-02-05T12:00:01Z\",\"time_local\":\"2019-02-05 12:00:01\","
              "\"fix_type\":\"none\",\"latitude_deg\":null,\"longitude_deg\":null,"
              "\"horizontal_accuracy_m\":2.25,\"satellites_used\":8}\n"
              "],\"skipped_lines\":0}\n");
    EXPECT_NE(written(track_write_gpx)
                  .find("<trkseg>\n<trkpt lat=\"47.366800\" lon=\"-8.541300\">"
                        "<time>2019-02-05T12:00:00Z</time><cmt>accuracy 2.25 m</cmt>"
                        "<sat>8</sat></trkpt>\n</trkseg>\n</trk>"),
              std::string::npos);
    EXPECT_NE(written(track_write_kml).find("<Point><coordinates>-8.541300,47.366800"),
              std::string::npos);
    EXPECT_EQ(written(track_write_geojson),
              "{\"type\":\"FeatureCollection\",\"features\":[\n"
              "{\"type\":\"Feature\",\"geometry\":{\"type\":\"Point\",\"coordinates\":"
              "[-8.541300,47.366800]},\"properties\":{\"start\":\"2019-02-05T12:00:00Z\","
              "\"end\":\"2019-02-05T12:00:00Z\",\"times\":[\"2019-02-05T12:00:00Z\"]}}\n]}\n");
    text.clear();
    EXPECT_EQ(written(track_write_geojson), "{\"type\":\"FeatureCollection\",\"features\":[\n]}\n");
    EXPECT_NE(written(track_write_svg).find(">No positions</text>"), std::string::npos);
}

TEST_F(lsctl_track, the_drawing_is_to_scale) {
    add(0, "0.000000N,0.000000E");
    add(10, "0.000000N,0.010000E"); // 1111.95 m
    add(20, "0.001000N,0.010000E");
    const page_layout layout = page_lay_out(parsed(), 0);
    EXPECT_GT(layout.width, layout.height);
    ASSERT_EQ(layout.lines.size(), 1U);
    const std::vector<page_point> &line = layout.lines[0];
    ASSERT_EQ(line.size(), 3U);
    EXPECT_NEAR((line[1].x - line[0].x) * layout.metres_per_mm, 1111.95, 0.1);
    EXPECT_NEAR((line[1].y - line[2].y) * layout.metres_per_mm, 111.195, 0.1);
    for (const page_point &at : line) {
        EXPECT_GT(at.x, layout.frame.left);
        EXPECT_LT(at.x, layout.frame.right);
    }
    // At 60 degrees a degree of longitude is half as wide: this is taller than wide.
    text.clear();
    add(0, "60.000000N,0.000000E");
    add(10, "60.001000N,0.001500E");
    EXPECT_LT(page_lay_out(parsed(), 0).width, page_lay_out(parsed(), 0).height);
}

TEST_F(lsctl_track, a_scale_bar_has_a_round_length) {
    const std::pair<double, double> rows[] = {
        {0.99, 0.5}, {1, 1},    {1.99, 1}, {2, 2},     {4.99, 2},
        {5, 5},      {9.99, 5}, {10, 10},  {499, 200}, {1e6, 1e6},
    };
    for (const auto &[limit, length] : rows) {
        EXPECT_DOUBLE_EQ(page_round_length(limit), length) << limit;
    }
}

TEST_F(lsctl_track, the_drawing_has_its_marks_pauses_and_times) {
    for (int second = 0; second <= 100; second += 5) {
        add(second, "47." + std::to_string(366800 + 20 * second) + "N,8.541300E");
    }
    for (int second = 1000; second <= 1100; second += 5) {
        add(second, "47." + std::to_string(370000 + 20 * second) + "N,8.541300E");
    }
    const std::string drawing = written(track_write_svg);
    for (const char *label : {">start 12:00:00<", ">end 12:18:20<", ">pause 15 min<", ">12:01:00<",
                              ">12:17:00<", ">500 m<"}) {
        EXPECT_NE(drawing.find(label), std::string::npos) << label;
    }
    EXPECT_EQ(count(drawing, "<path fill=\"none\" stroke=\"#1e50b4\""), 2U);
}

TEST_F(lsctl_track, texts_stay_on_the_map_and_off_each_other) {
    add(0);
    page_labels labels(page_lay_out(parsed(), 0));
    const page_layout layout = page_lay_out(parsed(), 0);
    page_text placed;
    const page_point corner = {layout.frame.right, layout.frame.top};
    ASSERT_TRUE(labels.place(corner, "12:00", &placed));
    EXPECT_STREQ(placed.anchor, "end");
    EXPECT_GT(placed.at.y, layout.frame.top);
    EXPECT_FALSE(labels.place(corner, "12:00", &placed)); // the one place is taken
    EXPECT_TRUE(labels.place({100, 100}, "12:00", &placed));
}

} // namespace
