// lsctl: reading an exported location history.
#include "track.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <ctime>
#include <optional>

namespace {

constexpr size_t DATE_SIZE = 19;       // YYYY-MM-DD HH:MM:SS
constexpr size_t PROGRESS_EVERY = 512; // lines
constexpr int64_t CLOSE_S = 1800;

// Takes the text up to the next comma, and the comma.
std::string_view take_field(std::string_view &rest) {
    const size_t comma = rest.find(',');
    const std::string_view field = rest.substr(0, comma);
    rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
    return field;
}

template <class number>
bool parse_number(std::string_view text, number *value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size();
}

// Exactly `text.size()` digits.
bool parse_digits(std::string_view text, int *value) {
    return !text.empty() &&
           std::all_of(
               text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; }) &&
           parse_number(text, value);
}

int days_in_month(int year, int month) {
    constexpr std::array<int, 12> DAYS = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : DAYS.at(static_cast<size_t>(month - 1));
}

bool parse_day(std::string_view text, tm *local) {
    int year = 0;
    int month = 0;
    int day = 0;
    if (text.size() != 10 || text[4] != '-' || text[7] != '-' ||
        !parse_digits(text.substr(0, 4), &year) || !parse_digits(text.substr(5, 2), &month) ||
        !parse_digits(text.substr(8, 2), &day) || month < 1 || month > 12 || day < 1 ||
        day > days_in_month(year, month))
        return false;
    local->tm_year = year - 1900;
    local->tm_mon = month - 1;
    local->tm_mday = day;
    return true;
}

// HH:MM or HH:MM:SS; without seconds tm_sec stays as it is.
bool parse_clock(std::string_view text, tm *local) {
    int hour = 0;
    int minute = 0;
    int second = local->tm_sec;
    const bool seconds = text.size() == 8;
    if ((text.size() != 5 && !seconds) || text[2] != ':' || (seconds && text[5] != ':') ||
        !parse_digits(text.substr(0, 2), &hour) || !parse_digits(text.substr(3, 2), &minute) ||
        (seconds && !parse_digits(text.substr(6, 2), &second)) || hour > 23 || minute > 59 ||
        second > 60)
        return false;
    local->tm_hour = hour;
    local->tm_min = minute;
    local->tm_sec = second;
    return true;
}

int64_t to_utc(tm local, int summer_time) {
    local.tm_isdst = summer_time;
    return mktime(&local);
}

// Local time to UTC. In the hour that comes twice the earlier reading is taken, unless time would
// run backwards with it.
int64_t to_utc_after(const tm &local, int64_t previous) {
    const int64_t guess = to_utc(local, -1);
    if (guess >= previous && guess < previous + CLOSE_S)
        return guess; // the other reading is an hour away
    int64_t best = guess;
    for (const int summer_time : {1, 0}) {
        const int64_t reading = to_utc(local, summer_time);
        tm back = {};
        const auto instant = static_cast<time_t>(reading);
        localtime_r(&instant, &back);
        // The other reading of an unambiguous time shows another hour.
        if (back.tm_hour == local.tm_hour && back.tm_min == local.tm_min) {
            best = reading;
            if (reading >= previous)
                return reading;
        }
    }
    return best;
}

// "70.132317N" with one of two letters; `unknown` stands for neither.
struct hemisphere_letters {
    char positive;
    char negative;
    char unknown;
    double limit;
};
constexpr hemisphere_letters LATITUDE = {'N', 'S', 'X', 90};
constexpr hemisphere_letters LONGITUDE = {'E', 'W', 'Y', 180};

bool parse_angle(std::string_view field, const hemisphere_letters &letters, double *angle,
                 bool *known) {
    if (field.size() < 2)
        return false;
    const char letter = field.back();
    double magnitude = 0;
    if (!parse_number(field.substr(0, field.size() - 1), &magnitude) || !std::isfinite(magnitude) ||
        std::fabs(magnitude) > letters.limit)
        return false;
    *known = letter != letters.unknown;
    *angle = letter == letters.negative ? -magnitude : magnitude;
    return letter == letters.positive || letter == letters.negative || !*known;
}

// "+2.25m" or "-1.00m".
bool parse_accuracy(std::string_view field, double *accuracy) {
    if (field.size() < 3 || field.back() != 'm' || (field[0] != '+' && field[0] != '-'))
        return false;
    const size_t sign = field[0] == '+' ? 1 : 0; // from_chars takes no plus
    return parse_number(field.substr(sign, field.size() - 1 - sign), accuracy) &&
           std::isfinite(*accuracy);
}

// The count is written as a signed byte.
bool parse_satellites(std::string_view field, uint32_t *satellites) {
    int count = 0;
    if (field.size() < 2 || field.size() > 4 || !parse_number(field, &count) || count < -128 ||
        count > 255)
        return false;
    *satellites = static_cast<uint8_t>(count);
    return true;
}

} // namespace

bool track_parse_line(std::string_view line, int64_t previous_utc, track_point *point) {
    tm local = {};
    if (line.size() < DATE_SIZE || line[10] != ' ' || !parse_day(line.substr(0, 10), &local) ||
        !parse_clock(line.substr(11, 8), &local))
        return false;
    std::string_view rest = line.substr(DATE_SIZE);
    if (!take_field(rest).empty())
        return false;
    track_point read = {};
    read.line = line;
    std::string_view field = take_field(rest);
    if (field == "2D" || field == "ER") {
        read.fix = field == "2D" ? track_fix::fix_2d : track_fix::none;
        field = take_field(rest);
    }
    bool latitude_known = false;
    bool longitude_known = false;
    if (!parse_angle(field, LATITUDE, &read.latitude, &latitude_known) ||
        !parse_angle(take_field(rest), LONGITUDE, &read.longitude, &longitude_known) ||
        !parse_accuracy(take_field(rest), &read.accuracy_m) ||
        !parse_satellites(rest, &read.satellites))
        return false;
    read.placed = latitude_known && longitude_known && read.fix != track_fix::none;
    read.utc = to_utc_after(local, previous_utc);
    *point = read;
    return true;
}

track track_parse(std::string_view text, const track_range &range, const track_progress &progress) {
    track all;
    int64_t previous = 0; // no history is older than 1970
    size_t count = 0;
    for (size_t at = 0; at < text.size(); ++count) {
        const size_t end = std::min(text.find('\n', at), text.size());
        track_point point;
        if (!track_parse_line(text.substr(at, end - at), previous, &point)) {
            ++all.bad_lines;
            all.first_bad = all.first_bad || count == 0;
        } else if (previous = point.utc; point.utc < range.since || point.utc > range.until) {
            ++all.out_of_range;
        } else {
            all.points.push_back(point);
        }
        at = end + 1;
        if (count % PROGRESS_EVERY == 0)
            progress(static_cast<double>(at) / static_cast<double>(text.size()));
    }
    return all;
}

namespace {

std::optional<int64_t> parse_age(std::string_view text, int64_t now) {
    constexpr std::string_view UNITS = "smhd";
    constexpr std::array<int64_t, 4> SECONDS = {1, 60, 3600, 86400};
    const size_t unit = text.empty() ? std::string_view::npos : UNITS.find(text.back());
    uint32_t age = 0;
    if (unit == std::string_view::npos || !parse_number(text.substr(0, text.size() - 1), &age))
        return std::nullopt;
    return now - age * SECONDS.at(unit);
}

} // namespace

namespace {

// Takes a zone off the end: "Z", "+HH:MM", "+HHMM" or "+HH". Seconds east of UTC; none without one.
std::optional<int64_t> take_zone(std::string_view &text) {
    if (text.ends_with('Z') || text.ends_with('z')) {
        text.remove_suffix(1);
        return 0;
    }
    const size_t sign = text.find_last_of("+-");
    if (sign == std::string_view::npos)
        return std::nullopt;
    std::string digits(text.substr(sign + 1));
    if (digits.size() == 5 && digits[2] == ':')
        digits.erase(2, 1);
    int hours = 0;
    int minutes = 0;
    if ((digits.size() != 2 && digits.size() != 4) || !parse_digits(digits.substr(0, 2), &hours) ||
        (digits.size() == 4 && !parse_digits(digits.substr(2), &minutes)) || hours > 14 ||
        minutes > 59)
        return std::nullopt;
    const int64_t east = int64_t{hours} * 3600 + int64_t{minutes} * 60;
    const bool west = text[sign] == '-';
    text = text.substr(0, sign);
    return west ? -east : east;
}

} // namespace

bool track_parse_time(std::string_view text, int64_t now, bool end, int64_t *utc) {
    if (const std::optional<int64_t> aged = parse_age(text, now); aged.has_value()) {
        *utc = *aged;
        return true;
    }
    tm local = {};
    const auto instant = static_cast<time_t>(now);
    localtime_r(&instant, &local);
    local.tm_sec = end ? 59 : 0;
    if (text.size() >= 10) {
        if (!parse_day(text.substr(0, 10), &local))
            return false;
        if (text.size() == 10) {
            local.tm_hour = end ? 23 : 0;
            local.tm_min = end ? 59 : 0;
            *utc = to_utc(local, -1);
            return true;
        }
        if (text[10] != ' ' && text[10] != 'T')
            return false;
        text.remove_prefix(11);
        if (const std::optional<int64_t> east = take_zone(text); east.has_value()) {
            if (!parse_clock(text, &local))
                return false;
            *utc = timegm(&local) - *east;
            return true;
        }
    }
    if (!parse_clock(text, &local))
        return false;
    *utc = to_utc(local, -1);
    return true;
}

std::string track_utc_text(int64_t utc) {
    const auto instant = static_cast<time_t>(utc);
    tm fields = {};
    gmtime_r(&instant, &fields);
    std::array<char, 32> text{};
    strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &fields);
    return text.data();
}
