// lsctl: layout of a track on a page.
#include "page.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

namespace {

// Both fit with margins on A4 and on Letter.
constexpr double LONG_SIDE_MM = 255;
constexpr double SHORT_SIDE_MM = 185;
constexpr double HEAD_MM = 18; // title above the map
constexpr double FOOT_MM = 15; // scale and legend below it
constexpr double ROOM_MM = 14; // between the track and the frame, for texts

constexpr double METRES_PER_DEGREE = 6371008.8 * std::numbers::pi / 180;
constexpr double SMALLEST_EXTENT_M = 20; // of somebody who stands still
constexpr double VISIBLE_MM = 0.15;
constexpr double INK_STEP_MM = 1.2;
constexpr double LETTER_MM = 0.56 * PAGE_FONT_MM; // mean width
constexpr double BESIDE_MM = 2.4;

struct extent {
    double low = 0;
    double high = 0;
    bool any = false;
    void take(double value) {
        low = any ? std::min(low, value) : value;
        high = any ? std::max(high, value) : value;
        any = true;
    }
    double size() const { return high - low; }
    double middle() const { return (low + high) / 2; }
};

bool overlap(const page_box &a, const page_box &b) {
    return a.left < b.right && b.left < a.right && a.top < b.bottom && b.top < a.bottom;
}

bool is_inside(const page_box &inner, const page_box &outer) {
    return inner.left >= outer.left && inner.right <= outer.right && inner.top >= outer.top &&
           inner.bottom <= outer.bottom;
}

double distance(page_point a, page_point b) {
    return std::hypot(a.x - b.x, a.y - b.y);
}

} // namespace

page_layout page_lay_out(const track &all, int64_t gap_s) {
    page_layout layout{};
    layout.stretches = track_stretches(all, gap_s);

    // Longitudes run on across the antimeridian.
    std::vector<double> east(all.points.size());
    extent latitudes;
    extent longitudes;
    double previous = 0;
    for (const track_stretch &stretch : layout.stretches) {
        for (const size_t i : stretch) {
            const double longitude = all.points[i].longitude;
            east[i] = longitudes.any ? track_unwrapped(previous, longitude) : longitude;
            previous = east[i];
            longitudes.take(east[i]);
            latitudes.take(all.points[i].latitude);
        }
    }
    // True to scale at the middle latitude.
    const double narrowing =
        std::max(0.01, std::cos(latitudes.middle() * std::numbers::pi / 180)) * METRES_PER_DEGREE;
    const double wide = std::max(SMALLEST_EXTENT_M, longitudes.size() * narrowing);
    const double high = std::max(SMALLEST_EXTENT_M, latitudes.size() * METRES_PER_DEGREE);

    const bool landscape = wide >= high;
    layout.width = landscape ? LONG_SIDE_MM : SHORT_SIDE_MM;
    layout.height = landscape ? SHORT_SIDE_MM : LONG_SIDE_MM;
    layout.frame = {0.5, HEAD_MM, layout.width - 0.5, layout.height - FOOT_MM};
    const page_box &frame = layout.frame;
    layout.metres_per_mm = std::max(wide / (frame.right - frame.left - 2 * ROOM_MM),
                                    high / (frame.bottom - frame.top - 2 * ROOM_MM));

    const page_point middle = {(frame.left + frame.right) / 2, (frame.top + frame.bottom) / 2};
    layout.places.resize(all.points.size());
    for (const track_stretch &stretch : layout.stretches) {
        std::vector<page_point> line;
        for (const size_t i : stretch) {
            const double x = (east[i] - longitudes.middle()) * narrowing;
            const double y = (all.points[i].latitude - latitudes.middle()) * METRES_PER_DEGREE;
            const page_point at = {middle.x + x / layout.metres_per_mm,
                                   middle.y - y / layout.metres_per_mm};
            layout.places[i] = at;
            if (line.empty() || distance(line.back(), at) >= VISIBLE_MM || i == stretch.back())
                line.push_back(at);
        }
        layout.lines.push_back(std::move(line));
    }
    return layout;
}

double page_round_length(double limit) {
    const double power = std::pow(10, std::floor(std::log10(limit)));
    // A quotient that is 5 in all but the last bit is 5.
    const double head = limit / power * (1 + 1e-9);
    return (head >= 5 ? 5 : head >= 2 ? 2 : 1) * power;
}

page_labels::page_labels(const page_layout &layout) : frame(layout.frame) {
    for (const std::vector<page_point> &line : layout.lines) {
        for (size_t i = 0; i < line.size(); ++i) {
            ink.push_back(line[i]);
            if (i == 0)
                continue;
            const page_point from = line[i - 1];
            const int steps = static_cast<int>(distance(from, line[i]) / INK_STEP_MM);
            for (int step = 1; step <= steps; ++step) {
                const double part = static_cast<double>(step) / (steps + 1);
                ink.push_back(
                    {from.x + part * (line[i].x - from.x), from.y + part * (line[i].y - from.y)});
            }
        }
    }
}

void page_labels::keep_free(const page_box &box) {
    taken.push_back(box);
}

size_t page_labels::covered(const page_box &box) const {
    return static_cast<size_t>(std::count_if(
        ink.begin(), ink.end(),
        [&box](page_point at) {
            return at.x > box.left && at.x < box.right && at.y > box.top && at.y < box.bottom;
        }));
}

bool page_labels::place(page_point beside, const std::string &text, page_text *placed) {
    const double length = LETTER_MM * static_cast<double>(text.size());
    // Directions in which a text may lie, best first.
    struct direction {
        double x;
        double y;
        const char *anchor;
    };
    constexpr std::array<direction, 8> DIRECTIONS = {{{1, 0, "start"},
                                                      {-1, 0, "end"},
                                                      {0, -1.3, "middle"},
                                                      {0, 1.3, "middle"},
                                                      {0.8, -1, "start"},
                                                      {-0.8, -1, "end"},
                                                      {0.8, 1, "start"},
                                                      {-0.8, 1, "end"}}};
    size_t least = 0;
    bool found = false;
    page_box best{};
    for (const direction &to : DIRECTIONS) {
        const double x = beside.x + to.x * BESIDE_MM;
        const double y = beside.y + to.y * BESIDE_MM;
        const double left = to.anchor[0] == 's'   ? x
                            : to.anchor[0] == 'e' ? x - length
                                                  : x - length / 2;
        const page_box box = {left, y - 0.6 * PAGE_FONT_MM, left + length, y + 0.6 * PAGE_FONT_MM};
        if (!is_inside(box, frame) ||
            std::any_of(taken.begin(), taken.end(),
                        [&box](const page_box &other) { return overlap(box, other); }))
            continue;
        const size_t ink_below = covered(box);
        if (!found || ink_below < least) {
            least = ink_below;
            best = box;
            *placed = {{x, y + 0.35 * PAGE_FONT_MM}, to.anchor, text};
            found = true;
        }
    }
    if (found)
        taken.push_back(best);
    return found;
}

std::vector<page_time> page_times(const track &all, const page_layout &layout) {
    constexpr int64_t MOST_TIMES = 16;
    constexpr std::array<int64_t, 18> STEPS_S = {
        1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 10800, 21600, 43200, 86400};
    std::vector<page_time> times;
    if (layout.stretches.empty())
        return times;
    // Pauses need no times.
    int64_t shown_s = 0;
    for (const track_stretch &stretch : layout.stretches)
        shown_s += all.points[stretch.back()].utc - all.points[stretch.front()].utc;
    const auto found = std::find_if(STEPS_S.begin(), STEPS_S.end(), [shown_s](int64_t step) {
        return shown_s <= step * MOST_TIMES;
    });
    const int64_t step = found != STEPS_S.end() ? *found : STEPS_S.back();

    std::string_view day = all.points[layout.stretches.front().front()].line.substr(0, 10);
    // The local wall clock, as if it were UTC: its multiples are what people expect to read.
    const auto wall = [](const track_point &point) {
        const auto number = [&point](size_t at) {
            return int64_t{point.line[at] - '0'} * 10 + (point.line[at + 1] - '0');
        };
        return number(8) * 86400 + number(11) * 3600 + number(14) * 60 + number(17);
    };
    for (const track_stretch &stretch : layout.stretches) {
        for (size_t i = 1; i < stretch.size(); ++i) {
            const track_point &point = all.points[stretch[i]];
            const bool crossed = wall(point) / step != wall(all.points[stretch[i - 1]]) / step;
            if (!crossed)
                continue;
            page_time time{layout.places[stretch[i]], {}};
            if (point.line.substr(0, 10) != day) {
                day = point.line.substr(0, 10);
                time.text = std::string(day.substr(5)) + " ";
            }
            time.text += point.line.substr(11, step < 60 ? 8 : 5);
            times.push_back(time);
        }
    }
    return times;
}
