// lsctl: the files of the terminal that say how the service is set up.
#include "look.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dbhandler.h"
#include "ls_file.h"
#include "lsctl_settings.h"

namespace diagnosis {
namespace {

constexpr size_t SMALL_FILE = 65536;
constexpr size_t STATIC_SWITCH = 21; // bytes that decide
constexpr size_t STATIC_PLACE = 22;
constexpr size_t RING_HEADER = 8;

std::string from_environment(const char *name, const char *otherwise) {
    const char *value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

// "ddmm.mmm,N,dddmm.mmm,E".
bool is_place(std::string_view text) {
    constexpr std::string_view shape = "9999.999,L,99999.999,L";
    static_assert(shape.size() == STATIC_PLACE);
    if (text.size() != shape.size())
        return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        const bool fits = shape[i] == '9' ? std::isdigit(static_cast<unsigned char>(text[i])) != 0
                          : shape[i] == 'L'
                              ? std::string_view("NSEW").find(text[i]) != std::string_view::npos
                              : text[i] == shape[i];
        if (!fits)
            return false;
    }
    return true;
}

double ta_wait_in(const std::string &text) {
    std::istringstream words(text);
    double seconds = 15;
    for (std::string word; words >> word;) {
        int value = 0;
        if (word == "RFFE_REQUEST_SEMAPHORE_WAIT_TIME" && words >> value)
            seconds = value;
        words.clear();
    }
    return seconds;
}

// The library reads a file that is there and a database, and would make or replace any other.
void read_settings(const places &where, file_facts &files) {
    if (!where.settings.empty()) {
        struct stat status {};
        if (stat(where.settings.c_str(), &status) != 0) {
            files.settings = errno == ENOENT ? settings_state::absent : settings_state::unreadable;
            return;
        }
        const auto head = read_file(where.settings, 16);
        if (!head || access(where.settings.c_str(), R_OK) != 0) {
            files.settings = settings_state::unreadable;
            return;
        }
        if (!head->empty() && !head->starts_with("SQLite format 3")) {
            files.settings = settings_state::no_database;
            return;
        }
    }
    location_history_settings history{};
    const bool read = db_read_location_history_settings(&history) == 0 &&
                      db_read_ta_power_on_status(&files.stored_antenna) == 0 &&
                      db_read_gps_power_on_status(&files.stored_power) == 0;
    files.settings = read ? settings_state::read : settings_state::unreadable;
    files.history_on = read && history.status == 1;
    files.history_interval_s = history.interval;
}

} // namespace

std::string hal_value(const std::string &text, const std::string &group, const std::string &key) {
    constexpr const char *BLANKS = " \t\r";
    const auto trimmed = [](const std::string &from) {
        const size_t first = from.find_first_not_of(BLANKS);
        return first == std::string::npos
                   ? std::string()
                   : from.substr(first, from.find_last_not_of(BLANKS) + 1 - first);
    };
    std::istringstream lines(text);
    bool in_group = false;
    std::string value;
    for (std::string line; std::getline(lines, line);) {
        line = trimmed(line);
        const size_t equals = line.find('=');
        if (line.starts_with('[')) {
            in_group = line.starts_with("[" + group + "]");
        } else if (in_group && equals != std::string::npos &&
                   trimmed(line.substr(0, equals)) == key) {
            value = line.substr(equals + 1);
            for (size_t i = 0; i < value.size(); ++i)
                if ((value[i] == ';' || value[i] == '#') &&
                    (i == 0 || value[i - 1] == ' ' || value[i - 1] == '\t'))
                    value.resize(i);
            value = trimmed(value);
        }
    }
    return value;
}

std::optional<std::string> read_file(const std::string &path, size_t limit, bool from_end) {
    const ls_descriptor file(ls_open_regular(path.c_str(), O_RDONLY));
    struct stat status {};
    if (file.fd < 0 || fstat(file.fd, &status) != 0)
        return std::nullopt;
    const auto size = static_cast<size_t>(status.st_size);
    if (from_end && size > limit && lseek(file.fd, static_cast<off_t>(size - limit), SEEK_SET) < 0)
        return std::nullopt;
    std::string text(std::min(size, limit), '\0');
    size_t got = 0;
    for (ssize_t count = 1; got < text.size() && count > 0;) {
        count = read(file.fd, text.data() + got, text.size() - got);
        if (count < 0)
            return std::nullopt;
        got += static_cast<size_t>(count);
    }
    text.resize(got);
    return text;
}

places find_places() {
    places where;
    where.bus = from_environment("MQUTILS_DIR", "/run/terminal-bus");
    while (where.bus.size() > 1 && where.bus.back() == '/')
        where.bus.pop_back();
    where.hal = from_environment("ZUKHAL_CONF", "/etc/terminal.conf");
    where.settings = lsctl_settings_file();
    const std::filesystem::path user = std::filesystem::path(where.settings).parent_path();
    if (user.filename() == "user" && user != "/user")
        where.root = user.parent_path().string();
    return where;
}

file_facts look_at_files(const places &where) {
    file_facts files;
    read_settings(where, files);
    const std::string board =
        hal_value(read_file(where.hal, SMALL_FILE).value_or(""), "board", "type");
    if (board == "1" || board == "2")
        files.board = board[0] - '0';
    struct stat status {};
    if (stat((where.root + "/dev").c_str(), &status) == 0)
        files.line_device = stat((where.root + "/dev/ttymxc2").c_str(), &status) == 0;
    if (const auto text = read_file(where.in_user("stub_location/stub_loc.gps"), 4096)) {
        files.static_on = text->substr(0, STATIC_SWITCH).find("= ON") != std::string::npos;
        files.static_place = files.static_on && text->size() >= STATIC_SWITCH &&
                             is_place(std::string_view(*text).substr(STATIC_SWITCH, STATIC_PLACE));
    }
    files.ta_wait_s =
        ta_wait_in(read_file(where.in_user("gps_control_prm.txt"), SMALL_FILE).value_or(""));
    if (stat(where.in_user("location/location_history").c_str(), &status) == 0) {
        files.ring_there = true;
        files.ring_header = status.st_size >= static_cast<off_t>(RING_HEADER);
        if (status.st_size > static_cast<off_t>(RING_HEADER))
            files.ring_written_utc = status.st_mtim.tv_sec;
    }
    return files;
}

} // namespace diagnosis
