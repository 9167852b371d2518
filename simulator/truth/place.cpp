// Sources of truth that are computed: a fixed place and a route. The clock starts with the first
// epoch, so that a receiver switched on late still tells the time of day.
#include "calendar.h"
#include "sky.h"
#include "truth.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <memory>
#include <numbers>
#include <string_view>
#include <utility>

namespace sim {

namespace {

// Height of mean sea level over the ellipsoid, metres. One value for the whole simulated world.
constexpr double geoid_separation = 46.9;
constexpr double metres_per_degree = 6371000.0 * std::numbers::pi / 180.0;
// Below this a receiver cannot tell its course, metres per second.
constexpr double slowest_course = 0.1;

struct route_point {
    double seconds, latitude, longitude, altitude;
};

struct motion {
    double latitude, longitude, altitude;
    double speed;
    std::optional<double> course;
};

double radians(double degrees) {
    return degrees * std::numbers::pi / 180.0;
}

double wrapped_longitude(double longitude) {
    const double turned = std::fmod(longitude + 180.0, 360.0);
    return turned < 0 ? turned + 180.0 : turned - 180.0;
}

satellite seen(const sky_satellite &from) {
    satellite to;
    to.prn = from.prn;
    to.elevation = static_cast<int>(std::lround(from.elevation));
    to.azimuth = static_cast<int>(std::lround(from.azimuth)) % 360;
    to.cn0 = static_cast<int>(std::lround(from.cn0));
    to.used = from.used;
    return to;
}

epoch epoch_of(const motion &at, double unix_seconds) {
    const utc_moment moment = moment_of(unix_seconds);
    const double gps_seconds = since_gps_epoch(unix_seconds) + leap_seconds_at(unix_seconds);
    const sky_view sky =
        sky_at(gps_seconds, at.latitude, at.longitude, at.altitude + geoid_separation);

    epoch now;
    now.time = moment.time;
    now.date = moment.date;
    for (const sky_satellite &one : sky.satellites)
        now.satellites.push_back(seen(one));
    // Receivers list what they track by number.
    std::sort(now.satellites.begin(), now.satellites.end(),
              [](const satellite &a, const satellite &b) { return a.prn < b.prn; });
    for (const satellite &one : now.satellites)
        if (one.used)
            now.slots.push_back(one.prn);
    if (now.slots.size() < 4)
        return now;

    now.fix = fix_quality::fix_3d;
    now.latitude = at.latitude;
    now.longitude = at.longitude;
    now.altitude = at.altitude;
    now.geoid = geoid_separation;
    now.speed = at.speed;
    now.course = at.course;
    now.pdop = sky.pdop;
    now.hdop = sky.hdop;
    now.vdop = sky.vdop;
    now.tdop = sky.tdop;
    return now;
}

struct source_clock {
    std::function<double()> wall;
    std::optional<double> start; // Unix time of the source's second 0, from its first epoch on
};

source_clock clock_from(std::function<double()> wall_clock) {
    return {wall_clock ? std::move(wall_clock) : system_wall_clock, std::nullopt};
}

double unix_at(source_clock &clock, double seconds) {
    if (!clock.start)
        clock.start = clock.wall() - seconds;
    return *clock.start + seconds;
}

motion along(const std::vector<route_point> &route, double seconds) {
    const double first = route.front().seconds;
    const double length = route.back().seconds - first;
    const double here = length > 0 ? first + std::fmod(seconds, length) : first;
    const auto next =
        std::upper_bound(route.begin(), route.end(), here,
                         [](double when, const route_point &one) { return when < one.seconds; });
    if (next == route.begin() || next == route.end()) {
        const route_point &end = route.back();
        return {end.latitude, end.longitude, end.altitude, 0.0, std::nullopt};
    }
    const route_point &from = *(next - 1);
    const route_point &to = *next;
    const double duration = to.seconds - from.seconds;
    const double share = (here - from.seconds) / duration;
    const double north = to.latitude - from.latitude;
    const double east = wrapped_longitude(to.longitude - from.longitude);

    motion now{};
    now.latitude = from.latitude + share * north;
    now.longitude = wrapped_longitude(from.longitude + share * east);
    now.altitude = from.altitude + share * (to.altitude - from.altitude);
    const double north_metres = north * metres_per_degree;
    const double east_metres = east * metres_per_degree * std::cos(radians(now.latitude));
    now.speed = std::hypot(north_metres, east_metres) / duration;
    if (now.speed >= slowest_course) {
        const double course = std::atan2(east_metres, north_metres) * 180.0 / std::numbers::pi;
        now.course = course < 0 ? course + 360.0 : course;
    }
    return now;
}

// Numbers of one line, separated by blanks, up to `#`; empty result: something is not a number.
std::optional<std::vector<double>> numbers_of(std::string_view line) {
    line = line.substr(0, line.find('#'));
    std::vector<double> numbers;
    while (true) {
        const size_t begin = line.find_first_not_of(" \t\r,");
        if (begin == std::string_view::npos)
            return numbers;
        line.remove_prefix(begin);
        double value = 0;
        const auto [end, failure] = std::from_chars(line.data(), line.data() + line.size(), value);
        if (failure != std::errc{} || !std::isfinite(value))
            return std::nullopt;
        numbers.push_back(value);
        line.remove_prefix(static_cast<size_t>(end - line.data()));
    }
}

// What is wrong with a point, or nullptr.
const char *fault_of(const std::vector<double> &numbers, const std::vector<route_point> &before) {
    if (numbers.size() < 3 || numbers.size() > 4)
        return "not SECONDS LATITUDE LONGITUDE [ALTITUDE]";
    if (std::fabs(numbers[1]) > 90.0)
        return "latitude beyond 90 degrees";
    if (std::fabs(numbers[2]) > 180.0)
        return "longitude beyond 180 degrees";
    if (!before.empty() && numbers[0] <= before.back().seconds)
        return "time not after the line before";
    return nullptr;
}

} // namespace

truth_source make_fixed_place(double latitude, double longitude, double altitude,
                              std::function<double()> wall_clock) {
    const motion place{latitude, longitude, altitude, 0.0, std::nullopt};
    return [place, clock = clock_from(std::move(wall_clock))](double seconds) mutable {
        return epoch_of(place, unix_at(clock, seconds));
    };
}

truth_source load_route(const std::string &path, std::string &error,
                        std::function<double()> wall_clock) {
    std::ifstream file(path);
    if (!file) {
        error = path + ": cannot be opened";
        return {};
    }
    auto route = std::make_shared<std::vector<route_point>>();
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        const auto numbers = numbers_of(line);
        if (numbers && numbers->empty())
            continue;
        const char *fault = numbers ? fault_of(*numbers, *route) : "not a number";
        if (fault != nullptr) {
            error = path + ":" + std::to_string(number) + ": " + fault;
            return {};
        }
        const double last_altitude = route->empty() ? 0.0 : route->back().altitude;
        route->push_back({(*numbers)[0], (*numbers)[1], (*numbers)[2],
                          numbers->size() == 4 ? (*numbers)[3] : last_altitude});
    }
    if (route->empty()) {
        error = path + ": no points";
        return {};
    }
    return [route, clock = clock_from(std::move(wall_clock))](double seconds) mutable {
        return epoch_of(along(*route, seconds), unix_at(clock, seconds));
    };
}

} // namespace sim
