// What the receiver knows at an epoch: the truth, as far as it has found it.
#include "calendar.h"
#include "core.h"
#include "ubx.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {

constexpr int rollover_days = 1024 * 7;
constexpr double grid_tolerance = 1e-6; // in periods: rounding errors of the caller's clock
constexpr uint8_t class_nmea = 0xf0;
constexpr uint8_t class_pubx = 0xf1;
// A cold receiver learns the time from the first satellite, the date a little later.
constexpr double time_share = 0.5, date_share = 0.75; // of the time to first fix

// Seconds on the source's own clock.
double source_seconds(const receiver_core &core, double now) {
    return now - core.origin.value_or(now);
}

int64_t epoch_number(const receiver_core &core, double now) {
    const double periods =
        (source_seconds(core, now) - core.grid_phase) / epoch_period(core.config);
    return static_cast<int64_t>(std::floor(periods + grid_tolerance));
}

double epoch_time(const receiver_core &core, int64_t number) {
    return core.origin.value_or(0.0) + core.grid_phase +
           static_cast<double>(number) * epoch_period(core.config);
}

void lose_fix(epoch &now) {
    epoch kept;
    kept.time = now.time;
    kept.date = now.date;
    kept.satellites = std::move(now.satellites);
    for (satellite &one : kept.satellites)
        one.used = false;
    now = std::move(kept);
}

// How far the search has come, 0 to 1.
double search_share(const receiver_core &core, double at) {
    if (at >= core.fix_at)
        return 1.0;
    return std::clamp((at - core.gnss_start) / (core.fix_at - core.gnss_start), 0.0, 1.0);
}

// The sky fills up while the receiver searches, in the order of the source.
void search_sky(epoch &now, double share, bool cold) {
    const double found = std::floor(share * static_cast<double>(now.satellites.size() + 1));
    now.satellites.resize(std::min(now.satellites.size(), static_cast<size_t>(found)));
    if (!cold)
        return;
    for (satellite &one : now.satellites)
        one.elevation = one.azimuth = std::nullopt;
}

std::string periodic_text(const message_kind &kind, const nav_report &report,
                          const nmea_style &style) {
    return kind.key >> 8 == class_pubx ? pubx_answer(kind.key & 0xff, report, style)
                                       : nmea_answer(kind.nmea_type, report, style);
}

bool is_text(const message_kind &kind) {
    return kind.key >> 8 == class_nmea || kind.key >> 8 == class_pubx;
}

// 0 = does not go out by itself.
uint8_t periodic_rate(const receiver_core &core, size_t kind) {
    const unsigned protocol = is_text(message_kinds[kind]) ? protocol_nmea : protocol_ubx;
    return (output_protocols(core.config) & protocol) != 0 ? core.config.rates[kind][uart_port] : 0;
}

} // namespace

nav_report report_at(const receiver_core &core, double now_s) {
    const double at = epoch_time(core, epoch_number(core, now_s));
    nav_report report;
    epoch &now = report.now;
    now =
        core.options.truth ? core.options.truth(std::max(0.0, source_seconds(core, at))) : epoch{};
    if (now.time && now.date)
        report.leap_seconds = leap_seconds_at(unix_of(*now.date, *now.time));

    const bool searching = core.gnss_running && gps_enabled(core.config);
    const double share = searching ? search_share(core, at) : 0.0;
    const bool tracking = share >= 1.0 && !core.faults.no_fix;
    if (!tracking || now.fix == fix_quality::none)
        lose_fix(now);
    if (!searching)
        now.satellites.clear();
    if (share < 1.0)
        search_sky(now, share, core.cold);
    if (core.faults.no_fix)
        for (satellite &one : now.satellites)
            one.cn0 = std::nullopt;
    if (!core.clock_valid && share < date_share)
        now.date = std::nullopt;
    if (!core.clock_valid && share < time_share)
        now.time = std::nullopt;
    if (core.faults.week_rollover && now.date)
        now.date = days_before(*now.date, rollover_days);
    return report;
}

nmea_style current_style(const receiver_core &core) {
    constexpr size_t version_at = 1, satellites_at = 2;
    nmea_style style;
    style.talker = main_talker(core.config);
    style.gsv_talker = gsv_talker(core.config);
    style.version = core.config.nmea[version_at];
    if (core.config.nmea[satellites_at] != 0)
        style.max_satellites = core.config.nmea[satellites_at];
    style.blank = core.faults.empty_fields;
    return style;
}

void receiver_regrid(receiver_core &core) {
    if (!core.origin) {
        core.origin = core.now;
        const epoch first = core.options.truth ? core.options.truth(0.0) : epoch{};
        const double second = first.time ? first.time->second : 0.0;
        core.grid_phase = std::ceil(second) - second;
    }
    core.last_epoch = epoch_number(core, core.now);
}

void send_periodic(receiver_core &core) {
    const int64_t number = epoch_number(core, core.now);
    if (number <= core.last_epoch)
        return;
    // Epochs that nobody came to fetch are lost, as on a line that was never read.
    core.last_epoch = number;
    std::optional<nav_report> report;
    for (size_t kind = 0; kind < message_kinds.size(); ++kind) {
        const uint8_t rate = periodic_rate(core, kind);
        if (rate == 0 || number % rate != 0)
            continue;
        if (!report)
            report = report_at(core, core.now);
        if (is_text(message_kinds[kind]))
            send_nmea(core, periodic_text(message_kinds[kind], *report, current_style(core)));
        else
            send_frame(core, ubx_report(message_kinds[kind].key, *report));
    }
}

std::optional<double> next_periodic(const receiver_core &core) {
    std::optional<int64_t> next;
    for (size_t kind = 0; kind < message_kinds.size(); ++kind) {
        const int64_t rate = periodic_rate(core, kind);
        if (rate == 0)
            continue;
        const int64_t due = core.last_epoch + rate - (core.last_epoch % rate + rate) % rate;
        next = std::min(next.value_or(due), due);
    }
    return next ? std::optional(epoch_time(core, *next)) : std::nullopt;
}

} // namespace sim
