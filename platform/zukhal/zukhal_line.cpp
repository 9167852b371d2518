// Text of one log line: escaping, cutting, prefixes. See zukhal_internal.h. Pure, any context.
#include "zukhal_internal.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
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

// Bytes of the printable character at the front of `text`; 0: escape its first byte.
size_t printable_length(std::string_view text) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    if (byte(0) < 0x80)
        return byte(0) >= 0x20 && byte(0) != 0x7f ? 1 : 0;
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

template <size_t Size>
std::string_view printed(const std::array<char, Size> &text, int length) {
    return {text.data(), length < 0 ? 0 : std::min(static_cast<size_t>(length), Size - 1)};
}

void add_file_prefix(log_line &line, const timespec &now, int level) {
    using namespace std::chrono;
    // Not gmtime_r: it takes the C library's time zone lock.
    const sys_seconds second{seconds{now.tv_sec}};
    const auto day = floor<days>(second);
    const year_month_day date{day};
    const hh_mm_ss clock{second - day};
    std::array<char, 64> text;
    const int n = snprintf(
        text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02d.%03dZ %s ",
        static_cast<int>(date.year()), static_cast<unsigned>(date.month()),
        static_cast<unsigned>(date.day()), static_cast<int>(clock.hours().count()),
        static_cast<int>(clock.minutes().count()), static_cast<int>(clock.seconds().count()),
        static_cast<int>(now.tv_nsec / 1'000'000), level_names[static_cast<size_t>(level)]);
    add_whole(line, printed(text, n));
}

void add_syslog_prefix(log_line &line, const timespec &now, int level) {
    constexpr std::array<const char *, 12> months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tm local{};
    localtime_r(&now.tv_sec, &local);
    std::array<char, 128> text;
    const int n = snprintf(
        text.data(), text.size(), "<%d>%s %2d %02d:%02d:%02d %s[%d]: ", LOG_DAEMON | level,
        months[static_cast<size_t>(local.tm_mon)], local.tm_mday, local.tm_hour, local.tm_min,
        local.tm_sec, program_invocation_short_name, static_cast<int>(getpid()));
    add_whole(line, printed(text, n));
}

} // namespace

void line_append(log_line &line, std::string_view text) {
    while (!text.empty() && !line.cut) {
        size_t length = printable_length(text);
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
    std::array<char, 16> number;
    const int n = snprintf(number.data(), number.size(), ":%d: ", place.line);
    add_whole(line, printed(number, n));
    line_append(line, text);
    if (form == line_form::file)
        line.bytes[line.length++] = '\n';
}
