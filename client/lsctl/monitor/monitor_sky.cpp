// lsctl monitor: satellites as bars and on a map of the sky, and the strip of the last minutes.
#include "monitor_view.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>

#include "lsctl_text.h"

namespace {

constexpr double LOWEST_DBHZ = 10; // below is nothing that a receiver could use
constexpr double HIGHEST_DBHZ = 50;

// 0 to 1.
double share_of(double cn0_dbhz) {
    return std::clamp((cn0_dbhz - LOWEST_DBHZ) / (HIGHEST_DBHZ - LOWEST_DBHZ), 0.0, 1.0);
}

// Those that find room, the strongest, by PRN.
std::vector<monitor_satellite> strongest(const monitor_model &model, size_t room) {
    std::vector<monitor_satellite> shown = model.satellites;
    std::ranges::stable_sort(shown, std::greater(),
                             [](const monitor_satellite &one) { return one.cn0_dbhz.value_or(0); });
    shown.resize(std::min(shown.size(), room));
    std::ranges::sort(shown, {}, &monitor_satellite::prn);
    return shown;
}

void draw_bar(const monitor_area &area, int row, const monitor_satellite &one) {
    const std::string cn0 = one.cn0_dbhz ? lsctl_format("%2.0f", *one.cn0_dbhz) : "--";
    monitor_put(area, row, 0,
                lsctl_format("%c%02u %s", one.used ? '*' : ' ', one.prn, cn0.c_str()));
    constexpr int text = 7;
    const double room = std::max(0, area.columns - text - 1);
    const double length = one.cn0_dbhz ? std::ceil(share_of(*one.cn0_dbhz) * room) : 0;
    monitor_put(area, row, text, std::string(static_cast<size_t>(length), one.used ? '#' : '-'),
                one.used ? MONITOR_GOOD : MONITOR_DOUBTFUL);
}

} // namespace

void monitor_draw_bars(const monitor_area &area, const monitor_model &model) {
    constexpr int narrowest = 18;
    const auto rows = static_cast<size_t>(std::max(area.rows, 0));
    const bool two = model.satellites.size() > rows && area.columns >= 2 * narrowest;
    const std::vector<monitor_satellite> shown = strongest(model, two ? 2 * rows : rows);
    const int width = two ? area.columns / 2 : area.columns;
    for (size_t i = 0; i < shown.size(); ++i) {
        const monitor_area half = {area.window, area.top, area.left + (i < rows ? 0 : width),
                                   area.rows, width};
        draw_bar(half, static_cast<int>(i % rows), shown[i]);
    }
}

std::string monitor_bars_in_a_row(const monitor_model &model) {
    constexpr std::string_view ramp = ".:-=+*#";
    std::string row;
    for (const monitor_satellite &one : model.satellites) {
        const double share = one.cn0_dbhz ? share_of(*one.cn0_dbhz) : 0;
        row += one.cn0_dbhz ? ramp[static_cast<size_t>(std::lround(share * (ramp.size() - 1.0)))]
                            : '_';
    }
    return row;
}

void monitor_draw_sky(const monitor_area &area, const monitor_model &model) {
    // A character is about twice as high as wide.
    const double radius = std::min((area.rows - 1) / 2.0, (area.columns - 4) / 4.0);
    const double middle_row = (area.rows - 1) / 2.0;
    const double middle_column = (area.columns - 1) / 2.0;
    const auto put = [&](double azimuth_deg, double share, const std::string &text,
                         monitor_colour colour, attr_t attributes) {
        const double angle = azimuth_deg * std::numbers::pi / 180;
        const int row =
            static_cast<int>(std::lround(middle_row - std::cos(angle) * radius * share));
        const int column =
            static_cast<int>(std::lround(middle_column + std::sin(angle) * radius * 2 * share));
        monitor_put(area, row, column, text, colour, attributes);
    };
    constexpr int dots = 48;
    for (int i = 0; i < dots; ++i)
        put(360.0 * i / dots, 1, ".", MONITOR_PLAIN, A_DIM);
    put(0, 0, "+", MONITOR_PLAIN, A_DIM);
    put(0, 1, "N", MONITOR_PLAIN, A_BOLD);
    put(90, 1, "E", MONITOR_PLAIN, A_BOLD);
    put(180, 1, "S", MONITOR_PLAIN, A_BOLD);
    put(270, 1, "W", MONITOR_PLAIN, A_BOLD);
    // The used ones last: they stay on top.
    for (const bool used : {false, true}) {
        for (const monitor_satellite &one : model.satellites) {
            if (one.used == used && one.elevation_deg && one.azimuth_deg)
                put(*one.azimuth_deg, std::clamp(1 - *one.elevation_deg / 90, 0.0, 1.0),
                    lsctl_format("%02u%s", one.prn, used ? "*" : ""),
                    used ? MONITOR_GOOD : MONITOR_DOUBTFUL, used ? A_BOLD : A_NORMAL);
        }
    }
}

void monitor_draw_strip(const monitor_area &area, const monitor_model &model) {
    const size_t shown =
        std::min(model.strip.size(), static_cast<size_t>(std::max(area.columns, 0)));
    const int bars = area.rows - 1;
    for (size_t i = 0; i < shown; ++i) {
        const monitor_moment &moment = model.strip[model.strip.size() - shown + i];
        const int column = area.columns - static_cast<int>(shown - i);
        // In half rows: a whole one is '#', a half one '.'.
        const long halves =
            moment.cn0_dbhz ? std::max(1L, std::lround(share_of(*moment.cn0_dbhz) * bars * 2)) : 0;
        for (int row = 0; row < bars; ++row) {
            const long above = halves - 2L * row;
            if (above > 0)
                monitor_put(area, bars - 1 - row, column, above > 1 ? "#" : ".");
        }
        const bool fixed = moment.fix == '2' || moment.fix == '3';
        monitor_put(area, bars, column, std::string(1, moment.fix),
                    fixed ? MONITOR_GOOD : MONITOR_BAD, fixed ? A_NORMAL : A_BOLD);
    }
}
