#include "tree.h"

#include "ls_descriptor.h"

#include "bus_policy.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <glib.h>
#include <memory>
#include <string_view>
#include <sys/file.h>
#include <unistd.h>
#include <utility>

namespace sim {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view MARKER_TEXT = "simulated terminal 1\n";

// The switch is the first 21 bytes, the place the 22 after them: both texts below are right in
// length with OFF, and stay so when OFF becomes ON.
constexpr std::string_view STUB_TEXT = "STATIC_LOCATION = OFF\n7007.939,N,01131.000,E\n";

// The history's ring without a line: both offsets point behind its header. A daemon whose history
// is on at its very first start makes none.
constexpr std::string_view EMPTY_RING("\x08\0\0\0\x08\0\0\0", 8);

std::string reason(const std::string &step) {
    return step + ": " + std::strerror(errno);
}

// Only a file that is not there yet is written: an existing terminal keeps what it has.
bool write_if_missing(const std::string &path, std::string_view text) {
    const ls_descriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
    if (file.fd < 0)
        return errno == EEXIST;
    return write(file.fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// An empty directory or an existing terminal may be used; anything else is somebody's files.
bool may_become_terminal(const terminal_paths &paths, std::string &error) {
    std::error_code wrong;
    fs::create_directories(paths.root, wrong);
    if (wrong || !fs::is_directory(paths.root, wrong)) {
        error = "making directory " + paths.root + ": " +
                (wrong ? wrong.message() : std::string("something else has this name"));
        return false;
    }
    if (fs::exists(paths.marker, wrong))
        return true;
    if (!fs::is_empty(paths.root, wrong) || wrong) {
        error = paths.root + " is neither empty nor a simulated terminal; not touched";
        return false;
    }
    return true;
}

int lock_marker(const terminal_paths &paths, std::string &error) {
    ls_descriptor marker(open(paths.marker.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    const int fd = marker.fd;
    if (fd < 0) {
        error = reason("opening " + paths.marker);
        return -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        error = errno == EWOULDBLOCK ? paths.root + ": another simterm runs this terminal"
                                     : reason("locking " + paths.marker);
        return -1;
    }
    std::array<char, 64> text{};
    const ssize_t count = pread(fd, text.data(), text.size(), 0);
    const bool empty = count == 0;
    if (count < 0 ||
        (!empty && std::string_view(text.data(), static_cast<size_t>(count)) != MARKER_TEXT)) {
        error = paths.marker + " is not the mark of a terminal of this version; not touched";
        return -1;
    }
    if (empty && pwrite(fd, MARKER_TEXT.data(), MARKER_TEXT.size(), 0) !=
                     static_cast<ssize_t>(MARKER_TEXT.size())) {
        error = reason("writing " + paths.marker);
        return -1;
    }
    return marker.release();
}

} // namespace

std::string tree_root(const std::string &directory) {
    std::error_code wrong;
    std::string root = fs::absolute(directory, wrong).lexically_normal().string();
    while (root.size() > 1 && root.ends_with('/'))
        root.pop_back();
    return root;
}

terminal_paths tree_paths(const std::string &root) {
    return {
        .root = root,
        .marker = root + "/.simterm",
        .uart = root + "/dev/ttymxc2",
        .gpio = root + "/sys/class/gpio",
        .power = root + "/sys/power",
        .bus = root + "/bus",
        .settings = root + "/user/settings.db",
        .hal = root + "/etc/terminal.conf",
        .log = root + "/log/terminal.log",
        .daemon_out = root + "/log/daemon.out",
        .services = root + "/log/services.log",
        .control = root + "/control",
        .battery = root + "/receiver.bbr",
        .stub = root + "/user/stub_location/stub_loc.gps",
        .history = root + "/user/location/location_history",
    };
}

int tree_make(const std::string &directory, terminal_paths &paths, bool &fresh_settings,
              std::string &error) {
    std::error_code wrong;
    const std::string root = tree_root(directory);
    paths = tree_paths(root);
    if (!may_become_terminal(paths, error))
        return -1;
    ls_descriptor lock(lock_marker(paths, error));
    if (lock.fd < 0)
        return -1;
    for (const char *name : {"/dev", "/sys/class", "/sys/power", "/user/location",
                             "/user/stub_location", "/bus", "/etc", "/log"}) {
        fs::create_directories(root + name, wrong);
        if (wrong) {
            error = "making directory " + root + name + ": " + wrong.message();
            return -1;
        }
    }
    for (const auto &[path, text] :
         {std::pair<std::string, std::string_view>{paths.power + "/wake_lock", ""},
          {paths.power + "/wake_unlock", ""},
          {paths.bus + "/policy", BUS_POLICY},
          {paths.stub, STUB_TEXT},
          {paths.history, EMPTY_RING}}) {
        if (!write_if_missing(path, text)) {
            error = reason("writing " + path);
            return -1;
        }
    }
    fresh_settings = !fs::exists(paths.settings, wrong);
    return lock.release();
}

bool tree_configure(const terminal_paths &paths, const terminal_options &options, int &board,
                    std::string &error) {
    const std::unique_ptr<GKeyFile, decltype(&g_key_file_free)> file(g_key_file_new(),
                                                                     g_key_file_free);
    // Absent or unreadable: everything is set anew.
    g_key_file_load_from_file(file.get(), paths.hal.c_str(), G_KEY_FILE_KEEP_COMMENTS, nullptr);
    board = options.board.value_or(g_key_file_get_integer(file.get(), "board", "type", nullptr));
    if (board != 1 && board != 2)
        board = 1;
    g_key_file_set_integer(file.get(), "board", "type", board);
    if (options.log_level.has_value())
        g_key_file_set_string(file.get(), "log", "level", options.log_level->c_str());
    for (const auto &[key, value] : {std::pair{"target", "file"}, std::pair{"level", "info"}})
        if (g_key_file_has_key(file.get(), "log", key, nullptr) == FALSE)
            g_key_file_set_string(file.get(), "log", key, value);
    // The directory may have moved since the last time.
    g_key_file_set_string(file.get(), "log", "file", paths.log.c_str());
    g_key_file_set_string(file.get(), "power", "directory", paths.power.c_str());
    GError *wrong = nullptr;
    if (g_key_file_save_to_file(file.get(), paths.hal.c_str(), &wrong) == FALSE) {
        error = std::string("writing ") + paths.hal + ": " + wrong->message;
        g_error_free(wrong);
        return false;
    }
    return true;
}

} // namespace sim
