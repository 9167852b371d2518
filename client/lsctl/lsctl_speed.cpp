// lsctl speed: the receiver's own sentence, because the record's numbers wrap at 256.
#include "lsctl_speed.h"

#include <algorithm>
#include <cmath>

#include <CLI/CLI.hpp>

#include "explain.h"
#include "lsctl_sentence.h"
#include "lsctl_text.h"

namespace {

struct speed_command {
    bool raw = false;

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;
};

constexpr double KMH_IN_A_KNOT = 1.852;
constexpr double KMH_IN_A_METRE_PER_SECOND = 3.6;

// Three digits behind the point are what the receiver tells.
double rounded(double value) {
    return std::round(value * 1000) / 1000;
}

std::string short_number(double value) {
    std::string text = lsctl_format("%.3f", value);
    text.erase(text.find_last_not_of('0') + 1);
    return text.ends_with('.') ? text + '0' : text;
}

// One line for all fractions of one whole number.
std::string candidates_text(const std::vector<double> &candidates) {
    std::string text;
    double whole = -1;
    for (const double speed : candidates) {
        text += std::floor(speed) == whole ? "  " : text.empty() ? "May be  " : " km/h\n        ";
        whole = std::floor(speed);
        text += short_number(speed);
    }
    return text + " km/h\n";
}

// Why the receiver's own sentence does not tell the speed; "" when it does.
std::string problem_of(const lsctl_options &options, location_result result,
                       const lsctl_heard &heard, const lsctl_motion &motion) {
    if (result != LOCATION_ANSWERED)
        return lsctl_sentence(options, result);
    switch (heard.verdict) {
    case lsctl_verdict::good:
        return motion.speed_kmh ? "" : "the receiver's answer holds no speed";
    case lsctl_verdict::nothing:
        return "the receiver did not answer";
    case lsctl_verdict::wrong_checksum:
        return "the receiver's answer has a wrong checksum";
    case lsctl_verdict::cut:
        return "the receiver's answer is cut short";
    default:
        return "the receiver's answer is not the one to this question";
    }
}

int show_true_speed(const lsctl_options &options, const gps_speed_data &record,
                    const lsctl_motion &motion) {
    const double kmh = motion.speed_kmh.value_or(0);
    const double mps = rounded(kmh / KMH_IN_A_METRE_PER_SECOND);
    const double knots = motion.speed_knots.value_or(rounded(kmh / KMH_IN_A_KNOT));
    const std::string time = lsctl_utc(record.time);
    std::string text = lsctl_format("%-6s %s\n", "Time", time.empty() ? "unknown" : time.c_str());
    text += lsctl_format("%-6s %.1f km/h  (%.1f m/s, %.1f knots)\n", "Speed", kmh, mps, knots);
    text += motion.course_deg
                ? lsctl_format("%-6s %.1f deg from north\n", "Course", *motion.course_deg)
                : lsctl_format("%-6s unknown (no movement)\n", "Course");
    const auto or_null = [](const auto &value) {
        return value ? lsctl_json(*value) : lsctl_json(nullptr);
    };
    return lsctl_show(options,
                      {{"time_utc", time.empty() ? lsctl_json(nullptr) : lsctl_json(time)},
                       {"speed_kmh", kmh},
                       {"speed_mps", mps},
                       {"speed_knots", knots},
                       {"course_deg", or_null(motion.course_deg)}},
                      text);
}

int show_candidates(const lsctl_options &options, const gps_speed_data &record,
                    const std::string &problem) {
    const std::vector<double> candidates =
        lsctl_speed_candidates(record.speed_int, record.speed_frac);
    lsctl_json object = lsctl_speed_json(record);
    object["candidates_kmh"] = candidates;
    return lsctl_fail_with(
        options, "speed_ambiguous",
        "the speed is one of those listed: the service tells it modulo 256 only, "
        "and the receiver itself could not be asked (" +
            problem + ")",
        object, lsctl_speed_text(record) + candidates_text(candidates));
}

void speed_command::add_options(CLI::App &app) {
    app.add_flag("--raw", raw, "Only the numbers of the service's record, which wrap at 256");
}

int speed_command::run(const lsctl_options &options) const {
    const lsctl_link link(options.as);
    if (link.result != LOCATION_ANSWERED)
        return lsctl_fail(options, link.result);
    gps_speed_data record{};
    location_result result =
        location_client_get_speed(link.client, lsctl_timeout(options), &record);
    if (result != LOCATION_ANSWERED)
        return lsctl_fail_explained(options, result, link.client);
    if (raw)
        return lsctl_show(options, lsctl_speed_json(record), lsctl_speed_text(record));
    lsctl_heard heard;
    result = lsctl_ask_receiver(link.client, lsctl_timeout(options), LSCTL_ASK_VTG, "VTG", heard);
    if (result == LOCATION_CANCELLED)
        return lsctl_fail(options, result);
    const lsctl_motion motion =
        heard.sentences.empty() ? lsctl_motion{} : lsctl_motion_of(heard.sentences.front());
    const std::string problem = problem_of(options, result, heard, motion);
    return problem.empty() ? show_true_speed(options, record, motion)
                           : show_candidates(options, record, problem);
}

} // namespace

std::vector<double> lsctl_speed_candidates(uint8_t speed_int, uint8_t speed_frac) {
    constexpr unsigned wrap = 256;
    constexpr unsigned most_digits = 3;
    std::vector<double> candidates;
    for (unsigned whole = speed_int; whole <= LSCTL_FASTEST_KMH; whole += wrap) {
        unsigned units = 1; // in one km/h, with this many digits behind the point
        for (unsigned digits = 1; digits <= most_digits; ++digits) {
            units *= 10;
            for (unsigned behind = speed_frac; behind < units; behind += wrap)
                candidates.push_back((whole * units + behind) / static_cast<double>(units));
        }
    }
    std::sort(candidates.begin(), candidates.end());
    candidates.erase(std::unique(candidates.begin(), candidates.end()), candidates.end());
    return candidates;
}

lsctl_runner lsctl_speed(CLI::App &app) {
    return lsctl_make<speed_command>(app);
}
