// lsctl static: the file of the static location, and places as people type them. Pure functions.
#ifndef LSCTL_STATIC_FILE_H
#define LSCTL_STATIC_FILE_H

#include <optional>
#include <string>
#include <string_view>

// The file's path on the terminal. The service reads it again when it is written to in place; it
// does not see a file that was made or renamed.
constexpr std::string_view LSCTL_STATIC_FILE = "/user/stub_location/stub_loc.gps";

// Signed degrees, north and east positive.
struct lsctl_place {
    double latitude_deg = 0;
    double longitude_deg = 0;
};

// One coordinate: decimal degrees with a sign or with a letter behind, "-33.85", "33.85S".
// `letters` is "NS" or "EW" and decides about the range, 90 or 180. None for anything else.
std::optional<double> static_coordinate(std::string_view text, std::string_view letters);

// The whole file: the switch, and when it is on the place in its columns, in thousandths of
// minutes.
std::string static_file_on(const lsctl_place &place);
std::string static_file_off();

// What the service makes of such a file.
struct static_state {
    bool is_on = false;
    std::string place_text;           // when on: what is in the place's columns
    std::optional<lsctl_place> place; // none: not a place in the form that the service takes
};
static_state static_read(std::string_view file);

#endif
