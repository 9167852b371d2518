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
constexpr double MARGIN_MM = 6; // that nothing is written into
constexpr double HEAD_MM = 18;  // title above the map
constexpr double FOOT_MM = 12;  // scale and legend below it
constexpr double ROOM_MM = 14;  // between the track and the frame, for texts

constexpr double METRES_PER_DEGREE = 6371008.8 * std::numbers::pi / 180;
constexpr double SMALLEST_EXTENT_M = 20; // of somebody who stands still
constexpr double VISIBLE_MM = 0.15;
constexpr double INK_STEP_MM = 1.2;
constexpr double LETTER_MM = 0.56 * PAGE_FONT_MM; // mean width
constexpr double BESIDE_MM = 2.4;
constexpr double SAME_PLACE_MM = 2;
constexpr int STAYS = 3; // times at one place; fewer are a position that was logged twice

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

// What a text with its anchor at x and its middle at y covers.
page_box box_of(double x, double y, const char *anchor, const std::string &text) {
    const double length = LETTER_MM * static_cast<double>(text.size());
    const double left = anchor[0] == 's' ? x : anchor[0] == 'e' ? x - length : x - length / 2;
    return {left, y - 0.6 * PAGE_FONT_MM, left + length, y + 0.6 * PAGE_FONT_MM};
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
    layout.frame = {MARGIN_MM, MARGIN_MM + HEAD_MM, layout.width - MARGIN_MM,
                    layout.height - MARGIN_MM - FOOT_MM};
    const page_box &frame = layout.frame;
    layout.metres_per_mm = std::max(wide / (frame.right - frame.left - 2 * ROOM_MM),
                                    high / (frame.bottom - frame.top - 2 * ROOM_MM));

    const page_point middle = {(frame.left + frame.right) / 2, (frame.top + frame.bottom) / 2};
    layout.middle = middle;
    layout.middle_latitude = latitudes.middle();
    layout.middle_longitude = longitudes.middle();
    layout.latitude_per_mm = layout.metres_per_mm / METRES_PER_DEGREE;
    layout.longitude_per_mm = layout.metres_per_mm / narrowing;
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

bool page_labels::is_free(const page_box &box) const {
    return is_inside(box, frame) &&
           std::none_of(
               taken.begin(), taken.end(),
               [&box](const page_box &other) { return overlap(box, other); });
}

bool page_labels::put(const page_text &text) {
    const page_box box = box_of(text.at.x, text.at.y - 0.35 * PAGE_FONT_MM, text.anchor, text.text);
    if (!is_free(box))
        return false;
    taken.push_back(box);
    return true;
}

bool page_labels::place(page_point beside, const std::string &text, page_text *placed) {
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
        const page_box box = box_of(x, y, to.anchor, text);
        if (!is_free(box))
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
    std::vector<std::string> last_at;
    int count = 0; // of times at the last place
    const auto near = [](page_point a, page_point b) { return distance(a, b) < SAME_PLACE_MM; };
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
            if (times.empty() || !near(times.back().at, time.at)) {
                times.push_back(time);
                last_at.emplace_back();
                count = 1;
            } else if (++count >= STAYS) {
                last_at.back() = " to " + time.text;
            }
        }
    }
    for (size_t i = 0; i < times.size(); ++i)
        times[i].text += last_at[i];
    // Both ends have a text of their own.
    if (!times.empty() && near(times.back().at, layout.lines.back().back()))
        times.pop_back();
    if (!times.empty() && near(times.front().at, layout.lines.front().front()))
        times.erase(times.begin());
    return times;
}

std::vector<page_degree> page_degrees(const page_layout &layout) {
    std::vector<page_degree> degrees;
    const page_box &frame = layout.frame;
    const auto mark = [&](bool latitude, double low, double high) {
        const double step = page_round_length((high - low) / 2);
        const int digits = std::max(0, -static_cast<int>(std::floor(std::log10(step) + 1e-9)));
        const auto first = static_cast<int64_t>(std::ceil(low / step));
        const auto last = static_cast<int64_t>(std::floor(high / step));
        for (int64_t i = first; i <= last; ++i) {
            const double at = static_cast<double>(i) * step;
            const page_point place =
                latitude ? page_point{frame.left, layout.middle.y - (at - layout.middle_latitude) /
                                                                        layout.latitude_per_mm}
                         : page_point{layout.middle.x +
                                          (at - layout.middle_longitude) / layout.longitude_per_mm,
                                      frame.bottom};
            const double shown = latitude ? at : track_unwrapped(0, at);
            if (latitude && std::fabs(shown) > 90)
                continue;
            std::array<char, 48> text{};
            std::snprintf(text.data(), text.size(), "%.*f° %s", digits, std::fabs(shown),
                          latitude ? (shown < 0 ? "S" : "N") : (shown < 0 ? "W" : "E"));
            degrees.push_back({place, latitude, text.data()});
        }
    };
    const double up = (frame.bottom - frame.top) / 2 * layout.latitude_per_mm;
    const double aside = (frame.right - frame.left) / 2 * layout.longitude_per_mm;
    mark(true, layout.middle_latitude - up, layout.middle_latitude + up);
    mark(false, layout.middle_longitude - aside, layout.middle_longitude + aside);
    return degrees;
}
