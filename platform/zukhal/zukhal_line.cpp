// Text of one log line: escaping, cutting, prefixes. See zukhal_internal.h. Pure but for the
// memory of the time zone; any context.
#include "zukhal_internal.h"

#include <algorithm>
#include <atomic>
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

char *put_two(char *out, unsigned value) {
    *out++ = static_cast<char>('0' + value / 10);
    *out++ = static_cast<char>('0' + value % 10);
    return out;
}

// A moment as calendar and clock show it. Not gmtime_r's: that takes the C library's time zone
// lock.
struct moment {
    explicit moment(std::chrono::sys_seconds second)
        : date(std::chrono::floor<std::chrono::days>(second)),
          clock(second - std::chrono::floor<std::chrono::days>(second)) {}

    unsigned month() const { return static_cast<unsigned>(date.month()); }
    unsigned day() const { return static_cast<unsigned>(date.day()); }
    // "12:00:00"
    char *put_clock(char *out) const {
        out = put_two(out, static_cast<unsigned>(clock.hours().count()));
        *out++ = ':';
        out = put_two(out, static_cast<unsigned>(clock.minutes().count()));
        *out++ = ':';
        return put_two(out, static_cast<unsigned>(clock.seconds().count()));
    }

    std::chrono::year_month_day date;
    std::chrono::hh_mm_ss<std::chrono::seconds> clock;
};

// What local time is ahead of UTC, in seconds. The C library, which takes its time zone lock, is
// asked once a minute: a zone changes between two of them.
int32_t local_offset(time_t second) {
    using namespace std::chrono;
    static std::atomic<uint64_t> known{UINT64_MAX}; // the minute, and in its lower half the offset
    const uint64_t minute = static_cast<uint64_t>(second / 60) << 32;
    uint64_t latest = known.load(std::memory_order_relaxed);
    if ((latest ^ minute) >> 32 != 0) {
        tm local{};
        localtime_r(&second, &local);
        const sys_days day = year(local.tm_year + 1900) / (local.tm_mon + 1) / local.tm_mday;
        const auto shown =
            day + hours(local.tm_hour) + minutes(local.tm_min) + seconds(local.tm_sec);
        const auto ahead = duration_cast<seconds>(shown.time_since_epoch()).count() - second;
        latest = minute | static_cast<uint32_t>(ahead);
        known.store(latest, std::memory_order_relaxed);
    }
    return static_cast<int32_t>(latest);
}

void add_file_prefix(log_line &line, const timespec &now, int level) {
    const moment utc(std::chrono::sys_seconds(std::chrono::seconds(now.tv_sec)));
    add_number(line, static_cast<int>(utc.date.year())); // of a clock that starts in 1970
    std::array<char, sizeof "-03-01T12:00:00.123Z "> text{};
    char *out = text.data();
    *out++ = '-';
    out = put_two(out, utc.month());
    *out++ = '-';
    out = put_two(out, utc.day());
    *out++ = 'T';
    out = utc.put_clock(out);
    *out++ = '.';
    const auto milliseconds = static_cast<unsigned>(now.tv_nsec / 1'000'000);
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
    const moment local(
        std::chrono::sys_seconds(std::chrono::seconds(now.tv_sec + local_offset(now.tv_sec))));
    add_whole(line, "<");
    add_number(line, LOG_DAEMON | level);
    std::array<char, sizeof ">Mar  1 12:00:00 "> text{};
    char *out = text.data();
    *out++ = '>';
    out += months.copy(out, 3, size_t{3} * (local.month() - 1));
    *out++ = ' ';
    out = put_two(out, local.day());
    if (local.day() < 10)
        out[-2] = ' ';
    *out++ = ' ';
    out = local.put_clock(out);
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
