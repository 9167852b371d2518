// Text of one log line: escaping, cutting, prefixes. See zukhal_internal.h. Pure, any context.
#include "zukhal_internal.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>

#include <syslog.h>
#include <unistd.h>

namespace {

constexpr std::array<const char *, 8> level_names{"emergency", "alert",  "critical", "error",
                                                  "warning",   "notice", "info",     "debug"};

// Which second bytes may follow which first bytes; all further ones are 0x80 to 0xbf. C2 80 to
// C2 9F are valid UTF-8, but control characters: terminals act on them.
struct utf8_range {
    unsigned char first_low, first_high, second_low, second_high;
    size_t length;
};
constexpr std::array<utf8_range, 9> utf8_ranges{{
    {0xc2, 0xc2, 0xa0, 0xbf, 2},
    {0xc3, 0xdf, 0x80, 0xbf, 2},
    {0xe0, 0xe0, 0xa0, 0xbf, 3},
    {0xe1, 0xec, 0x80, 0xbf, 3},
    {0xed, 0xed, 0x80, 0x9f, 3},
    {0xee, 0xef, 0x80, 0xbf, 3},
    {0xf0, 0xf0, 0x90, 0xbf, 4},
    {0xf1, 0xf3, 0x80, 0xbf, 4},
    {0xf4, 0xf4, 0x80, 0x8f, 4},
}};

// Bytes of the printable character beyond ASCII at the front of `text`; 0: escape its first byte.
size_t printable_length(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    for (const utf8_range &range : utf8_ranges) {
        if (byte(0) < range.first_low || byte(0) > range.first_high)
            continue;
        if (text.size() < range.length || byte(1) < range.second_low || byte(1) > range.second_high)
            return 0;
        for (size_t i = 2; i < range.length; i++)
            if ((byte(i) & 0xc0) != 0x80)
                return 0;
        return range.length;
    }
    return 0;
}

// Room is always left for the mark and the newline.
void add_whole(log_line &line, std::string_view unit) {
    if (line.cut)
        return;
    if (line.length + unit.size() + cut_mark.size() + 1 > line.bytes.size()) {
        line.cut = true;
        unit = cut_mark;
    }
    memcpy(line.bytes.data() + line.length, unit.data(), unit.size());
    line.length += unit.size();
}

// Printable ASCII, which may be cut anywhere.
void add_plain(log_line &line, std::string_view text) {
    const size_t room =
        line.bytes.size() - std::min(line.bytes.size(), line.length + cut_mark.size() + 1);
    add_whole(line, text.substr(0, room));
    if (text.size() > room)
        add_whole(line, text.substr(room));
}

// Like printf's %0*d, or %*d with a blank for `fill`; that takes many times as long.
void add_number(log_line &line, int value, size_t width = 0, char fill = '0') {
    std::array<char, 12> digits;
    const char *end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    const std::string_view text(digits.data(), static_cast<size_t>(end - digits.data()));
    for (size_t missing = width - std::min(width, text.size()); missing > 0; missing--)
        add_whole(line, {&fill, 1});
    add_whole(line, text);
}

void add_clock(log_line &line, int hours, int minutes, int seconds) {
    add_number(line, hours, 2);
    add_whole(line, ":");
    add_number(line, minutes, 2);
    add_whole(line, ":");
    add_number(line, seconds, 2);
}

void add_file_prefix(log_line &line, const timespec &now, int level) {
    using namespace std::chrono;
    // Not gmtime_r: it takes the C library's time zone lock.
    const sys_seconds second{seconds{now.tv_sec}};
    const auto day = floor<days>(second);
    const year_month_day date{day};
    const hh_mm_ss clock{second - day};
    add_number(line, static_cast<int>(date.year()), 4);
    add_whole(line, "-");
    add_number(line, static_cast<int>(static_cast<unsigned>(date.month())), 2);
    add_whole(line, "-");
    add_number(line, static_cast<int>(static_cast<unsigned>(date.day())), 2);
    add_whole(line, "T");
    add_clock(line, static_cast<int>(clock.hours().count()),
              static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()));
    add_whole(line, ".");
    add_number(line, static_cast<int>(now.tv_nsec / 1'000'000), 3);
    add_whole(line, "Z ");
    add_whole(line, level_names[static_cast<size_t>(level)]);
    add_whole(line, " ");
}

void add_syslog_prefix(log_line &line, const timespec &now, int level) {
    constexpr std::array<const char *, 12> months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tm local{};
    localtime_r(&now.tv_sec, &local);
    add_whole(line, "<");
    add_number(line, LOG_DAEMON | level);
    add_whole(line, ">");
    add_whole(line, months[static_cast<size_t>(local.tm_mon)]);
    add_whole(line, " ");
    add_number(line, local.tm_mday, 2, ' ');
    add_whole(line, " ");
    add_clock(line, local.tm_hour, local.tm_min, local.tm_sec);
    add_whole(line, " ");
    line_append(line, std::string_view(program_invocation_short_name).substr(0, 64));
    add_whole(line, "[");
    add_number(line, getpid());
    add_whole(line, "]: ");
}

} // namespace

void line_append(log_line &line, std::string_view text) {
    while (!text.empty() && !line.cut) {
        size_t length = 0;
        while (length < text.size() && text[length] >= 0x20 && text[length] < 0x7f)
            length++;
        add_plain(line, text.substr(0, length));
        text.remove_prefix(length);
        if (text.empty())
            return;
        length = printable_length(text);
        if (length > 0) {
            add_whole(line, text.substr(0, length));
        } else if (text[0] == '\n') {
            length = 1;
            add_whole(line, "\\n");
        } else {
            length = 1;
            constexpr std::string_view digits = "0123456789abcdef";
            const auto byte = static_cast<unsigned char>(text[0]);
            const std::array<char, 4> escaped{'\\', 'x', digits[byte >> 4], digits[byte & 15]};
            add_whole(line, {escaped.data(), escaped.size()});
        }
        text.remove_prefix(length);
    }
}

void line_compose(log_line &line, line_form form, const timespec &now, const log_place &place,
                  std::string_view text) {
    line.length = 0;
    line.cut = false;
    if (form == line_form::file)
        add_file_prefix(line, now, place.level);
    else
        add_syslog_prefix(line, now, place.level);
    line_append(line, std::string_view(place.module != nullptr ? place.module : "?").substr(0, 64));
    add_whole(line, ":");
    add_number(line, place.line);
    add_whole(line, ": ");
    line_append(line, text);
    if (form == line_form::file)
        line.bytes[line.length++] = '\n';
}
