// What the parts of the HAL library share: configuration and log line.
#ifndef ZUKHAL_INTERNAL_H
#define ZUKHAL_INTERNAL_H

#include "ls_export.h"

#include <array>
#include <cstddef>
#include <ctime>
#include <string_view>

// ---- configuration (zukhal_config.cpp) ----

enum class log_target { syslog, standard_error, file };

// Texts are allocated once and never freed: other threads may log while the process exits.
struct zukhal_config {
    int board_type = 0; // unknown
    log_target target = log_target::syslog;
    int level = 6;                       // as in syslog(3)
    const char *log_file = nullptr;      // for log_target::file; absolute
    const char *log_socket = "/dev/log"; // for log_target::syslog
    const char *wake_lock = "/sys/power/wake_lock";
    const char *wake_unlock = "/sys/power/wake_unlock";
};

// Reads the file on the first call of the process and starts the log; any thread.
const zukhal_config &zukhal_configuration();

// ---- one log line (zukhal_line.cpp): no heap, no locks but those of localtime_r ----

// A line stays below PIPE_BUF, so that pipes, too, take it whole.
constexpr size_t LINE_SIZE = 2048;

struct log_line {
    std::array<char, LINE_SIZE> bytes;
    size_t length = 0;
    bool cut = false; // something did not fit; the line ends in cut_mark
};

constexpr std::string_view cut_mark = " [cut]";

enum class line_form {
    file,  // "2026-03-01T12:00:00.123Z error module:42: text\n", time in UTC
    syslog // "<27>Mar  1 12:00:00 program[123]: module:42: text", local time
};

struct log_place {
    int level; // 0 to 7
    const char *module;
    int line;
};

// Adds text; control characters and bytes that are not UTF-8 as "\n" or "\xNN".
void line_append(log_line &line, std::string_view text);
void line_compose(log_line &line, line_form form, const timespec &now, const log_place &place,
                  std::string_view text);

// ---- log (zukhal_log.cpp) ----

// Opens the target and sets the level. False: the file cannot be opened, syslog serves.
bool log_start(const zukhal_config &config);

// Writes one error line whatever the level is; for faults of the configuration itself.
void log_complaint(std::string_view text);

#define ZUK_LOG(level, format, ...) zuk_log_tmplt(level, format, "zukhal", __LINE__, ##__VA_ARGS__)

#endif
