// lsctl monitor: the screen.
#include "monitor_view.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "lsctl_text.h"

namespace {

bool colours = false;

// From this size on the screen has two columns, and the satellites a map.
constexpr int WIDE_COLUMNS = 64;
constexpr int LEAST_MAP_ROWS = 7;
constexpr int LEAST_ROWS_FOR_LARGE = 9;

struct state_look {
    const char *large;
    const char *plain;
    monitor_colour colour;
};

// In the order of monitor_state.
constexpr std::array<state_look, 9> STATES = {{
    {"", "waiting for the first answer", MONITOR_DOUBTFUL},
    {"LOST", "the location service is not there", MONITOR_BAD},
    {"", "the location service is starting", MONITOR_DOUBTFUL},
    {"OFF", "the receiver is switched off", MONITOR_BAD},
    {"SILENT", "no word from the receiver", MONITOR_BAD},
    {"NO FIX", "the receiver has no fix", MONITOR_BAD},
    {"STALE", "an old fix, and no newer one", MONITOR_BAD},
    {"2D FIX", "fix without altitude", MONITOR_DOUBTFUL},
    {"3D FIX", "fix with altitude", MONITOR_GOOD},
}};

std::string age_text(monitor_time::duration age) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(age).count();
    return seconds < 100           ? lsctl_format("%llds", static_cast<long long>(seconds))
           : seconds < 100L * 60   ? lsctl_format("%lldm", static_cast<long long>(seconds / 60))
           : seconds < 100L * 3600 ? lsctl_format("%lldh", static_cast<long long>(seconds / 3600))
                                   : "days";
}

bool is_fresh(monitor_state state) {
    return state == monitor_state::fix_2d || state == monitor_state::fix_3d;
}

std::string place_text(const gps_pos_data &fix, const monitor_look &look, bool latitude) {
    const double magnitude = latitude ? fix.latitude : fix.longitude;
    const char hemisphere = latitude ? fix.lat_dir : fix.lon_dir;
    return look.minutes ? lsctl_degrees_minutes(magnitude, hemisphere)
                        : lsctl_degrees(magnitude, hemisphere);
}

std::string speed_text(const monitor_model &model, bool wide) {
    if (!model.motion_at || !model.motion.speed_kmh)
        return "Speed --";
    const double kmh = *model.motion.speed_kmh;
    std::string text = lsctl_format("Speed %.1f km/h", kmh);
    if (wide) {
        text += lsctl_format(" (%.1f m/s, %.1f kn)", kmh / 3.6,
                             model.motion.speed_knots.value_or(kmh / 1.852));
    }
    if (model.motion.course_deg)
        text += lsctl_format("  Course %.0f deg", *model.motion.course_deg);
    else if (wide)
        text += "  Course -- (standing still)";
    return text;
}

std::string clock_text(const monitor_model &model) {
    if (!model.clock_ahead_s)
        return "System clock --";
    const double ahead = *model.clock_ahead_s;
    const double seconds = std::fabs(ahead);
    const std::string text = seconds < 120         ? lsctl_format("%.1f s", seconds)
                             : seconds < 48 * 3600 ? lsctl_format("%.1f h", seconds / 3600)
                                                   : lsctl_format("%.0f days", seconds / 86400);
    return "System clock " + text + (ahead < 0 ? " behind" : " ahead");
}

std::string power_text(const monitor_model &model) {
    return "Power " + (model.power_mode ? lsctl_power_text(*model.power_mode) : "--");
}

std::string satellites_text(const monitor_model &model) {
    const auto used = std::ranges::count_if(model.satellites, &monitor_satellite::used);
    const auto heard = std::ranges::count_if(
        model.satellites, [](const monitor_satellite &one) { return one.cn0_dbhz.has_value(); });
    return lsctl_format("%zu in view, %td heard, %td used", model.satellites.size(), heard, used);
}

int draw_title(const monitor_area &area, const monitor_model &model, monitor_time now) {
    const bool wide = area.columns >= WIDE_COLUMNS;
    const bool fresh = is_fresh(monitor_state_of(model, now));
    const std::string left = (wide ? " Location service  " : " lsctl  ") +
                             (fresh ? lsctl_utc(model.fix->time) : std::string());
    const std::string right = wide ? "? keys  q quit " : "? keys ";
    std::string title = left;
    title.resize(static_cast<size_t>(area.columns), ' ');
    if (title.size() > left.size() + right.size())
        title.replace(title.size() - right.size(), right.size(), right);
    monitor_put(area, 0, 0, title, MONITOR_PLAIN, A_REVERSE);
    return 1;
}

int draw_state(const monitor_area &area, int row, const monitor_model &model, monitor_time now) {
    const monitor_state state = monitor_state_of(model, now);
    const state_look &looks = STATES.at(static_cast<size_t>(state));
    const std::string age = model.fix ? " " + age_text(now - model.fix_at) : "";
    const bool has_large = *looks.large != '\0';
    if (area.rows < LEAST_ROWS_FOR_LARGE) {
        monitor_put(area, row, 0, has_large ? looks.large + age : looks.plain, looks.colour,
                    A_BOLD);
        return row + 1;
    }
    if (has_large)
        monitor_put_large(area, row, looks.large + age, looks.colour);
    else
        monitor_put(area, row + 1, 1, looks.plain, looks.colour, A_BOLD);
    if (area.columns >= WIDE_COLUMNS) {
        constexpr int side = 44; // behind the longest of the large words
        monitor_put(area, row, side, has_large ? looks.plain : "", looks.colour, A_BOLD);
        monitor_put(area, row + 1, side, power_text(model));
        monitor_put(area, row + 2, side, clock_text(model));
    }
    return row + MONITOR_LARGE_ROWS;
}

int draw_place(const monitor_area &area, int row, const monitor_model &model,
               const monitor_look &look, monitor_time now) {
    const bool wide = area.columns >= WIDE_COLUMNS;
    if (!model.fix) {
        monitor_put(area, row, 0, wide ? "Position    none so far" : "No position so far");
    } else {
        const bool fresh = is_fresh(monitor_state_of(model, now));
        const monitor_colour colour = fresh ? MONITOR_PLAIN : MONITOR_BAD;
        const std::string latitude = place_text(*model.fix, look, true);
        const std::string longitude = place_text(*model.fix, look, false);
        // Behind the narrow form there is no room for a word.
        monitor_put(area, row, 0,
                    wide ? lsctl_format("Position    %s   %s%s", latitude.c_str(),
                                        longitude.c_str(), fresh ? "" : "   (last known)")
                         : (fresh ? "" : "old: ") + latitude + " " + longitude,
                    colour, fresh ? A_BOLD : A_NORMAL);
        monitor_put(
            area, row + 1, 0,
            lsctl_format(wide ? "Altitude    %.1f m   Accuracy %.1f m horizontal, %.1f m vertical"
                              : "Alt %.1f m  Acc %.1f m, %.1f m vert.",
                         model.fix->altitude, static_cast<double>(model.fix->horizontal_accuracy),
                         static_cast<double>(model.fix->vertical_accuracy)),
            colour);
    }
    monitor_put(area, row + 2, 0, speed_text(model, wide));
    return row + 3;
}

// Breaks at blanks; the last row takes what it can.
void draw_wrapped(const monitor_area &area, int row, int rows, std::string text,
                  monitor_colour colour) {
    const auto width = static_cast<size_t>(area.columns);
    for (; rows > 1 && text.size() > width; --rows, ++row) {
        size_t end = text.rfind(' ', width);
        end = end == std::string::npos || end == 0 ? width : end;
        monitor_put(area, row, 0, text.substr(0, end), colour);
        text.erase(0, text[end] == ' ' ? end + 1 : end);
    }
    if (text.size() > width && width > 3)
        text = text.substr(0, width - 3) + "...";
    monitor_put(area, row, 0, text, colour);
}

void draw_error(const monitor_area &area, int row, int rows, const monitor_model &model,
                monitor_time now) {
    if (!model.error) {
        monitor_put(area, row, 0, "No error so far");
        return;
    }
    const std::string when = model.error->present
                                 ? "Now: "
                                 : "Last error, " + age_text(now - model.error->at) + " ago: ";
    draw_wrapped(area, row, rows, when + model.error->text,
                 model.error->present ? MONITOR_BAD : MONITOR_PLAIN);
}

void draw_satellites(const monitor_area &area, const monitor_model &model) {
    const bool map = area.columns >= WIDE_COLUMNS && area.rows >= LEAST_MAP_ROWS;
    const int bars = map ? area.columns * 55 / 100 : area.columns;
    monitor_put(area, 0, 0, "Satellites  " + satellites_text(model) + (map ? "   (* used)" : ""));
    monitor_draw_bars({area.window, area.top + 1, area.left, area.rows - 1, bars}, model);
    if (map)
        monitor_draw_sky({area.window, area.top, area.left + bars, area.rows, area.columns - bars},
                         model);
}

void draw_help(const monitor_area &area) {
    constexpr std::array LINES = {
        "q, Ctrl-C  end",
        "d          degrees, or with minutes",
        "?          these lines, and back",
        "",
        "* # used in the fix   - heard   -- not",
        "Strip: C/N0, a column 4 s; below it",
        "3 2 fix, - no fix, ? not known",
    };
    int row = 1;
    for (const char *line : LINES)
        monitor_put(area, row++, 1, line);
}

} // namespace

void monitor_view_start(bool with_colours) {
    colours = with_colours && has_colors();
    if (!colours)
        return;
    start_color();
    use_default_colors();
    init_pair(MONITOR_GOOD, COLOR_GREEN, -1);
    init_pair(MONITOR_BAD, COLOR_RED, -1);
    init_pair(MONITOR_DOUBTFUL, COLOR_YELLOW, -1);
}

void monitor_put(const monitor_area &area, int row, int column, const std::string &text) {
    const int room = area.columns - column;
    if (row < 0 || row >= area.rows || column < 0 || room <= 0)
        return;
    // The last cell of a window cannot be written without an error, which says nothing here.
    mvwaddnstr(area.window, area.top + row, area.left + column, text.c_str(),
               std::min(room, static_cast<int>(text.size())));
}

void monitor_put(const monitor_area &area, int row, int column, const std::string &text,
                 monitor_colour colour, attr_t attributes) {
    wattr_set(area.window, attributes, colours ? colour : MONITOR_PLAIN, nullptr);
    monitor_put(area, row, column, text);
    wattr_set(area.window, A_NORMAL, MONITOR_PLAIN, nullptr);
}

void monitor_draw(WINDOW *window, const monitor_model &model, const monitor_look &look,
                  monitor_time now) {
    werase(window);
    const monitor_area all = {window, 0, 0, getmaxy(window), getmaxx(window)};
    int row = all.rows > 3 ? draw_title(all, model, now) : 0;
    if (look.help) {
        draw_help(all);
        return;
    }
    const bool wide = all.columns >= WIDE_COLUMNS;
    row = draw_state(all, row, model, now);
    row = draw_place(all, row, model, look, now);
    // From below: the error, above it the strip; what is left is the satellites'.
    const int left = all.rows - row;
    const int error = left >= 8 ? 2 : 1;
    const int strip = left < 3    ? 0
                      : left < 4  ? 1
                      : left < 12 ? 2
                                  : std::min(3 + (left - 12) / 6, 6);
    if (left >= error)
        draw_error(all, all.rows - error, error, model, now);
    const int strip_title = wide && strip >= 3 ? 1 : 0;
    const int satellites = left - error - strip - strip_title;
    if (satellites >= 3)
        draw_satellites({window, row, 0, satellites, all.columns}, model);
    else if (satellites >= 1)
        monitor_put(all, row, 0, monitor_bars_in_a_row(model) + " " + satellites_text(model));
    row += satellites;
    if (strip_title != 0)
        monitor_put(all, row++, 0, "The last minutes: C/N0 of the best four, and the fix");
    if (strip != 0)
        monitor_draw_strip({window, row, 0, strip, all.columns}, model);
    // The cursor, where it cannot be hidden.
    wmove(window, 0, all.columns - 1);
}
