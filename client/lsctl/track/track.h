// lsctl: an exported location history as a track, and the formats it can be written in.
//
// Pure functions: no bus, no options. The lines carry the terminal's local time; they are taken in
// the time zone of this process (TZ). A track refers to the text it was read from, which must
// outlive it. Writers write to a stream and leave it to the caller to look at its error mark.
#ifndef LSCTL_TRACK_TRACK_H
#define LSCTL_TRACK_TRACK_H

#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

enum class track_fix : uint8_t {
    missing, // the line has no fix field
    fix_2d,  // a three-dimensional fix is exported as this too
    none,    // "ER"
};

struct track_point {
    int64_t utc;           // seconds since 1970
    std::string_view line; // as exported, without its line end
    double latitude;       // degrees, north positive
    double longitude;      // degrees, east positive
    double accuracy_m;
    uint32_t satellites;
    track_fix fix;
    bool placed; // latitude and longitude tell a place: hemispheres known, fix not "ER"
};

struct track {
    std::vector<track_point> points;
    size_t bad_lines = 0; // skipped: cut, damaged, or no position
    bool first_bad = false;
    size_t out_of_range = 0; // good, but not between `since` and `until`
    std::string incomplete;  // why lines are missing at its end, a sentence; empty: none are
};

struct track_range {
    int64_t since = std::numeric_limits<int64_t>::min(); // both inclusive, seconds since 1970
    int64_t until = std::numeric_limits<int64_t>::max();
};

// Called now and then with the part done, 0 to 1.
using track_progress = std::function<void(double)>;

// Reads one line without its line end; *previous_utc tells an hour that comes twice (end of summer
// time) from its first coming. False: not a line of the history.
bool track_parse_line(std::string_view line, int64_t previous_utc, track_point *point);
track track_parse(std::string_view text, const track_range &range, const track_progress &progress);

// A time as people type it, local: "YYYY-MM-DD[ HH:MM[:SS]]" (T for the blank), "HH:MM[:SS]" of
// today, or an age such as "90m" (s, m, h, d). Behind a day and a time "Z", "+HH:MM", "+HHMM" or
// "+HH" (or "-") tell another zone. What is left out counts as 0, or for `end` as late as it can
// be. `now`: seconds since 1970. False: none of these.
bool track_parse_time(std::string_view text, int64_t now, bool end, int64_t *utc);

// "2019-02-05T09:51:05Z"
std::string track_utc_text(int64_t utc);
// Metres between two points, along the ground.
double track_distance_m(const track_point &from, const track_point &to);
// The longitude `to` seen from `from`: half a turn away at most, so it may lie outside +-180.
double track_unwrapped(double from, double to);

// Stretches without a pause: indexes of placed points that follow each other. A new one begins
// after a line without a place, a clock set back, and a step much longer than those around it
// (`gap_s` 0) or longer than gap_s seconds.
using track_stretch = std::vector<size_t>;
std::vector<track_stretch> track_stretches(const track &all, int64_t gap_s);

// A stretch, cut where it crosses the antimeridian; the crossing itself ends and begins a piece.
struct track_vertex {
    double latitude;
    double longitude;
    int64_t utc;
};
using track_piece = std::vector<track_vertex>;
std::vector<track_piece> track_pieces(const track &all, const track_stretch &stretch);

struct track_gap {
    int64_t from; // seconds since 1970
    int64_t to;   // less than `from` where the clock was set back
};

// A whole track in a few numbers. Gaps are what lies between its stretches.
struct track_summary {
    const track_point *first = nullptr; // of those with a place; null: there is none
    const track_point *last = nullptr;
    size_t positions = 0;    // with a place
    double distance_m = 0;   // along the track, without its gaps
    int64_t span_s = 0;      // from the first to the last
    int64_t under_way_s = 0; // of that, the steps faster than 0.5 m/s; without the gaps
    // Bounding box in degrees. West is greater than east where it holds the antimeridian.
    double south = 0, north = 0, west = 0, east = 0;
    std::vector<track_gap> gaps;
};
track_summary track_summarise(const track &all, int64_t gap_s);

// One point with its line end: as it was exported, and as an object with `class` in front.
std::string track_line_text(const track_point &at);
std::string track_line_json(const track_point &at);

using track_writer = void (*)(const track &all, int64_t gap_s, FILE *out,
                              const track_progress &progress);

void track_write_lines(const track &all, int64_t gap_s, FILE *out, const track_progress &progress);
void track_write_csv(const track &all, int64_t gap_s, FILE *out, const track_progress &progress);
void track_write_json(const track &all, int64_t gap_s, FILE *out, const track_progress &progress);
void track_write_gpx(const track &all, int64_t gap_s, FILE *out, const track_progress &progress);
void track_write_kml(const track &all, int64_t gap_s, FILE *out, const track_progress &progress);
void track_write_geojson(const track &all, int64_t gap_s, FILE *out,
                         const track_progress &progress);
// One page, landscape or portrait, A4 and Letter alike.
void track_write_svg(const track &all, int64_t gap_s, FILE *out, const track_progress &progress);

#endif
