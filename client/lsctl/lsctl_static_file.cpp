// lsctl static: the file of the static location.
#include "lsctl_static_file.h"

#include <cctype>
#include <charconv>
#include <cmath>

#include "lsctl_text.h"

namespace {

constexpr std::string_view SWITCH_ON = "STATIC_LOCATION = ON\n"; // fills the switch's columns
constexpr std::string_view SWITCH_OFF = "STATIC_LOCATION = OFF\n";
constexpr size_t SWITCH_SIZE = 21;
static_assert(SWITCH_ON.size() == SWITCH_SIZE);
constexpr size_t PLACE_SIZE = 22; // "7007.939,N,01131.000,E"
constexpr long UNITS = 60000;     // thousandths of minutes in a degree

constexpr double furthest(std::string_view letters) {
    return letters == "NS" ? 90 : 180;
}

// "ddmm.mmm,N", with so many digits of degrees. Rounded as a whole: minutes never read 60.
std::string column(double degrees, int width, std::string_view letters) {
    const long units = std::lround(std::fabs(degrees) * UNITS);
    const long of_minutes = units % UNITS;
    return lsctl_format("%0*ld%02ld.%03ld,%c", width, units / UNITS, of_minutes / 1000,
                        of_minutes % 1000, letters[degrees < 0 && units != 0 ? 1 : 0]);
}

// The value of such a column; none when it is anything else.
std::optional<double> column_value(std::string_view text, size_t width, std::string_view letters) {
    const std::string shape = std::string(width + 2, '0') + ".000,";
    if (text.size() != shape.size() + 1 || letters.find(text.back()) == std::string_view::npos)
        return std::nullopt;
    long degrees_part = 0;
    long minutes = 0; // thousandths
    for (size_t i = 0; i < shape.size(); ++i) {
        const bool is_digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (shape[i] != '0' ? text[i] != shape[i] : !is_digit)
            return std::nullopt;
        if (!is_digit)
            continue;
        long &number = i < width ? degrees_part : minutes;
        number = number * 10 + (text[i] - '0');
    }
    if (minutes >= UNITS)
        return std::nullopt;
    const double degrees = static_cast<double>(degrees_part * UNITS + minutes) / UNITS;
    if (degrees > furthest(letters))
        return std::nullopt;
    return text.back() == letters[0] || degrees == 0 ? degrees : -degrees;
}

} // namespace

std::optional<double> static_coordinate(std::string_view text, std::string_view letters) {
    bool is_negative = false;
    bool has_letter = false;
    if (!text.empty()) {
        const auto last = static_cast<char>(std::toupper(static_cast<unsigned char>(text.back())));
        has_letter = letters.find(last) != std::string_view::npos;
        is_negative = has_letter && last == letters[1];
        text.remove_suffix(has_letter ? 1 : 0);
    }
    if (!has_letter && (text.starts_with('-') || text.starts_with('+'))) {
        is_negative = text.front() == '-';
        text.remove_prefix(1);
    }
    double degrees = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), degrees, std::chars_format::fixed);
    if (error != std::errc() || end != text.data() + text.size() || !(degrees >= 0) ||
        std::signbit(degrees) || degrees > furthest(letters))
        return std::nullopt;
    return is_negative ? -degrees : degrees;
}

std::string static_file_on(const lsctl_place &place) {
    return std::string(SWITCH_ON)
        .append(column(place.latitude_deg, 2, "NS"))
        .append(",")
        .append(column(place.longitude_deg, 3, "EW"))
        .append("\n");
}

std::string static_file_off() {
    return std::string(SWITCH_OFF);
}

static_state static_read(std::string_view file) {
    constexpr size_t latitude_size = 10; // and a comma
    static_state state;
    state.is_on = file.substr(0, SWITCH_SIZE).find("= ON") != std::string_view::npos;
    if (!state.is_on || file.size() <= SWITCH_SIZE)
        return state;
    const std::string_view text = file.substr(SWITCH_SIZE, PLACE_SIZE);
    state.place_text = text;
    if (text.size() != PLACE_SIZE || text[latitude_size] != ',')
        return state;
    const auto latitude = column_value(text.substr(0, latitude_size), 2, "NS");
    const auto longitude = column_value(text.substr(latitude_size + 1), 3, "EW");
    if (latitude && longitude)
        state.place = {*latitude, *longitude};
    return state;
}
