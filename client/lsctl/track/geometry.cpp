// lsctl: a track as stretches on the globe.
#include "track.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <numbers>

namespace {

constexpr double EARTH_RADIUS_M = 6371008.8; // mean
constexpr double RADIANS = std::numbers::pi / 180;

// A step is a pause when it takes this many times the usual one and some seconds more, so that a
// few positions that could not be had in a row are none.
constexpr int64_t PAUSE_FACTOR = 3;
constexpr int64_t PAUSE_EXTRA_S = 10;
constexpr size_t STEPS_AROUND = 5; // on either side; their median is the usual step there

int64_t usual_step(const std::vector<int64_t> &steps, size_t at) {
    std::array<int64_t, 2 * STEPS_AROUND + 1> around{};
    const size_t first = at < STEPS_AROUND ? 0 : at - STEPS_AROUND;
    const size_t last = std::min(steps.size(), at + STEPS_AROUND + 1);
    const auto end = std::copy(steps.begin() + static_cast<ptrdiff_t>(first),
                               steps.begin() + static_cast<ptrdiff_t>(last), around.begin());
    const auto middle = around.begin() + (end - around.begin()) / 2;
    std::nth_element(around.begin(), middle, end);
    return *middle;
}

} // namespace

double track_unwrapped(double from, double to) {
    return to - 360 * std::round((to - from) / 360);
}

double track_distance_m(const track_point &from, const track_point &to) {
    const double north = std::sin((to.latitude - from.latitude) * RADIANS / 2);
    const double east = std::sin((to.longitude - from.longitude) * RADIANS / 2);
    const double chord = north * north + std::cos(from.latitude * RADIANS) *
                                             std::cos(to.latitude * RADIANS) * east * east;
    return 2 * EARTH_RADIUS_M * std::asin(std::min(1.0, std::sqrt(chord)));
}

std::vector<track_stretch> track_stretches(const track &all, int64_t gap_s) {
    std::vector<int64_t> steps; // steps[i]: seconds from point i to the next one
    for (size_t i = 0; i + 1 < all.points.size(); ++i)
        steps.push_back(all.points[i + 1].utc - all.points[i].utc);
    const auto is_pause = [&](size_t step) {
        const int64_t limit =
            gap_s > 0 ? gap_s : PAUSE_FACTOR * usual_step(steps, step) + PAUSE_EXTRA_S;
        return steps[step] < 0 || steps[step] > limit;
    };
    std::vector<track_stretch> stretches;
    bool open = false;
    for (size_t i = 0; i < all.points.size(); ++i) {
        if (!all.points[i].placed) {
            open = false;
            continue;
        }
        if (!open || is_pause(i - 1)) {
            stretches.emplace_back();
            open = true;
        }
        stretches.back().push_back(i);
    }
    return stretches;
}

std::vector<track_piece> track_pieces(const track &all, const track_stretch &stretch) {
    std::vector<track_piece> pieces(1);
    for (const size_t index : stretch) {
        const track_point &to = all.points[index];
        if (!pieces.back().empty()) {
            const track_vertex from = pieces.back().back();
            const double longitude = track_unwrapped(from.longitude, to.longitude);
            if (longitude != to.longitude) {
                const double edge = longitude > 0 ? 180 : -180;
                const double east = longitude - from.longitude;
                const double part = east == 0 ? 0 : (edge - from.longitude) / east;
                track_vertex crossing = {
                    from.latitude + part * (to.latitude - from.latitude), edge,
                    from.utc + std::llround(part * static_cast<double>(to.utc - from.utc))};
                // A point on the edge is its own crossing.
                if (from.longitude != edge)
                    pieces.back().push_back(crossing);
                crossing.longitude = -edge;
                pieces.emplace_back();
                if (to.longitude != -edge)
                    pieces.back().push_back(crossing);
            }
        }
        pieces.back().push_back({to.latitude, to.longitude, to.utc});
    }
    return pieces;
}
