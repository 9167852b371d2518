// The location history as a track: lines, times, the antimeridian, values.
#include "page.h"

#include <cstdlib>
#include <ctime>

#include <gtest/gtest.h>

namespace {

// Central Europe, spelled out: does not need the time zone database.
constexpr const char *BERLIN = "CET-1CEST,M3.5.0,M10.5.0/3";
// Until the next test sets its own.
void set_zone(const char *name) {
    setenv("TZ", name, 1);
    tzset();
}

track parsed(const std::string &text) {
    return track_parse(
        text, {}, [](double) {});
}

TEST(lsctl_track, tells_lines_from_what_is_none) {
    const std::pair<const char *, bool> rows[] = {
        {"2019-02-05 10:51:05,70.1N,11.5E,+2.25m,08", true}, // without a fix
        {"2019-02-05 10:51:05,2D,1.0N,1.0E,+1m,-56", true},  // 200 satellites, as a signed byte
        {"2019-02-05 10:51:05,2D,90.000000S,180.000000W,+2.25m,08", true},
        {"2019-02-29 10:51:05,2D,70.1N,11.5E,+2.25m,08", false}, // no leap day
        {"2019-02-05 10:51:05,2D,90.000001N,11.5E,+2.25m,08", false},
        {"2019-02-05 10:51:05,2D,nanN,11.5E,+2.25m,08", false},
        {"2019-02-05 10:51:05,2D,70.1N,11.5E,+2.25m,0", false}, // cut in the count
    };
    for (const auto &[line, good] : rows) {
        track_point point{};
        EXPECT_EQ(track_parse_line(line, 0, &point), good) << line;
        EXPECT_EQ(point.placed, good) << line;
    }
}

TEST(lsctl_track, the_hour_that_comes_twice_runs_on) {
    set_zone(BERLIN);
    const std::pair<const char *, int64_t> rows[] = {
        {"01:59:00", 0},    {"02:30:00", 1860}, // summer time
        {"02:59:59", 3659}, {"02:00:00", 3660}, // winter time
        {"02:59:00", 7200}, {"03:00:00", 7260}};
    std::string text;
    for (const auto &row : rows)
        text += std::string("2019-10-27 ") + row.first + ",2D,1.0N,1.0E,+1.00m,08\n";
    const track all = parsed(text);
    for (size_t i = 0; i < std::size(rows); ++i)
        EXPECT_EQ(all.points.at(i).utc - 1572134340, rows[i].second) << rows[i].first;
}

TEST(lsctl_track, times_as_people_type_them) {
    set_zone(BERLIN);
    const int64_t now = 1549360265; // 2019-02-05 10:51:05 local
    // Whether it ends a stretch; seconds from now, 0 = refused.
    const std::tuple<const char *, bool, int64_t> rows[] = {
        {"2019-02-05T10:50", true, -6},
        {"10:50:10", true, -55},
        {"2019-02-05", false, -39065},
        {"2019-02-05", true, 47334},
        {"90m", false, -5400},
        {"2019-02-30", false, 0},
        {"2019-02-05T09:51:15Z", false, 10},
        {"2019-02-05 09:51:15+05:30", false, -19790},
        {"2019-02-05T09:51-0100", true, 3654},
        {"2019-02-05T09:51:15+1:00", false, 0},
    };
    for (const auto &[typed, end, offset] : rows) {
        int64_t utc = now;
        EXPECT_EQ(track_parse_time(typed, now, end, &utc), offset != 0) << typed;
        EXPECT_EQ(utc - now, offset) << typed << end;
    }
}

TEST(lsctl_track, a_position_logged_twice_has_one_time_and_a_stay_its_range) {
    set_zone("UTC0");
    std::string text;
    // Each place twice, a minute apart, and the last but one for a while.
    for (const char *at : {"00:00 1", "01:00 1", "02:00 2", "03:00 2", "04:00 3", "05:00 3",
                           "06:00 3", "07:00 3", "08:00 4"})
        text += std::string("2019-02-05 12:") + std::string(at, 5) + ",2D,1.0" + (at + 6) +
                "N,1.0E,+2.25m,08\n";
    const track all = parsed(text);
    const std::vector<page_time> times = page_times(all, page_lay_out(all, 0));
    ASSERT_EQ(times.size(), 2U);
    EXPECT_EQ(times[0].text + ", " + times[1].text, "12:02:00, 12:04:00 to 12:07:00");
}

TEST(lsctl_track, is_summed_up_without_its_gaps_and_cut_at_the_antimeridian) {
    set_zone("UTC0");
    // The second is exactly there: nothing to add.
    const track all = parsed("2019-02-05 12:00:00,2D,0.000000N,179.999900E,+2.25m,08\n"
                             "2019-02-05 12:00:10,2D,0.000000N,180.000000W,+2.25m,08\n"
                             "2019-02-05 12:00:20,2D,0.000000N,179.999900W,+2.25m,08\n"
                             "2019-02-05 12:00:30,2D,0.000010N,179.999900W,+2.25m,08\n"
                             "2019-02-05 12:10:00,2D,1.000000S,179.999900W,+2.25m,08\n"
                             "2019-02-05 12:10:10,ER,0.000000X,0.000000Y,+0.00m,00\n");
    const auto pieces = track_pieces(all, track_stretches(all, 0).at(0));
    ASSERT_EQ(pieces.size(), 2U);
    EXPECT_TRUE(pieces[0].size() == 2 && pieces[1].size() == 3);
    // Drawn the short way, not once around.
    EXPECT_LT(page_lay_out(all, 0).metres_per_mm, 5000);
    const track_summary sum = track_summarise(all, 0);
    EXPECT_TRUE(sum.positions == 5 && sum.span_s == 600);
    EXPECT_EQ(sum.under_way_s, 20) << "a metre in ten seconds is none";
    EXPECT_NEAR(sum.distance_m, 23.35, 0.01);
    ASSERT_EQ(sum.gaps.size(), 1U);
    EXPECT_EQ(sum.gaps[0].to - sum.gaps[0].from, 570);
    EXPECT_TRUE(sum.south == -1 && sum.north == 1e-5);
    EXPECT_NEAR(sum.west, 179.9999, 1e-9);
    EXPECT_NEAR(sum.east, -179.9999, 1e-9);
}

} // namespace
