// lsctl: a track in a few numbers.
#include "track.h"

#include <algorithm>

namespace {

// The position of a receiver that stands still wanders more slowly than that; nobody walks so.
constexpr double STANDING_M_PER_S = 0.5;

double wrapped(double longitude) {
    return longitude > 180 ? longitude - 360 : longitude < -180 ? longitude + 360 : longitude;
}

void take_stretch(const track &all, const track_stretch &stretch, track_summary &sum) {
    for (size_t i = 1; i < stretch.size(); ++i) {
        const track_point &from = all.points[stretch[i - 1]];
        const track_point &to = all.points[stretch[i]];
        const double metres = track_distance_m(from, to);
        const int64_t seconds = to.utc - from.utc;
        sum.distance_m += metres;
        if (metres > STANDING_M_PER_S * static_cast<double>(seconds))
            sum.under_way_s += seconds;
    }
}

} // namespace

track_summary track_summarise(const track &all, int64_t gap_s) {
    track_summary sum;
    double previous = 0; // longitudes run on across the antimeridian
    for (const track_stretch &stretch : track_stretches(all, gap_s)) {
        const track_point &first = all.points[stretch.front()];
        if (sum.first == nullptr) {
            sum.first = &first;
            sum.south = sum.north = first.latitude;
            sum.west = sum.east = previous = first.longitude;
        } else {
            sum.gaps.push_back({sum.last->utc, first.utc});
        }
        sum.last = &all.points[stretch.back()];
        sum.positions += stretch.size();
        take_stretch(all, stretch, sum);
        for (const size_t i : stretch) {
            previous = track_unwrapped(previous, all.points[i].longitude);
            sum.west = std::min(sum.west, previous);
            sum.east = std::max(sum.east, previous);
            sum.south = std::min(sum.south, all.points[i].latitude);
            sum.north = std::max(sum.north, all.points[i].latitude);
        }
    }
    if (sum.first != nullptr)
        sum.span_s = sum.last->utc - sum.first->utc;
    const bool all_round = sum.east - sum.west >= 360;
    sum.west = all_round ? -180 : wrapped(sum.west);
    sum.east = all_round ? 180 : wrapped(sum.east);
    return sum;
}
