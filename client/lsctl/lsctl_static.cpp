// lsctl static: shows and writes the file by which the service reports a fixed position.
//
// The service is not asked: it sees the file being written, and reads it then.
#include <array>
#include <cerrno>
#include <cmath>
#include <cstring>

#include <CLI/CLI.hpp>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ls_descriptor.h"
#include "ls_file.h"
#include "lsctl_static_file.h"
#include "lsctl_terminal.h"
#include "lsctl_text.h"

namespace {

struct static_command {
    // As typed.
    std::string action = "show";
    std::string latitude;
    std::string longitude;

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;
};

int fail_on_file(const lsctl_options &options, const std::string &path, const char *verb,
                 int error) {
    std::string sentence = lsctl_format("%s cannot be %s: %s", path.c_str(), verb, strerror(error));
    if (error == EACCES || error == EPERM || error == EROFS)
        sentence += "; members of terminal-data and root may";
    else if (error == ENOENT)
        sentence += "; its directory has to be there before the location service starts, which "
                    "otherwise does not see a change";
    const bool is_denied = error == EACCES || error == EPERM;
    return lsctl_fail_with(options, is_denied ? "static_denied" : "static_file", sentence,
                           lsctl_json::object(), "");
}

// Writes it as the service needs it: in place, whole in one write, so that neither the reading that
// this causes nor any other finds half of it; what an older file had more is behind what is read.
// 0 or an errno.
int write_in_place(const std::string &path, const std::string &text) {
    ls_descriptor file(ls_open_regular(path.c_str(), O_WRONLY));
    if (file.fd < 0 && errno == ENOENT) {
        file.fd = ls_open_regular(path.c_str(), O_WRONLY | O_CREAT | O_EXCL);
        // The service opens it for writing, too.
        if (file.fd >= 0 && fchmod(file.fd, 0660) != 0)
            return errno;
    }
    if (file.fd < 0)
        return errno;
    const ssize_t written = pwrite(file.fd, text.data(), text.size(), 0);
    if (written != static_cast<ssize_t>(text.size()))
        return written < 0 ? errno : ENOSPC;
    return ftruncate(file.fd, written) == 0 && fsync(file.fd) == 0 ? 0 : errno;
}

// As the service reads it, as far as that matters to it. 0 or an errno.
int read_file(const std::string &path, std::string &text) {
    const ls_descriptor file(ls_open_regular(path.c_str(), O_RDONLY));
    if (file.fd < 0)
        return errno;
    std::array<char, 64> head{};
    const ssize_t size = pread(file.fd, head.data(), head.size(), 0);
    if (size < 0)
        return errno;
    text.assign(head.data(), static_cast<size_t>(size));
    return 0;
}

int show(const lsctl_options &options, const std::string &path) {
    std::string text;
    const int error = read_file(path, text);
    if (error != 0 && error != ENOENT)
        return fail_on_file(options, path, "read", error);
    const static_state state = static_read(text);
    const bool has_place = state.place.has_value();
    const lsctl_json object = {
        {"static_on", state.is_on},
        {"latitude_deg", has_place ? lsctl_json(state.place->latitude_deg) : lsctl_json(nullptr)},
        {"longitude_deg", has_place ? lsctl_json(state.place->longitude_deg) : lsctl_json(nullptr)},
        {"file", path}};
    std::string lines = lsctl_format("%-16s %s%s\n", "Static location", state.is_on ? "on" : "off",
                                     error == ENOENT ? " (there is no file)" : "");
    if (!state.is_on)
        return lsctl_show(options, object, lines);
    if (!has_place) {
        return lsctl_fail_with(options, "static_place",
                               "the static location is on, but '" + state.place_text +
                                   "' is no place like 7007.939,N,01131.000,E: requests for the "
                                   "position fail, or report something else",
                               object, lines);
    }
    const auto row = [&lines](const char *name, double degrees, const char *letters) {
        const char letter = letters[degrees < 0 ? 1 : 0];
        lines += lsctl_format("%-16s %s  (%s)\n", name,
                              lsctl_degrees(std::fabs(degrees), letter).c_str(),
                              lsctl_degrees_minutes(std::fabs(degrees), letter).c_str());
    };
    row("Latitude", state.place->latitude_deg, "NS");
    row("Longitude", state.place->longitude_deg, "EW");
    lines += lsctl_format("%-16s as a 3D fix at 545.4 m of 2019-02-05T10:51:05Z, with 8 satellites "
                          "used\n",
                          "Reported");
    return lsctl_show(options, object, lines);
}

void static_command::add_options(CLI::App &app) {
    app.add_option(
           "action", action,
           "on needs a place; off ends it; show, the default, says what the service reports")
        ->option_text("[on|off|show]")
        ->check(CLI::IsMember({"on", "off", "show"}));
    app.add_option("latitude", latitude, "Degrees: 47.28, -33.85 or 33.85S")->option_text("LAT");
    app.add_option("longitude", longitude, "Degrees: 8.56, -70.5 or 70.5W")->option_text("LON");
}

int static_command::run(const lsctl_options &options) const {
    const std::string path = lsctl_terminal_root().append(LSCTL_STATIC_FILE);
    if (action != "on" && !latitude.empty()) {
        return lsctl_fail(options, LOCATION_BAD_ARGUMENT,
                          "a place goes with 'on' only: lsctl static on LAT LON");
    }
    if (action == "on" && longitude.empty()) {
        return lsctl_fail(options, LOCATION_BAD_ARGUMENT,
                          "'on' needs a place: lsctl static on LAT LON");
    }
    if (action == "show")
        return show(options, path);
    std::string text = static_file_off();
    if (action == "on") {
        const auto north = static_coordinate(latitude, "NS");
        const auto east = static_coordinate(longitude, "EW");
        if (!north || !east) {
            return lsctl_fail(
                options, LOCATION_BAD_ARGUMENT,
                lsctl_format("'%s' is no %s", (north ? longitude : latitude).c_str(),
                             north ? "longitude: -180 to 180 degrees, or with E or W behind"
                                   : "latitude: -90 to 90 degrees, or with N or S behind"));
        }
        text = static_file_on({*north, *east});
    }
    const int error = write_in_place(path, text);
    return error == 0 ? show(options, path) : fail_on_file(options, path, "written", error);
}

} // namespace

lsctl_runner lsctl_static(CLI::App &app) {
    return lsctl_make<static_command>(app);
}
