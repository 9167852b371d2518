// lsctl monitor: the model.
#include "monitor_model.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>

namespace {

constexpr size_t BEST = 4; // satellites in the strip's mean: as many as a fix takes

monitor_satellite &satellite_of(monitor_model &model, unsigned prn) {
    const auto at = std::ranges::lower_bound(model.satellites, prn, {}, &monitor_satellite::prn);
    if (at != model.satellites.end() && at->prn == prn)
        return *at;
    monitor_satellite added;
    added.prn = prn;
    return *model.satellites.insert(at, added);
}

bool same_time(const gps_time_fields &a, const gps_time_fields &b) {
    return std::tie(a.hour, a.minute, a.second, a.day, a.month, a.year) ==
           std::tie(b.hour, b.minute, b.second, b.day, b.month, b.year);
}

std::optional<double> best_cn0(const monitor_model &model) {
    std::vector<double> heard;
    for (const monitor_satellite &satellite : model.satellites)
        if (satellite.cn0_dbhz)
            heard.push_back(*satellite.cn0_dbhz);
    if (heard.empty())
        return std::nullopt;
    std::ranges::sort(heard, std::greater());
    heard.resize(std::min(heard.size(), BEST));
    double sum = 0;
    for (const double cn0 : heard)
        sum += cn0;
    return sum / static_cast<double>(heard.size());
}

// What a bad answer to a pass-through means, and what to do; "" for a good one.
std::string meaning_of(lsctl_verdict verdict) {
    switch (verdict) {
    case lsctl_verdict::good:
        return "";
    case lsctl_verdict::nothing:
        return "no byte comes from the receiver: look at its line and its power";
    case lsctl_verdict::wrong_checksum:
    case lsctl_verdict::noise:
        return "the receiver's answers come damaged: look at the line and its baud rate";
    case lsctl_verdict::cut:
        return "the receiver's answers come cut: look at the line and its driver";
    case lsctl_verdict::other:
        return "the receiver answers something else: where it stays so, restart the service";
    }
    return "";
}

std::string no_fix_text(const monitor_model &model) {
    const auto heard = std::ranges::count_if(
        model.satellites, [](const monitor_satellite &one) { return one.cn0_dbhz.has_value(); });
    std::string text = "the receiver answers and has no fix";
    if (!model.satellites_at)
        return text;
    return text + "; satellites heard: " + std::to_string(heard) +
           (heard < 4 ? ". Look at the antenna and the view of the sky" : "");
}

void went_well(monitor_model &model) {
    if (model.error)
        model.error->present = false;
}

void forget_receiver(monitor_model &model) {
    model.has_fix = false;
    model.heard = false;
    model.verdict.reset();
}

} // namespace

void monitor_on_absent(monitor_model &model, const std::string &text, monitor_time now) {
    model.service = monitor_service::absent;
    model.power_mode.reset();
    forget_receiver(model);
    monitor_on_error(model, text, now);
}

void monitor_on_power(monitor_model &model, uint32_t mode, bool starting) {
    if (model.service == monitor_service::absent)
        went_well(model);
    model.service = starting ? monitor_service::starting : monitor_service::present;
    model.power_mode = mode;
    if (mode != GPS_POWER_ON || starting)
        forget_receiver(model);
}

void monitor_on_position(monitor_model &model, const gps_pos_data &position, monitor_time now) {
    model.heard = true;
    model.has_fix = position.fix_type == GPS_FIX_2D || position.fix_type == GPS_FIX_3D;
    if (!model.has_fix) {
        monitor_on_error(model, no_fix_text(model), now);
        return;
    }
    // A record without a time cannot be told from the one before.
    const bool repeated =
        model.fix && position.time.month != 0 && same_time(model.fix->time, position.time);
    if (!repeated)
        model.fix_at = now;
    model.fix = position;
    went_well(model);
}

void monitor_on_no_position(monitor_model &model, const std::string &text, monitor_time now) {
    model.has_fix = false;
    model.heard = model.verdict == lsctl_verdict::good;
    if (model.heard)
        monitor_on_error(model, no_fix_text(model), now);
    else if (model.verdict)
        monitor_on_error(model, meaning_of(*model.verdict), now);
    else
        monitor_on_error(model, text, now);
}

void monitor_on_satellites(monitor_model &model, const gps_sat_info &info, monitor_time now) {
    const size_t listed = std::min<size_t>(info.num_sat_in_view, GPS_SAT_SLOTS);
    for (size_t i = 0; i < listed; ++i) {
        if (info.sat_prn[i] == 0)
            continue;
        monitor_satellite &one = satellite_of(model, info.sat_prn[i]);
        one.cn0_dbhz.reset();
        if (info.sat_snr[i] != 0)
            one.cn0_dbhz = info.sat_snr[i];
        one.seen = now;
    }
    for (monitor_satellite &one : model.satellites)
        one.used = std::ranges::find(info.sat_used_prn, one.prn) != std::end(info.sat_used_prn);
    model.satellites_at = now;
}

void monitor_on_sky(monitor_model &model, std::span<const lsctl_sky_satellite> sky,
                    monitor_time now) {
    for (const lsctl_sky_satellite &told : sky) {
        monitor_satellite &one = satellite_of(model, told.prn);
        one.cn0_dbhz = told.cn0_dbhz;
        if (told.elevation_deg && told.azimuth_deg) {
            one.elevation_deg = told.elevation_deg;
            one.azimuth_deg = told.azimuth_deg;
        }
        one.seen = now;
    }
    model.satellites_at = now;
}

void monitor_on_used(monitor_model &model, std::span<const lsctl_fields> gsa) {
    constexpr size_t first_slot = 3; // behind the mode's letter and the fix
    constexpr size_t slots = 12;
    for (monitor_satellite &one : model.satellites) {
        one.used = std::ranges::any_of(
            gsa,
            [&](const lsctl_fields &fields) {
                for (size_t i = first_slot; i < std::min(first_slot + slots, fields.size()); ++i)
                    if (lsctl_field_number(fields, i) == one.prn)
                        return true;
                return false;
            });
    }
}

void monitor_on_motion(monitor_model &model, const lsctl_motion &motion, monitor_time now) {
    model.motion = motion;
    model.motion_at = now;
}

void monitor_on_clock(monitor_model &model, double ahead_s, monitor_time now) {
    model.clock_ahead_s = ahead_s;
    model.clock_at = now;
}

void monitor_on_verdict(monitor_model &model, lsctl_verdict verdict, monitor_time now) {
    model.verdict = verdict;
    if (verdict == lsctl_verdict::good)
        model.heard = true;
    else
        monitor_on_error(model, meaning_of(verdict), now);
}

void monitor_on_error(monitor_model &model, const std::string &text, monitor_time now) {
    model.error = {text, now, true};
}

void monitor_tick(monitor_model &model, monitor_time now) {
    std::erase_if(model.satellites, [now](const monitor_satellite &one) {
        return now - one.seen > MONITOR_FORGET_AFTER;
    });
    if (model.motion_at && now - *model.motion_at > MONITOR_STALE_AFTER)
        model.motion_at.reset();
    if (model.clock_ahead_s && now - model.clock_at > MONITOR_FORGET_AFTER)
        model.clock_ahead_s.reset();
    if (!model.strip_next)
        model.strip_next = now + MONITOR_STRIP_STEP;
    // After a suspend there may be hours to fill: no more than are kept.
    const auto kept = MONITOR_STRIP_STEP * static_cast<long>(MONITOR_STRIP_LENGTH);
    model.strip_next = std::max(*model.strip_next, now - kept);
    for (; now >= *model.strip_next; *model.strip_next += MONITOR_STRIP_STEP) {
        monitor_moment moment;
        const monitor_state state = monitor_state_of(model, now);
        moment.fix = state == monitor_state::fix_3d   ? '3'
                     : state == monitor_state::fix_2d ? '2'
                     : state == monitor_state::no_fix ? '-'
                                                      : '?';
        if (moment.fix != '?')
            moment.cn0_dbhz = best_cn0(model);
        model.strip.push_back(moment);
    }
    while (model.strip.size() > MONITOR_STRIP_LENGTH)
        model.strip.pop_front();
}

monitor_state monitor_state_of(const monitor_model &model, monitor_time now) {
    if (model.service == monitor_service::absent)
        return monitor_state::lost;
    if (model.service == monitor_service::unknown)
        return monitor_state::waiting;
    if (model.power_mode && *model.power_mode != GPS_POWER_ON)
        return monitor_state::off;
    if (model.service == monitor_service::starting)
        return monitor_state::starting;
    if (!model.has_fix) {
        return model.heard   ? monitor_state::no_fix
               : model.error ? monitor_state::silent
                             : monitor_state::waiting;
    }
    if (now - model.fix_at > MONITOR_STALE_AFTER)
        return monitor_state::stale;
    return model.fix->fix_type == GPS_FIX_3D ? monitor_state::fix_3d : monitor_state::fix_2d;
}

std::optional<double> monitor_clock_ahead(const lsctl_fields &pubx_04, double system_s) {
    // $PUBX,04,hhmmss.ss,ddmmyy,...
    if (pubx_04.size() < 4 || pubx_04[3].size() != 6)
        return std::nullopt;
    const auto clock = lsctl_field_time_s(pubx_04, 2);
    const auto date = lsctl_field_number(pubx_04, 3);
    if (!clock || !date)
        return std::nullopt;
    const auto number = static_cast<unsigned>(*date);
    const std::chrono::year_month_day day(std::chrono::year(2000 + static_cast<int>(number % 100)),
                                          std::chrono::month(number / 100 % 100),
                                          std::chrono::day(number / 10000));
    if (!day.ok())
        return std::nullopt;
    const auto days = std::chrono::sys_days(day).time_since_epoch().count();
    return system_s - (static_cast<double>(days) * 86400.0 + *clock);
}
