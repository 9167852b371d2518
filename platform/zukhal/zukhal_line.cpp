// Text of one log line: escaping, cutting, prefixes. See zukhal_internal.h. Pure, any context.
#include "zukhal_internal.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
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

// Like printf's %d; that takes many times as long.
void add_number(log_line &line, int value) {
    std::array<char, 12> digits;
    const char *end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    add_whole(line, {digits.data(), static_cast<size_t>(end - digits.data())});
}

char *put_two(char *out, int value) {
    *out++ = static_cast<char>('0' + value / 10);
    *out++ = static_cast<char>('0' + value % 10);
    return out;
}

// "12:00:00"
char *put_clock(char *out, int hours, int minutes, int seconds) {
    out = put_two(out, hours);
    *out++ = ':';
    out = put_two(out, minutes);
    *out++ = ':';
    return put_two(out, seconds);
}

void add_file_prefix(log_line &line, const timespec &now, int level) {
    using namespace std::chrono;
    // Not gmtime_r: it takes the C library's time zone lock.
    const sys_seconds second{seconds{now.tv_sec}};
    const auto day = floor<days>(second);
    const year_month_day date{day};
    const hh_mm_ss clock{second - day};
    add_number(line, static_cast<int>(date.year())); // of a clock that starts in 1970
    std::array<char, sizeof "-03-01T12:00:00.123Z "> text{"-mm-dd"};
    put_two(text.data() + 1, static_cast<int>(static_cast<unsigned>(date.month())));
    put_two(text.data() + 4, static_cast<int>(static_cast<unsigned>(date.day())));
    text[6] = 'T';
    char *out = put_clock(text.data() + 7, static_cast<int>(clock.hours().count()),
                          static_cast<int>(clock.minutes().count()),
                          static_cast<int>(clock.seconds().count()));
    const int milliseconds = static_cast<int>(now.tv_nsec / 1'000'000);
    *out++ = '.';
    *out++ = static_cast<char>('0' + milliseconds / 100);
    out = put_two(out, milliseconds % 100);
    *out++ = 'Z';
    *out++ = ' ';
    add_whole(line, {text.data(), static_cast<size_t>(out - text.data())});
    add_whole(line, level_names[static_cast<size_t>(level)]);
    add_whole(line, " ");
}

void add_syslog_prefix(log_line &line, const timespec &now, int level) {
    constexpr std::string_view months = "JanFebMarAprMayJunJulAugSepOctNovDec";
    tm local{};
    localtime_r(&now.tv_sec, &local);
    add_whole(line, "<");
    add_number(line, LOG_DAEMON | level);
    std::array<char, sizeof ">Mar  1 12:00:00 "> text{'>'};
    char *out = text.data() + 1;
    out += months.copy(out, 3, 3 * static_cast<size_t>(local.tm_mon));
    *out++ = ' ';
    put_two(out, local.tm_mday);
    if (*out == '0')
        *out = ' ';
    out += 2;
    *out++ = ' ';
    out = put_clock(out, local.tm_hour, local.tm_min, local.tm_sec);
    *out++ = ' ';
    add_whole(line, {text.data(), static_cast<size_t>(out - text.data())});
    line_append(line, std::string_view(program_invocation_short_name).substr(0, 64));
    add_whole(line, "[");
    add_number(line, getpid());
    add_whole(line, "]: ");
}

// Bytes of printable ASCII at the front of `text`, which is nearly always all of it: eight at once.
size_t plain_length(std::string_view text) {
    constexpr uint64_t ones = 0x0101'0101'0101'0101;
    constexpr uint64_t tops = 0x80 * ones;
    size_t length = 0;
    for (uint64_t eight = 0; length + sizeof eight <= text.size(); length += sizeof eight) {
        memcpy(&eight, text.data() + length, sizeof eight);
        const uint64_t below_blank = (eight - 0x20 * ones) & ~eight;
        const uint64_t above_tilde = (eight + ones) | eight;
        if (((below_blank | above_tilde) & tops) != 0)
            break;
    }
    while (length < text.size() && text[length] >= 0x20 && text[length] < 0x7f)
        length++;
    return length;
}

} // namespace

void line_append(log_line &line, std::string_view text) {
    while (!text.empty() && !line.cut) {
        size_t length = plain_length(text);
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
