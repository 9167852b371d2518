// lsctl: a track laid out on a page: projection, scale, and places for its texts. Millimetres from
// the upper left corner of the page; y grows downwards.
#ifndef LSCTL_TRACK_PAGE_H
#define LSCTL_TRACK_PAGE_H

#include "track.h"

struct page_point {
    double x;
    double y;
};

struct page_box {
    double left;
    double top;
    double right;
    double bottom;
};

struct page_text {
    page_point at;      // start, middle or end of its base line
    const char *anchor; // SVG's text-anchor
    std::string text;
};

struct page_layout {
    double width; // of the page
    double height;
    page_box frame; // the map in it
    double metres_per_mm;
    page_point middle; // where the degrees below are
    double middle_latitude;
    double middle_longitude;
    double latitude_per_mm;
    double longitude_per_mm;
    std::vector<track_stretch> stretches;
    std::vector<page_point> places; // by index in the track; meaningful for those in a stretch
    // The points of each stretch, but for those too close to see apart.
    std::vector<std::vector<page_point>> lines;
};

constexpr double PAGE_FONT_MM = 3.2;

// Without stretches and lines when no point has a place.
page_layout page_lay_out(const track &all, int64_t gap_s);

// The largest of 1, 2 or 5 times a power of ten that is not above `limit`.
double page_round_length(double limit);

// Finds places for texts beside points, on the map but not on each other nor, if it can be helped,
// on the track.
class page_labels {
  public:
    explicit page_labels(const page_layout &layout);
    void keep_free(const page_box &box);
    // False: a text has no room where it is to be.
    bool put(const page_text &text);
    // False: there is no room beside the point.
    bool place(page_point beside, const std::string &text, page_text *placed);

  private:
    bool is_free(const page_box &box) const;
    size_t covered(const page_box &box) const;

    page_box frame;
    std::vector<page_box> taken;
    std::vector<page_point> ink; // points along the track, closer to each other than a text is high
};

// A degree of latitude, on the left edge of the map, or longitude, on the lower one.
struct page_degree {
    page_point at;
    bool latitude;
    std::string text; // "47.365° N"
};
std::vector<page_degree> page_degrees(const page_layout &layout);

// A place on the track that gets its time written beside it: one text a place. Where it stays for a
// while this is "10:51 to 11:30".
struct page_time {
    page_point at;
    std::string text; // "10:51", with seconds or the day before it where they are needed
};
std::vector<page_time> page_times(const track &all, const page_layout &layout);

#endif
