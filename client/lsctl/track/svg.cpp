// lsctl: a track drawn to scale on one page, as SVG 1.1 without scripts, style sheets or fonts of
// its own.
#include "page.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cmath>
#include <cstdlib>
#include <ctime>

namespace {

constexpr const char *INK = "#1a1a1a";
constexpr const char *TRACK = "#1e50b4";
constexpr const char *PAUSE = "#8a8a8a";
constexpr const char *START = "#1b7f3b";
constexpr const char *END = "#b3261e";

constexpr double LONGEST_SCALE_MM = 50;
constexpr double MARK_MM = 1.7; // half the size of the marks

page_box around(page_point at) {
    return {at.x - MARK_MM, at.y - MARK_MM, at.x + MARK_MM, at.y + MARK_MM};
}

std::string length_text(double metres) {
    std::array<char, 32> text{};
    if (metres < 1000)
        std::snprintf(text.data(), text.size(), "%g m", metres);
    else
        std::snprintf(text.data(), text.size(), "%g km", metres / 1000);
    return text.data();
}

std::string duration_text(int64_t seconds) {
    std::array<char, 48> text{};
    if (seconds < 60) {
        std::snprintf(text.data(), text.size(), "%" PRId64 " s", seconds);
    } else if (seconds < 3600) {
        std::snprintf(text.data(), text.size(), "%" PRId64 " min", seconds / 60);
    } else if (seconds < 86400) {
        std::snprintf(text.data(), text.size(), "%" PRId64 " h %02" PRId64 " min", seconds / 3600,
                      seconds / 60 % 60);
    } else {
        std::snprintf(text.data(), text.size(), "%" PRId64 " d %" PRId64 " h", seconds / 86400,
                      seconds / 3600 % 24);
    }
    return text.data();
}

// "UTC+01:00", where the point was logged.
std::string zone_text(const track_point &point) {
    const auto instant = static_cast<time_t>(point.utc);
    tm local = {};
    localtime_r(&instant, &local);
    const int64_t minutes = std::llabs(local.tm_gmtoff) / 60;
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "UTC%c%02" PRId64 ":%02" PRId64,
                  local.tm_gmtoff < 0 ? '-' : '+', minutes / 60, minutes % 60);
    return text.data();
}

std::string date_text(const track_point &point) {
    return std::string(point.line.substr(0, 19));
}

void write_text(const page_text &text, FILE *out) {
    // A white rim keeps a text readable on lines.
    std::fprintf(out,
                 "<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"%s\" fill=\"none\" stroke=\"#ffffff\" "
                 "stroke-width=\"0.9\" stroke-linejoin=\"round\">%s</text>\n"
                 "<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"%s\" fill=\"%s\">%s</text>\n",
                 text.at.x, text.at.y, text.anchor, text.text.c_str(), text.at.x, text.at.y,
                 text.anchor, INK, text.text.c_str());
}

void write_plain(double x, double y, const char *anchor, const std::string &text, FILE *out) {
    std::fprintf(out, "<text x=\"%.2f\" y=\"%.2f\" text-anchor=\"%s\" fill=\"%s\">%s</text>\n", x,
                 y, anchor, INK, text.c_str());
}

void write_start_mark(page_point at, FILE *out) {
    std::fprintf(out,
                 "<circle cx=\"%.2f\" cy=\"%.2f\" r=\"%.2f\" fill=\"%s\" stroke=\"#ffffff\" "
                 "stroke-width=\"0.4\"/>\n",
                 at.x, at.y, MARK_MM, START);
}

void write_end_mark(page_point at, FILE *out) {
    std::fprintf(out,
                 "<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\" fill=\"%s\" "
                 "stroke=\"#ffffff\" stroke-width=\"0.4\"/>\n",
                 at.x - 0.8 * MARK_MM, at.y - 0.8 * MARK_MM, 1.6 * MARK_MM, 1.6 * MARK_MM, END);
}

void write_pause_line(page_point from, page_point to, FILE *out) {
    std::fprintf(out,
                 "<line x1=\"%.2f\" y1=\"%.2f\" x2=\"%.2f\" y2=\"%.2f\" stroke=\"%s\" "
                 "stroke-width=\"0.4\" stroke-dasharray=\"1.6 1.2\"/>\n",
                 from.x, from.y, to.x, to.y, PAUSE);
}

void write_time_dot(page_point at, FILE *out) {
    std::fprintf(out,
                 "<circle cx=\"%.2f\" cy=\"%.2f\" r=\"0.8\" fill=\"#ffffff\" stroke=\"%s\" "
                 "stroke-width=\"0.35\"/>\n",
                 at.x, at.y, TRACK);
}

// Squares as wide as the scale bar is long.
void write_grid(const page_layout &layout, double square_mm, FILE *out) {
    const page_box &frame = layout.frame;
    std::fprintf(out, "<path fill=\"none\" stroke=\"#e4e4e4\" stroke-width=\"0.2\" d=\"");
    const auto lines = [square_mm](double length) {
        return static_cast<int>(std::ceil(length / square_mm)) - 1;
    };
    for (int i = 1; i <= lines(frame.right - frame.left); ++i)
        std::fprintf(out, "M%.2f %.2fV%.2f", frame.left + i * square_mm, frame.top, frame.bottom);
    for (int i = 1; i <= lines(frame.bottom - frame.top); ++i)
        std::fprintf(out, "M%.2f %.2fH%.2f", frame.left, frame.bottom - i * square_mm, frame.right);
    std::fprintf(out,
                 "\"/>\n<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"%.2f\" fill=\"none\" "
                 "stroke=\"%s\" stroke-width=\"0.3\"/>\n",
                 frame.left, frame.top, frame.right - frame.left, frame.bottom - frame.top, PAUSE);
}

void write_scale_and_legend(const page_layout &layout, double length_m, FILE *out) {
    const double left = layout.frame.left;
    const double y = layout.frame.bottom + 5;
    const double half = length_m / layout.metres_per_mm / 2;
    for (const int part : {0, 1}) {
        std::fprintf(out,
                     "<rect x=\"%.2f\" y=\"%.2f\" width=\"%.2f\" height=\"1.4\" fill=\"%s\" "
                     "stroke=\"%s\" stroke-width=\"0.25\"/>\n",
                     left + part * half, y - 1.4, half, part == 0 ? INK : "#ffffff", INK);
    }
    write_plain(left, y + 4, "start", "0", out);
    write_plain(left + 2 * half, y + 4, "middle", length_text(length_m), out);

    const double row = y - 0.2;
    const double right = layout.frame.right;
    write_start_mark({right - 101, row - 0.9}, out);
    write_plain(right - 98, row + 0.2, "start", "start", out);
    write_end_mark({right - 85, row - 0.9}, out);
    write_plain(right - 82, row + 0.2, "start", "end", out);
    write_time_dot({right - 71, row - 0.9}, out);
    write_plain(right - 68.5, row + 0.2, "start", "local time", out);
    write_pause_line({right - 47, row - 0.9}, {right - 38, row - 0.9}, out);
    write_plain(right - 36, row + 0.2, "start", "no positions logged", out);
    write_plain(right, y + 5, "end", "north is up; squares of " + length_text(length_m), out);
}

struct summary {
    const track_point *first = nullptr;
    const track_point *last = nullptr;
    double length_m = 0; // without the pauses
    size_t positions = 0;
};

summary summarise(const track &all, const page_layout &layout) {
    summary sum;
    for (const track_stretch &stretch : layout.stretches) {
        sum.first = sum.first == nullptr ? &all.points[stretch.front()] : sum.first;
        sum.last = &all.points[stretch.back()];
        sum.positions += stretch.size();
        for (size_t i = 1; i < stretch.size(); ++i)
            sum.length_m += track_distance_m(all.points[stretch[i - 1]], all.points[stretch[i]]);
    }
    return sum;
}

void write_head(const page_layout &layout, const summary &sum, FILE *out) {
    std::fprintf(out,
                 "<text x=\"%.2f\" y=\"5\" font-size=\"5\" fill=\"%s\">Location history</text>\n",
                 layout.frame.left, INK);
    if (sum.first == nullptr)
        return;
    write_plain(layout.frame.left, 10.5, "start",
                date_text(*sum.first) + " to " + date_text(*sum.last) +
                    ", local time of the terminal (" + zone_text(*sum.first) + ")",
                out);
    std::array<char, 96> text{};
    const size_t pauses = layout.stretches.size() - 1;
    std::snprintf(text.data(), text.size(), "%zu position%s, %.2f km along the track, %zu pause%s",
                  sum.positions, sum.positions == 1 ? "" : "s", sum.length_m / 1000, pauses,
                  pauses == 1 ? "" : "s");
    write_plain(layout.frame.left, 15.2, "start", text.data(), out);
}

void write_lines(const page_layout &layout, FILE *out, const track_progress &progress) {
    for (size_t i = 1; i < layout.lines.size(); ++i)
        write_pause_line(layout.lines[i - 1].back(), layout.lines[i].front(), out);
    for (size_t i = 0; i < layout.lines.size(); ++i) {
        const std::vector<page_point> &line = layout.lines[i];
        // A line without length is drawn as a dot by its round ends.
        std::fprintf(out,
                     "<path fill=\"none\" stroke=\"%s\" stroke-width=\"0.7\" "
                     "stroke-linejoin=\"round\" stroke-linecap=\"round\" d=\"M%.2f %.2fL%.2f %.2f",
                     TRACK, line.front().x, line.front().y, line.front().x, line.front().y);
        for (size_t k = 1; k < line.size(); ++k) {
            // Some lines of text, for editors that dislike long ones.
            std::fprintf(out, "%s%.2f %.2f", k % 8 == 0 ? "\n" : " ", line[k].x, line[k].y);
        }
        std::fprintf(out, "\"/>\n");
        progress(static_cast<double>(i) / static_cast<double>(layout.lines.size()));
    }
}

// The middle of each pause and how long it was.
void write_pause_texts(const track &all, const page_layout &layout, page_labels &labels,
                       FILE *out) {
    for (size_t i = 1; i < layout.stretches.size(); ++i) {
        const page_point from = layout.lines[i - 1].back();
        const page_point to = layout.lines[i].front();
        const int64_t pause = all.points[layout.stretches[i].front()].utc -
                              all.points[layout.stretches[i - 1].back()].utc;
        page_text text;
        if (labels.place({(from.x + to.x) / 2, (from.y + to.y) / 2},
                         pause < 0 ? "clock set back" : "pause " + duration_text(pause), &text))
            write_text(text, out);
    }
}

void write_map(const track &all, const page_layout &layout, const summary &sum, FILE *out,
               const track_progress &progress) {
    const double scale_m = page_round_length(LONGEST_SCALE_MM * layout.metres_per_mm);
    write_grid(layout, scale_m / layout.metres_per_mm, out);
    write_scale_and_legend(layout, scale_m, out);
    write_lines(layout, out, progress);

    page_labels labels(layout);
    const page_point start = layout.lines.front().front();
    const page_point end = layout.lines.back().back();
    labels.keep_free(around(start));
    labels.keep_free(around(end));
    page_text text;
    if (labels.place(start, "start " + date_text(*sum.first).substr(11), &text))
        write_text(text, out);
    if (labels.place(end, "end " + date_text(*sum.last).substr(11), &text))
        write_text(text, out);
    write_pause_texts(all, layout, labels, out);
    for (const page_time &time : page_times(all, layout)) {
        if (labels.place(time.at, time.text, &text)) {
            write_time_dot(time.at, out);
            write_text(text, out);
        }
    }
    write_end_mark(end, out);
    write_start_mark(start, out);
}

} // namespace

void track_write_svg(const track &all, int64_t gap_s, FILE *out, const track_progress &progress) {
    const page_layout layout = page_lay_out(all, gap_s);
    std::fprintf(out,
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                 "<svg xmlns=\"http://www.w3.org/2000/svg\" version=\"1.1\" width=\"%gmm\" "
                 "height=\"%gmm\" viewBox=\"0 0 %g %g\" font-family=\"sans-serif\" "
                 "font-size=\"%g\">\n<title>Location history</title>\n"
                 "<rect width=\"%g\" height=\"%g\" fill=\"#ffffff\"/>\n",
                 layout.width, layout.height, layout.width, layout.height, PAGE_FONT_MM,
                 layout.width, layout.height);
    const summary sum = summarise(all, layout);
    write_head(layout, sum, out);
    if (sum.first == nullptr)
        write_plain(layout.width / 2, layout.height / 2, "middle", "No positions", out);
    else
        write_map(all, layout, sum, out, progress);
    std::fprintf(out, "</svg>\n");
}
