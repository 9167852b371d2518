// Recordings of real receivers as a source of truth: what a GPS-only receiver would have told.
#include "recording.h"

#include "sentence.h"
#include "truth.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <memory>

namespace sim {

namespace {

constexpr double knot = 1852.0 / 3600.0; // metres per second
constexpr double kmh = 1.0 / 3.6;        // metres per second
// A longer silence is a cut in the recording, not something to wait for, seconds.
constexpr double longest_step = 60.0;
constexpr int last_gps_prn = 32;

using fields_t = std::vector<std::string_view>;

std::string_view field(const fields_t &fields, size_t index) {
    return index < fields.size() ? fields[index] : std::string_view{};
}

template <class number>
std::optional<number> number_in(std::string_view text) {
    number value{};
    const char *end = text.data() + text.size();
    const auto [stop, failure] = std::from_chars(text.data(), end, value);
    if (failure != std::errc{} || stop != end)
        return std::nullopt;
    if constexpr (std::is_floating_point_v<number>)
        if (!std::isfinite(value))
            return std::nullopt;
    return value;
}

std::optional<int> digits_in(std::string_view text, size_t at, size_t count) {
    return text.size() < at + count ? std::nullopt : number_in<int>(text.substr(at, count));
}

std::optional<utc_time> time_in(std::string_view text) {
    if (text.size() < 6)
        return std::nullopt;
    const int hour = digits_in(text, 0, 2).value_or(-1);
    const int minute = digits_in(text, 2, 2).value_or(-1);
    const double second = number_in<double>(text.substr(4)).value_or(-1.0);
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second >= 61)
        return std::nullopt;
    return utc_time{hour, minute, second};
}

std::optional<utc_date> date_of(std::optional<int> day, std::optional<int> month,
                                std::optional<int> year) {
    if (!day || !month || !year || *day < 1 || *day > 31 || *month < 1 || *month > 12 ||
        *year < 1980 || *year > 9999)
        return std::nullopt;
    return utc_date{*day, *month, *year};
}

std::optional<utc_date> short_date_in(std::string_view ddmmyy) {
    std::optional<int> year = digits_in(ddmmyy, 4, 2);
    if (year)
        *year += *year < 80 ? 2000 : 1900;
    return date_of(digits_in(ddmmyy, 0, 2), digits_in(ddmmyy, 2, 2), year);
}

// Degrees and minutes, then the hemisphere.
std::optional<double> angle_in(std::string_view text, std::string_view hemisphere, double limit) {
    const auto value = number_in<double>(text);
    if (!value || *value < 0 || hemisphere.size() != 1)
        return std::nullopt;
    const double degrees = std::floor(*value / 100.0);
    const double angle = degrees + (*value - degrees * 100.0) / 60.0;
    if (angle > limit)
        return std::nullopt;
    return hemisphere == "S" || hemisphere == "W" ? -angle : angle;
}

void take_position(epoch &draft, const fields_t &fields, size_t first) {
    if (const auto latitude = angle_in(field(fields, first), field(fields, first + 1), 90.0))
        draft.latitude = latitude;
    if (const auto longitude = angle_in(field(fields, first + 2), field(fields, first + 3), 180.0))
        draft.longitude = longitude;
}

// RMC tells knots and VTG km/h, each rounded. Together they tell a speed that rounds to both.
void take_speed(epoch_gatherer &gatherer, std::string_view text, double unit) {
    const auto number = number_in<double>(text);
    if (!number)
        return;
    const size_t point = std::min(text.find('.'), text.size() - 1);
    const double last_digit = std::pow(10.0, -static_cast<double>(text.size() - 1 - point));
    const rounded_value told{*number * unit, 0.49 * last_digit * unit};
    const rounded_value before = gatherer.speed.value_or(told);
    const rounded_value &fine = told.half < before.half ? told : before;
    const rounded_value &coarse = told.half < before.half ? before : told;
    gatherer.speed = {
        std::clamp(fine.value, coarse.value - coarse.half, coarse.value + coarse.half), fine.half};
    gatherer.draft.speed = gatherer.speed->value;
}

void take_rmc(epoch_gatherer &gatherer, const fields_t &fields) {
    (field(fields, 2) == "A" ? gatherer.valid_fix : gatherer.void_fix) = true;
    take_position(gatherer.draft, fields, 3);
    take_speed(gatherer, field(fields, 7), knot);
    gatherer.draft.course = number_in<double>(field(fields, 8));
    if (const auto date = short_date_in(field(fields, 9)))
        gatherer.draft.date = date;
}

void take_gga(epoch_gatherer &gatherer, const fields_t &fields) {
    const int quality = number_in<int>(field(fields, 6)).value_or(0);
    (quality > 0 ? gatherer.valid_fix : gatherer.void_fix) = true;
    take_position(gatherer.draft, fields, 2);
    if (!gatherer.draft.hdop)
        gatherer.draft.hdop = number_in<double>(field(fields, 8));
    gatherer.draft.altitude = number_in<double>(field(fields, 9));
    gatherer.draft.geoid = number_in<double>(field(fields, 11));
}

void take_gll(epoch_gatherer &gatherer, const fields_t &fields) {
    (field(fields, 6) == "A" ? gatherer.valid_fix : gatherer.void_fix) = true;
    take_position(gatherer.draft, fields, 1);
}

void take_vtg(epoch_gatherer &gatherer, const fields_t &fields) {
    take_speed(gatherer, field(fields, 7), kmh);
}

void take_zda(epoch_gatherer &gatherer, const fields_t &fields) {
    if (const auto date =
            date_of(number_in<int>(field(fields, 2)), number_in<int>(field(fields, 3)),
                    number_in<int>(field(fields, 4))))
        gatherer.draft.date = date;
}

// One GSA per constellation. GPS is the one with system number 1 or, in older versions that have
// none, the first that names no other system's satellites.
void take_gsa(epoch_gatherer &gatherer, const fields_t &fields) {
    constexpr size_t first_slot = 3, slot_count = 12, system_field = 18;
    const std::string_view talker = fields[0].substr(0, 2);
    if (gatherer.gsa_mode != 0 || fields.size() < system_field ||
        (talker != "GP" && talker != "GN") ||
        (fields.size() > system_field && field(fields, system_field) != "1"))
        return;
    std::vector<int> slots;
    bool other_system = false;
    for (size_t slot = 0; slot < slot_count; ++slot) {
        const int prn = number_in<int>(field(fields, first_slot + slot)).value_or(0);
        other_system = other_system || prn > last_gps_prn;
        slots.push_back(prn >= 1 && prn <= last_gps_prn ? prn : 0);
    }
    const bool any = std::any_of(slots.begin(), slots.end(), [](int prn) { return prn > 0; });
    if (other_system && !any)
        return;
    gatherer.gsa_mode = std::clamp(number_in<int>(field(fields, 2)).value_or(1), 1, 3);
    gatherer.draft.slots = any ? slots : std::vector<int>{};
    gatherer.draft.pdop = number_in<double>(field(fields, 15));
    gatherer.draft.hdop = number_in<double>(field(fields, 16));
    gatherer.draft.vdop = number_in<double>(field(fields, 17));
}

void take_gsv(epoch_gatherer &gatherer, const fields_t &fields) {
    constexpr size_t first_block = 4, block = 4;
    if (fields[0] != "GPGSV")
        return;
    std::vector<satellite> &satellites = gatherer.draft.satellites;
    // What is left over behind whole blocks is the signal number of newer versions.
    for (size_t at = first_block; at + block <= fields.size(); at += block) {
        const auto prn = number_in<int>(fields[at]);
        const bool known = std::any_of(satellites.begin(), satellites.end(),
                                       [&](const satellite &one) { return one.prn == prn; });
        if (!prn || *prn < 1 || *prn > last_gps_prn || known)
            continue;
        satellite one;
        one.prn = *prn;
        one.elevation = number_in<int>(fields[at + 1]);
        one.azimuth = number_in<int>(fields[at + 2]);
        one.cn0 = number_in<int>(fields[at + 3]);
        satellites.push_back(one);
    }
}

struct sentence_type {
    std::string_view name;
    size_t time_field; // 0 = tells no time
    void (*take)(epoch_gatherer &, const fields_t &);
};

constexpr sentence_type sentence_types[] = {
    {"RMC", 1, take_rmc}, {"GGA", 1, take_gga}, {"GLL", 5, take_gll}, {"ZDA", 1, take_zda},
    {"VTG", 0, take_vtg}, {"GSA", 0, take_gsa}, {"GSV", 0, take_gsv},
};

bool same_time(const utc_time &a, const utc_time &b) {
    return a.hour == b.hour && a.minute == b.minute && std::fabs(a.second - b.second) < 0.0005;
}

bool begins_epoch(const epoch_gatherer &gatherer, const sentence_type &type,
                  const std::optional<utc_time> &time) {
    if (time && gatherer.draft.time)
        return !same_time(*time, *gatherer.draft.time);
    const bool again =
        std::find(gatherer.types.begin(), gatherer.types.end(), type.name) != gatherer.types.end();
    // These come in runs, one for each constellation or four satellites.
    const bool run = (type.name == "GSA" || type.name == "GSV") && gatherer.last_type == type.name;
    return again && !run;
}

// Seconds from one epoch to the next.
double step_between(const epoch &from, const epoch &to) {
    if (!from.time || !to.time)
        return 1.0;
    const auto of_day = [](const utc_time &time) {
        return time.hour * 3600.0 + time.minute * 60.0 + time.second;
    };
    double step = of_day(*to.time) - of_day(*from.time);
    if (step < 0)
        step += 86400.0;
    return step > 0 && step <= longest_step ? step : 1.0;
}

} // namespace

void gather_end(epoch_gatherer &gatherer) {
    if (gatherer.types.empty())
        return;
    epoch &draft = gatherer.draft;
    const bool fixed = gatherer.valid_fix && !gatherer.void_fix && gatherer.gsa_mode != 1 &&
                       draft.latitude && draft.longitude;
    if (fixed)
        draft.fix = gatherer.gsa_mode == 2 ? fix_quality::fix_2d : fix_quality::fix_3d;
    for (satellite &one : draft.satellites)
        one.used = fixed &&
                   std::find(draft.slots.begin(), draft.slots.end(), one.prn) != draft.slots.end();
    std::vector<epoch> done = std::move(gatherer.done);
    done.push_back(std::move(draft));
    gatherer = {};
    gatherer.done = std::move(done);
}

bool gather_line(epoch_gatherer &gatherer, std::string_view line) {
    const auto body = verified_nmea_body(line);
    if (!body)
        return false;
    const fields_t fields = nmea_fields(*body);
    if (fields[0].size() != 5)
        return true;
    const auto type =
        std::find_if(std::begin(sentence_types), std::end(sentence_types),
                     [&](const sentence_type &one) { return one.name == fields[0].substr(2); });
    if (type == std::end(sentence_types))
        return true;
    const auto time =
        type->time_field == 0 ? std::nullopt : time_in(field(fields, type->time_field));
    if (begins_epoch(gatherer, *type, time))
        gather_end(gatherer);
    if (time)
        gatherer.draft.time = time;
    type->take(gatherer, fields);
    gatherer.types.emplace_back(type->name);
    gatherer.last_type = type->name;
    return true;
}

truth_source load_recording(const std::string &path, std::string &error,
                            recording_summary *summary) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = path + ": cannot be opened";
        return {};
    }
    epoch_gatherer gatherer;
    recording_summary told;
    std::string line;
    while (std::getline(file, line)) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' '))
            line.pop_back();
        if (!line.empty() && line[0] != '#' && !gather_line(gatherer, line))
            ++told.damaged;
    }
    gather_end(gatherer);
    if (gatherer.done.empty()) {
        error = path + ": no NMEA sentence with a right checksum";
        return {};
    }

    struct replay {
        std::vector<epoch> epochs;
        std::vector<double> starts; // seconds, one for each epoch
        double duration = 0;
    };
    auto recording = std::make_shared<replay>();
    recording->epochs = std::move(gatherer.done);
    for (size_t i = 0; i < recording->epochs.size(); ++i) {
        recording->starts.push_back(recording->duration);
        recording->duration += i + 1 < recording->epochs.size()
                                   ? step_between(recording->epochs[i], recording->epochs[i + 1])
                                   : 1.0;
    }
    told.epochs = recording->epochs.size();
    told.duration = recording->duration;
    if (summary != nullptr)
        *summary = told;
    return [recording](double seconds) {
        // A step of .99 s must not miss its epoch by a rounding error of the caller's clock.
        const double at = std::fmod(std::max(seconds, 0.0) + 1e-6, recording->duration);
        const auto next = std::upper_bound(recording->starts.begin(), recording->starts.end(), at);
        return recording->epochs[static_cast<size_t>(next - recording->starts.begin()) - 1];
    };
}

} // namespace sim
