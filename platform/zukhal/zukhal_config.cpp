// The configuration file of the HAL, and the board type in it. Read once per process, on the first
// use of anything in this library; a change needs a restart. A value that makes no sense is
// reported once in the log and counts as its default. The board type has none: a wrong one would
// drive lines that another board uses for other things. terminal.conf beside this file shows all of
// it.
#include "zukhal.h"
#include "zukhal_internal.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <vector>

#include <glib.h>
#include <pthread.h>
#include <sys/un.h>

namespace {

// Written under g_once, constant afterwards.
zukhal_config g_config;
pthread_once_t g_once = PTHREAD_ONCE_INIT;

struct choice {
    std::string_view name;
    int value;
};

constexpr std::array<choice, 2> board_types{{{"1", 1}, {"2", 2}}};
constexpr std::array<choice, 3> log_targets{{
    {"syslog", static_cast<int>(log_target::syslog)},
    {"stderr", static_cast<int>(log_target::standard_error)},
    {"file", static_cast<int>(log_target::file)},
}};
constexpr std::array<choice, 12> log_levels{{{"error", 3},
                                             {"warning", 4},
                                             {"info", 6},
                                             {"debug", 7},
                                             {"0", 0},
                                             {"1", 1},
                                             {"2", 2},
                                             {"3", 3},
                                             {"4", 4},
                                             {"5", 5},
                                             {"6", 6},
                                             {"7", 7}}};

struct free_key_file {
    void operator()(GKeyFile *file) const { g_key_file_free(file); }
};
struct free_text {
    void operator()(char *text) const { g_free(text); }
};
struct free_error {
    void operator()(GError *error) const { g_error_free(error); }
};

struct reader {
    const char *path;
    std::unique_ptr<GKeyFile, free_key_file> file;
    std::vector<std::string> complaints;
};

// Raw value without the comment that may follow it; empty when the key is not there. GLib itself
// knows comments only as lines of their own.
std::string value_of(const reader &from, const char *group, const char *key) {
    const std::unique_ptr<char, free_text> raw(
        g_key_file_get_value(from.file.get(), group, key, nullptr));
    std::string value = raw != nullptr ? raw.get() : "";
    for (size_t i = 0; i < value.size(); i++) {
        const bool after_space = i == 0 || value[i - 1] == ' ' || value[i - 1] == '\t';
        if ((value[i] == ';' || value[i] == '#') && after_space)
            value.resize(i);
    }
    value.resize(value.find_last_not_of(" \t\r") + 1);
    return value;
}

void complain(reader &from, const char *group, const char *key, const std::string &why) {
    from.complaints.push_back(std::string(from.path) + ": [" + group + "] " + key + ": " + why);
}

int choose(reader &from, const char *group, const char *key, std::span<const choice> choices,
           int fallback) {
    const std::string value = value_of(from, group, key);
    if (value.empty())
        return fallback;
    std::string names;
    for (const choice &known : choices) {
        if (value == known.name)
            return known.value;
        names += (names.empty() ? "" : ", ") + std::string(known.name);
    }
    complain(from, group, key, "'" + value + "' is none of " + names);
    return fallback;
}

// An absolute path, the caller's; null when the key is not there. What goes into the configuration
// is kept for good.
char *path_of(const reader &from, const char *group, const char *key) {
    const std::string value = value_of(from, group, key);
    return value.empty() ? nullptr : g_canonicalize_filename(value.c_str(), nullptr);
}

void load_values(reader &from) {
    g_config.board_type = choose(from, "board", "type", board_types, 0);
    if (value_of(from, "board", "type").empty())
        complain(from, "board", "type", "is missing");
    g_config.level = choose(from, "log", "level", log_levels, g_config.level);
    g_config.target = static_cast<log_target>(
        choose(from, "log", "target", log_targets, static_cast<int>(g_config.target)));
    g_config.log_file = path_of(from, "log", "file");
    if (g_config.target == log_target::file && g_config.log_file == nullptr) {
        complain(from, "log", "file", "is missing, using syslog");
        g_config.target = log_target::syslog;
    }
    if (std::unique_ptr<char, free_text> path(path_of(from, "log", "socket")); path != nullptr) {
        if (strlen(path.get()) < sizeof sockaddr_un{}.sun_path)
            g_config.log_socket = path.release();
        else
            complain(from, "log", "socket", "is too long for a socket");
    }
    const std::unique_ptr<char, free_text> power(path_of(from, "power", "directory"));
    if (power != nullptr) {
        g_config.wake_lock = g_build_filename(power.get(), "wake_lock", nullptr);
        g_config.wake_unlock = g_build_filename(power.get(), "wake_unlock", nullptr);
    }
}

void read_file(reader &from) {
    GError *raw = nullptr;
    from.file.reset(g_key_file_new());
    if (g_key_file_load_from_file(from.file.get(), from.path, G_KEY_FILE_NONE, &raw)) {
        load_values(from);
        return;
    }
    const std::unique_ptr<GError, free_error> error(raw);
    from.complaints.push_back(std::string(from.path) + ": " + error->message +
                              "; the board type is unknown, the log has its defaults");
}

// Where there is no memory for it, a configuration counts as unreadable: whoever logs, or asks for
// the board type, is not to end by that. (GLib ends a program whose memory it cannot get.)
void load() {
    const char *named = secure_getenv("ZUKHAL_CONF");
    reader from{named != nullptr && *named != '\0' ? named : "/etc/terminal.conf", nullptr, {}};
    bool read = true;
    try {
        read_file(from);
    } catch (const std::bad_alloc &) {
        g_config = {};
        read = false;
    }
    std::array<char, LINE_SIZE> failure = {};
    if (!log_start(g_config))
        snprintf(failure.data(), failure.size(), "%s: [log] file: %s: %s, using syslog", from.path,
                 g_config.log_file, strerror(errno));
    for (const std::string &text : from.complaints)
        log_complaint(text);
    if (failure[0] != '\0')
        log_complaint(failure.data());
    if (!read)
        log_complaint(
            "no memory for the configuration; the board type is unknown, the log has its defaults");
}

} // namespace

const zukhal_config &zukhal_configuration() {
    pthread_once(&g_once, load);
    return g_config;
}

LS_EXPORT int get_zuk_type(void) {
    return zukhal_configuration().board_type;
}
