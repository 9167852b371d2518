// lsctl: the bundle for support.
//
// The files are put into a directory of our own beside the bundle, packed from there into a file
// without a name that others could guess, and this gets its name when it is complete.
#include "bundle.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ls_clock.h"
#include "ls_descriptor.h"

namespace diagnosis {
namespace {

namespace fs = std::filesystem;

constexpr size_t LOG_LIMIT = 4U << 20;   // bytes of its end
constexpr size_t FILE_LIMIT = 16U << 20; // of any other file
constexpr int CHILD_PATIENCE_MS = 60'000;
constexpr const char *INSIDE = "location-service-bundle";

std::string reason(const std::string &what) {
    return what + ": " + std::strerror(errno);
}

// Removes the directory with all that is in it.
struct staging {
    fs::path path;
    ~staging() {
        std::error_code ignored;
        if (!path.empty())
            fs::remove_all(path, ignored);
    }
};

bool write_whole(const fs::path &path, const std::string &text) {
    const ls_descriptor file(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    for (size_t done = 0; file.fd >= 0 && done < text.size();) {
        const ssize_t count = write(file.fd, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
            return false;
        done += static_cast<size_t>(std::max<ssize_t>(count, 0));
    }
    return file.fd >= 0;
}

// Runs a program with its output in `out`, within a minute; its exit status, or -1.
int run_into(int out, std::vector<const char *> arguments) {
    arguments.push_back(nullptr);
    const ls_descriptor null(open("/dev/null", O_RDWR | O_CLOEXEC));
    const pid_t child = fork();
    if (child == 0) {
        // Nothing here takes a lock.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        if (dup2(null.fd, STDIN_FILENO) >= 0 && dup2(out, STDOUT_FILENO) >= 0 &&
            dup2(null.fd, STDERR_FILENO) >= 0)
            execvp(arguments[0], const_cast<char *const *>(arguments.data()));
        _exit(127);
    }
    if (child < 0)
        return -1;
    const int64_t deadline = ls_monotonic_ms() + CHILD_PATIENCE_MS;
    int status = 0;
    pid_t ended = 0;
    while ((ended = waitpid(child, &status, WNOHANG)) == 0) {
        if (ls_monotonic_ms() > deadline || lsctl_signals_last() != 0)
            kill(child, SIGKILL);
        ls_sleep_us(10'000);
    }
    return ended == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The system's log of the service, oldest line first; level debug is left out where it is asked.
std::string journal(const fs::path &scratch, bool with_debug) {
    const ls_descriptor out(open(scratch.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (out.fd < 0 ||
        run_into(out.fd, {"journalctl", "--unit=location_service", "--lines=20000", "--no-pager",
                          "--output=short-iso", with_debug ? "--priority=7" : "--priority=6"}) != 0)
        return "the system's log cannot be read: journalctl failed, or is not there\n";
    std::string text = read_file(scratch, LOG_LIMIT, true).value_or("");
    fs::remove(scratch);
    return text;
}

std::string log_text(const facts &found, const fs::path &scratch, bool with_positions) {
    const std::string hal = read_file(found.where.hal, FILE_LIMIT).value_or("");
    const std::string file = hal_value(hal, "log", "file");
    const bool in_file = hal_value(hal, "log", "target") == "file" && !file.empty();
    const std::string text =
        in_file ? read_file(file, LOG_LIMIT, true).value_or("the log " + file + " cannot be read\n")
                : journal(scratch, with_positions);
    return with_positions ? text : without_positions(text);
}

std::string settings_text(const file_facts &files) {
    std::ostringstream text;
    text << "static_location_on " << files.static_on << "\n";
    if (files.settings != settings_state::read)
        return text.str() + "settings not read\n";
    text << "gps_power_on_status " << files.stored_power << "\nantenna_type "
         << files.stored_antenna << "\nhistory_on " << files.history_on << "\nhistory_interval_s "
         << files.history_interval_s << "\n";
    return text.str();
}

// Everything that goes in, in `directory`. Empty, or what went wrong.
std::string fill(const fs::path &directory, const facts &found, const std::string &report,
                 const std::string &report_json, bool with_positions) {
    struct content {
        std::string name;
        std::optional<std::string> text; // none: there is none
    };
    const places &where = found.where;
    std::vector<content> contents = {
        {"report.txt", report},
        {"report.json", report_json},
        {"settings.txt", settings_text(found.files)},
        {"terminal.conf", read_file(where.hal, FILE_LIMIT)},
        {"gps_control_prm.txt", read_file(where.in_user("gps_control_prm.txt"), FILE_LIMIT)},
        {"policy", read_file(where.bus + "/policy", FILE_LIMIT)},
        {"service.log", log_text(found, directory / "journal", with_positions)},
    };
    if (with_positions) {
        for (const char *name : {"location/location_history", "stub_location/stub_loc.gps"})
            contents.push_back(
                {fs::path(name).filename(), read_file(where.in_user(name), FILE_LIMIT)});
    }
    for (const content &each : contents)
        if (each.text && !write_whole(directory / each.name, *each.text))
            return reason(each.name);
    return "";
}

// A number with three digits behind its point, as every coordinate has.
bool has_long_fraction(std::string_view text) {
    size_t digits = 0;
    bool behind_point = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool is_digit = std::isdigit(static_cast<unsigned char>(text[i])) != 0;
        if (is_digit && behind_point && ++digits == 3)
            return true;
        if (!is_digit) {
            behind_point = text[i] == '.' && i > 0 &&
                           std::isdigit(static_cast<unsigned char>(text[i - 1])) != 0;
            digits = 0;
        }
    }
    return false;
}

} // namespace

std::string without_positions(const std::string &log) {
    // Sentences, bytes, the level at which all of these are, and what the LPP parameters say.
    constexpr std::array MARKS = {"$", "0x", " debug ", "itude", "cart_"};
    std::istringstream lines(log);
    std::string kept;
    size_t left_out = 0;
    for (std::string line; std::getline(lines, line);) {
        // Behind the line's own time, which may have three digits of a second.
        const std::string_view text =
            std::string_view(line).substr(line.find(' ') == std::string::npos ? 0 : line.find(' '));
        bool tells = has_long_fraction(text);
        for (const char *mark : MARKS)
            tells = tells || text.find(mark) != std::string_view::npos;
        if (tells)
            ++left_out;
        else
            kept += line + "\n";
    }
    return kept + std::to_string(left_out) + " lines left out: they could tell positions\n";
}

std::string bundle_refused(const std::string &path) {
    std::error_code ignored;
    if (fs::exists(fs::symlink_status(path, ignored)))
        return path + " exists, and is not overwritten";
    const fs::path directory = fs::absolute(path, ignored).parent_path();
    return access(directory.c_str(), W_OK) == 0 ? "" : reason(directory.string());
}

std::string bundle_write(const std::string &path, const facts &found, const std::string &report,
                         const std::string &report_json, bool with_positions) {
    const fs::path directory = fs::absolute(path).parent_path();
    std::string pattern = directory / ".lsctl-bundle-XXXXXX";
    staging stage;
    if (mkdtemp(pattern.data()) == nullptr)
        return reason(directory);
    stage.path = pattern;
    const fs::path inside = stage.path / INSIDE;
    if (mkdir(inside.c_str(), 0700) != 0)
        return reason(inside);
    if (std::string error = fill(inside, found, report, report_json, with_positions);
        !error.empty())
        return error;
    const fs::path packed = stage.path / "packed";
    const ls_descriptor out(open(packed.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (out.fd < 0)
        return reason(packed);
    if (run_into(out.fd, {"tar", "-C", stage.path.c_str(), "-c", "-z", "-f", "-", INSIDE}) != 0)
        return "tar failed, or is not there, or the disk is full";
    // link() takes no name that somebody else has taken meanwhile.
    if (fsync(out.fd) != 0 || link(packed.c_str(), path.c_str()) != 0)
        return reason(path);
    return "";
}

} // namespace diagnosis
