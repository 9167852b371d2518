// lsctl position, time, satellites: one request, one answer.
#include "explain.h"
#include "lsctl_text.h"

namespace {

// Connects, asks, and shows what came. `also`: see lsctl_fail_explained.
template <class ask_fn, class show_fn>
int run_query(const lsctl_options &options, ask_fn ask, show_fn show, std::string_view also = {}) {
    const lsctl_link link(options.as);
    if (link.result != LOCATION_ANSWERED)
        return lsctl_fail(options, link.result);
    const location_result result = ask(link.client, lsctl_timeout(options));
    return result == LOCATION_ANSWERED ? show()
                                       : lsctl_fail_explained(options, result, link.client, also);
}

int run_position(const lsctl_options &options) {
    gps_pos_data position{};
    return run_query(
        options,
        [&](location_client *client, std::chrono::milliseconds timeout) {
            const location_result result = location_client_get_position(client, timeout, &position);
            // The receiver repeats old coordinates then, or has none.
            return result == LOCATION_ANSWERED && position.fix_type == GPS_FIX_NONE
                       ? LOCATION_FAILED
                       : result;
        },
        [&] {
            return lsctl_show(options, lsctl_position_json(position),
                              lsctl_position_text(position));
        });
}

double system_clock_s() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

int run_time(const lsctl_options &options) {
    gps_time_fields utc{};
    uint32_t time_of_week = 0;
    double before_s = 0;
    double after_s = 0;
    return run_query(
        options,
        [&](location_client *client, std::chrono::milliseconds timeout) {
            before_s = system_clock_s();
            const location_result result =
                location_client_get_time(client, timeout, &utc, &time_of_week);
            after_s = system_clock_s();
            return result;
        },
        [&] {
            const auto offset = lsctl_clock_offset_of(utc, before_s, after_s);
            return lsctl_show(options, lsctl_time_json(utc, time_of_week, offset),
                              lsctl_time_text(utc, time_of_week, offset));
        });
}

int run_satellites(const lsctl_options &options) {
    gps_sat_info info{};
    return run_query(
        options,
        [&](location_client *client, std::chrono::milliseconds timeout) {
            return location_client_get_satellites(client, timeout, &info);
        },
        [&] {
            return lsctl_show(options, lsctl_satellites_json(info), lsctl_satellites_text(info));
        },
        "full_sky");
}

} // namespace

lsctl_runner lsctl_position(CLI::App &) {
    return run_position;
}

lsctl_runner lsctl_time(CLI::App &) {
    return run_time;
}

lsctl_runner lsctl_satellites(CLI::App &) {
    return run_satellites;
}
