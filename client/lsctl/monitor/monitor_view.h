// lsctl monitor: draws a model into a window of any size, with ASCII alone. What a colour says is
// said by a word or a sign too. Thread of the screen.
#ifndef MONITOR_VIEW_H
#define MONITOR_VIEW_H

#include <curses.h>

#include "monitor_model.h"

struct monitor_look {
    bool minutes = false; // degrees and minutes instead of degrees
    bool help = false;    // the list of keys instead of the rest
};

// Takes the colours that the view uses, where there are any. After the screen has been opened.
void monitor_view_start(bool with_colours);

// Erases and draws; the caller refreshes.
void monitor_draw(WINDOW *window, const monitor_model &model, const monitor_look &look,
                  monitor_time now);

// --- between monitor_view.cpp and its parts ---

enum monitor_colour : short { MONITOR_PLAIN, MONITOR_GOOD, MONITOR_BAD, MONITOR_DOUBTFUL };

// Where something may be drawn; what does not fit is left out.
struct monitor_area {
    WINDOW *window;
    int top, left, rows, columns;
};

// Text from `column` of `row` on, cut at the area's edge.
void monitor_put(const monitor_area &area, int row, int column, const std::string &text);
// The same in a colour, with attributes.
void monitor_put(const monitor_area &area, int row, int column, const std::string &text,
                 monitor_colour colour, attr_t attributes = A_NORMAL);

// monitor_large.cpp: letters three rows high; capitals and digits, small letters as they are.
constexpr int MONITOR_LARGE_ROWS = 3;
void monitor_put_large(const monitor_area &area, int row, const std::string &text,
                       monitor_colour colour);

// monitor_sky.cpp
void monitor_draw_bars(const monitor_area &area, const monitor_model &model);
void monitor_draw_sky(const monitor_area &area, const monitor_model &model);
// Everything in one row, a sign a satellite.
std::string monitor_bars_in_a_row(const monitor_model &model);
// The last row says fix or not, those above it are C/N0.
void monitor_draw_strip(const monitor_area &area, const monitor_model &model);

#endif
