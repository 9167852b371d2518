#include "source.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <string_view>
#include <vector>

namespace sim {
namespace {

constexpr const char *STANDARD_PLACE = "48.20849,16.37208,171";

// Numbers separated by commas; empty when one of them is not a finite number.
std::vector<double> numbers(std::string_view text) {
    std::vector<double> found;
    while (true) {
        const size_t comma = std::min(text.find(','), text.size());
        double value = 0;
        const auto [end, wrong] = std::from_chars(text.data(), text.data() + comma, value);
        if (comma == 0 || wrong != std::errc{} || end != text.data() + comma ||
            !std::isfinite(value))
            return {};
        found.push_back(value);
        if (comma == text.size())
            return found;
        text.remove_prefix(comma + 1);
    }
}

bool place_from_text(const std::string &text, receiver_options &module, std::string &error) {
    const std::vector<double> place = numbers(text);
    if (place.size() < 2 || place.size() > 3 || std::abs(place[0]) > 90 ||
        std::abs(place[1]) > 180) {
        error = "--place " + text +
                ": must be LATITUDE,LONGITUDE[,ALTITUDE] in degrees (south and west negative) and "
                "metres";
        return false;
    }
    module.truth = make_fixed_place(place[0], place[1], place.size() == 3 ? place[2] : 0);
    return true;
}

} // namespace

bool source_from_options(const terminal_options &options, receiver_options &module,
                         std::string &source, std::string &error) {
    std::string why;
    if (!options.replay.empty()) {
        recording_summary summary;
        module.truth = load_recording(options.replay, why, &summary);
        source = "recording " + options.replay;
        if (module.truth) {
            source += " (" + std::to_string(summary.epochs) + " epochs, " +
                      std::to_string(static_cast<long>(summary.duration)) + " s, " +
                      std::to_string(summary.damaged) + " damaged lines)";
        }
    } else if (!options.route.empty()) {
        module.truth = load_route(options.route, why);
        source = "route " + options.route;
    } else {
        const std::string place = options.place.empty() ? STANDARD_PLACE : options.place;
        if (!place_from_text(place, module, error))
            return false;
        source = "fixed place " + place;
    }
    if (!module.truth) {
        error = "reading the " + source + ": " + why;
        return false;
    }
    if (!options.ttff.empty()) {
        const std::vector<double> times = numbers(options.ttff);
        if (times.size() != 3 || std::ranges::any_of(times, [](double s) { return s < 0; })) {
            error = "--ttff " + options.ttff + ": must be COLD,WARM,HOT in seconds";
            return false;
        }
        module.cold_ttff_s = times[0];
        module.warm_ttff_s = times[1];
        module.hot_ttff_s = times[2];
    }
    module.startup_s = options.startup_s;
    module.instant_fix = options.instant_fix;
    return true;
}

} // namespace sim
