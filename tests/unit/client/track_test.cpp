// The location history as a track: lines, times, the antimeridian, values.
#include "page.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace {

const track_progress silent = [](double) {};

// Central Europe, spelled out: does not need the time zone database.
constexpr const char *BERLIN = "CET-1CEST,M3.5.0,M10.5.0/3";
constexpr int64_t NOON = 1549368000; // of 2019-02-05

struct lsctl_track : testing::Test {
    std::string text;

    void SetUp() override { set_zone("UTC0"); }
    static void set_zone(const char *name) {
        setenv("TZ", name, 1);
        tzset();
    }
    // A line `seconds` after noon, at a place.
    void add(int seconds, const std::string &place = "47.366800N,8.541300E",
             const std::string &fix = "2D,") {
        char clock[16];
        std::snprintf(clock, sizeof clock, "%02d:%02d:%02d", 12 + seconds / 3600, seconds / 60 % 60,
                      seconds % 60);
        text += "2019-02-05 " + std::string(clock) + "," + fix + place + ",+2.25m,08\n";
    }
    track parsed() { return track_parse(text, {}, silent); }
    std::string written(track_writer write) {
        char *bytes = nullptr;
        size_t size = 0;
        FILE *out = open_memstream(&bytes, &size);
        write(parsed(), 0, out, silent);
        std::fclose(out);
        std::string result(bytes, size);
        std::free(bytes);
        return result;
    }
};

TEST_F(lsctl_track, tells_lines_from_what_is_none) {
    const struct {
        const char *name;
        const char *line;
        bool good, placed;
    } rows[] = {
        {"without fix field", "2019-02-05 10:51:05,70.1N,11.5E,+2.25m,08", true, true},
        {"no fix", "2019-02-05 10:51:05,ER,70.1N,11.5E,+2.25m,08", true, false},
        {"200 satellites as a signed byte", "2019-02-05 10:51:05,2D,1.0N,1.0E,+1m,-56", true, true},
        {"the pole", "2019-02-05 10:51:05,2D,90.000000S,180.000000W,+2.25m,08", true, true},
        {"no leap day", "2019-02-29 10:51:05,2D,70.1N,11.5E,+2.25m,08", false, false},
        {"beyond the pole", "2019-02-05 10:51:05,2D,90.000001N,11.5E,+2.25m,08", false, false},
        {"not a number", "2019-02-05 10:51:05,2D,nanN,11.5E,+2.25m,08", false, false},
        {"cut in the count", "2019-02-05 10:51:05,2D,70.1N,11.5E,+2.25m,0", false, false},
        {"cut in front", "5 10:51:05,2D,70.1N,11.5E,+2.25m,08", false, false},
    };
    for (const auto &row : rows) {
        track_point point{};
        EXPECT_EQ(track_parse_line(row.line, 0, &point), row.good) << row.name;
        EXPECT_EQ(point.placed, row.placed) << row.name;
    }
}

TEST_F(lsctl_track, both_ends_of_a_range_belong_to_it) {
    for (int second = 0; second < 4; ++second)
        add(second);
    const track some = track_parse(text, {NOON + 1, NOON + 2}, silent);
    ASSERT_EQ(some.points.size(), 2U);
    EXPECT_EQ(some.points[0].utc, NOON + 1);
    EXPECT_EQ(some.points[1].utc, NOON + 2);
}

TEST_F(lsctl_track, the_hour_that_comes_twice_runs_on) {
    set_zone(BERLIN);
    const std::pair<const char *, int64_t> rows[] = {
        {"01:59:00", 0},    {"02:30:00", 1860}, // summer time
        {"02:59:59", 3659}, {"02:00:00", 3660}, // winter time
        {"02:59:00", 7200}, {"03:00:00", 7260}};
    for (const auto &row : rows)
        text += std::string("2019-10-27 ") + row.first + ",2D,1.0N,1.0E,+1.00m,08\n";
    const track all = parsed();
    for (size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(all.points.at(i).utc - 1572134340, rows[i].second) << rows[i].first;
}

TEST_F(lsctl_track, times_as_people_type_them) {
    set_zone(BERLIN);
    const int64_t now = 1549360265; // 2019-02-05 10:51:05 local
    const struct {
        const char *typed;
        bool end;
        int64_t offset; // from now; 0 = refused
    } rows[] = {
        {"2019-02-05T10:50", true, -6}, {"10:50:10", true, -55}, {"2019-02-05", false, -39065},
        {"2019-02-05", true, 47334},    {"90m", false, -5400},   {"2019-02-30", false, 0},
    };
    for (const auto &row : rows) {
        int64_t utc = now;
        EXPECT_EQ(track_parse_time(row.typed, now, row.end, &utc), row.offset != 0) << row.typed;
        EXPECT_EQ(utc - now, row.offset) << row.typed << row.end;
    }
}

TEST_F(lsctl_track, the_antimeridian_cuts) {
    add(0, "10.000000S,179.000000E");
    add(1, "10.000000S,180.000000W"); // exactly there: nothing to add
    add(2, "10.000000S,179.000000W");
    const auto pieces = track_pieces(parsed(), track_stretches(parsed(), 0).at(0));
    ASSERT_EQ(pieces.size(), 2U);
    // Drawn the short way: 2 degrees, not 358.
    EXPECT_LT(page_lay_out(parsed(), 0).metres_per_mm, 5000);
    EXPECT_TRUE(pieces[0].size() == 2 && pieces[1].size() == 2);
}

// Other programs read the rest of the formats in the system tests.
TEST_F(lsctl_track, values_of_a_fix_and_of_none) {
    add(0, "47.366800S,8.541300W");
    add(1, "0.000000X,0.000000Y", "ER,");
    EXPECT_TRUE(
        written(track_write_csv)
            .ends_with("\n"
                       "2019-02-05T12:00:00Z,2019-02-05 12:00:00,2D,-47.366800,-8.541300,2.25,8\n"
                       "2019-02-05T12:00:01Z,2019-02-05 12:00:01,none,,,2.25,8\n"));
}

} // namespace
