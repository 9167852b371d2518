// lsctl: a track drawn to scale on one page, as SVG 1.1 without scripts, style sheets or fonts of
// its own.
#include "page.h"
#include "words.h"
#include "xml.h"

#include <array>
#include <cmath>

namespace {

constexpr const char *INK = "#1a1a1a";
constexpr const char *TRACK = "#1e50b4";
constexpr const char *PAUSE = "#8a8a8a";
constexpr const char *START = "#1b7f3b";
constexpr const char *END = "#b3261e";

constexpr double LONGEST_SCALE_MM = 50;
constexpr double MARK_MM = 1.7;       // half the size of the marks
constexpr double LARGE_MARK_MM = 2.9; // of one that another stands on
constexpr double TICK_MM = 2;

page_box around(page_point at, double half) {
    return {at.x - half, at.y - half, at.x + half, at.y + half};
}

std::string mm(double value) {
    return xml_number(value, 2);
}

void write_plain(double x, double y, const char *anchor, const std::string &text, xml_writer &xml) {
    xml.text("text", text, {{"x", mm(x)}, {"y", mm(y)}, {"text-anchor", anchor}, {"fill", INK}});
}

void write_text(const page_text &text, xml_writer &xml) {
    // A white rim keeps a text readable on lines.
    xml.text("text", text.text,
             {{"x", mm(text.at.x)},
              {"y", mm(text.at.y)},
              {"text-anchor", text.anchor},
              {"fill", "none"},
              {"stroke", "#ffffff"},
              {"stroke-width", "0.9"},
              {"stroke-linejoin", "round"}});
    write_plain(text.at.x, text.at.y, text.anchor, text.text, xml);
}

void write_box(const page_box &box, const char *fill, const char *stroke, const char *width,
               xml_writer &xml) {
    xml.empty("rect", {{"x", mm(box.left)},
                       {"y", mm(box.top)},
                       {"width", mm(box.right - box.left)},
                       {"height", mm(box.bottom - box.top)},
                       {"fill", fill},
                       {"stroke", stroke},
                       {"stroke-width", width}});
}

void write_circle(page_point at, double radius, const char *fill, const char *stroke,
                  const char *width, xml_writer &xml) {
    xml.empty("circle", {{"cx", mm(at.x)},
                         {"cy", mm(at.y)},
                         {"r", mm(radius)},
                         {"fill", fill},
                         {"stroke", stroke},
                         {"stroke-width", width}});
}

void write_start_mark(page_point at, xml_writer &xml) {
    write_circle(at, MARK_MM, START, "#ffffff", "0.4", xml);
}

void write_end_mark(page_point at, double half, xml_writer &xml) {
    write_box(around(at, 0.8 * half), END, "#ffffff", "0.4", xml);
}

void write_line(page_point from, page_point to, const char *stroke, const char *width,
                const char *dashes, xml_writer &xml) {
    xml.empty("line", {{"x1", mm(from.x)},
                       {"y1", mm(from.y)},
                       {"x2", mm(to.x)},
                       {"y2", mm(to.y)},
                       {"stroke", stroke},
                       {"stroke-width", width},
                       {"stroke-dasharray", dashes}});
}

void write_pause_line(page_point from, page_point to, xml_writer &xml) {
    write_line(from, to, PAUSE, "0.4", "1.6 1.2", xml);
}

void write_time_dot(page_point at, xml_writer &xml) {
    write_circle(at, 0.8, "#ffffff", TRACK, "0.35", xml);
}

// Squares as wide as the scale bar is long.
void write_grid(const page_layout &layout, double square_mm, xml_writer &xml) {
    const page_box &frame = layout.frame;
    std::string lines;
    const auto count = [square_mm](double length) {
        return static_cast<int>(std::ceil(length / square_mm)) - 1;
    };
    for (int i = 1; i <= count(frame.right - frame.left); ++i)
        lines +=
            "M" + mm(frame.left + i * square_mm) + " " + mm(frame.top) + "V" + mm(frame.bottom);
    for (int i = 1; i <= count(frame.bottom - frame.top); ++i)
        lines +=
            "M" + mm(frame.left) + " " + mm(frame.bottom - i * square_mm) + "H" + mm(frame.right);
    xml.empty("path",
              {{"fill", "none"}, {"stroke", "#e4e4e4"}, {"stroke-width", "0.2"}, {"d", lines}});
    write_box(frame, "none", PAUSE, "0.3", xml);
}

// Ticks inside the frame, and what they stand for. No other text lies on these.
void write_degrees(const page_layout &layout, page_labels &labels, xml_writer &xml) {
    for (const page_degree &degree : page_degrees(layout)) {
        const page_point at = degree.at;
        const double inside = TICK_MM + 0.8;
        page_text text = {{at.x + inside, at.y + 0.35 * PAGE_FONT_MM}, "start", degree.text};
        page_point tick = {at.x + TICK_MM, at.y};
        if (!degree.latitude) {
            text.at = {at.x, at.y - inside};
            text.anchor = "middle";
            tick = {at.x, at.y - TICK_MM};
        }
        // A text that its neighbours or the corner would cut is left out, its tick stays.
        write_line(at, tick, INK, "0.25", "none", xml);
        if (labels.put(text))
            write_text(text, xml);
    }
}

void write_scale_and_legend(const page_layout &layout, double length_m, xml_writer &xml) {
    const double left = layout.frame.left;
    const double y = layout.frame.bottom + 5;
    const double half = length_m / layout.metres_per_mm / 2;
    for (const int part : {0, 1})
        write_box({left + part * half, y - 1.4, left + (part + 1) * half, y},
                  part == 0 ? INK : "#ffffff", INK, "0.25", xml);
    write_plain(left, y + 4, "start", "0", xml);
    write_plain(left + 2 * half, y + 4, "middle", length_text(length_m), xml);

    const double row = y - 0.2;
    const double right = layout.frame.right;
    write_start_mark({right - 101, row - 0.9}, xml);
    write_plain(right - 98, row + 0.2, "start", "start", xml);
    write_end_mark({right - 85, row - 0.9}, MARK_MM, xml);
    write_plain(right - 82, row + 0.2, "start", "end", xml);
    write_time_dot({right - 71, row - 0.9}, xml);
    write_plain(right - 68.5, row + 0.2, "start", "local time", xml);
    write_pause_line({right - 47, row - 0.9}, {right - 38, row - 0.9}, xml);
    write_plain(right - 36, row + 0.2, "start", "no positions logged", xml);
    write_plain(right, y + 5, "end", "north is up; squares of " + length_text(length_m), xml);
}

void write_head(const page_layout &layout, const track_summary &sum, xml_writer &xml) {
    const double left = layout.frame.left;
    const double above = layout.frame.top;
    xml.text("text", "Location history",
             {{"x", mm(left)}, {"y", mm(above - 13)}, {"font-size", "5"}, {"fill", INK}});
    if (sum.first == nullptr)
        return;
    write_plain(left, above - 7.5, "start",
                date_text(*sum.first) + " to " + date_text(*sum.last) +
                    ", local time of the terminal (" + zone_text(*sum.first) + ")",
                xml);
    std::array<char, 96> text{};
    const size_t pauses = sum.gaps.size();
    std::snprintf(text.data(), text.size(), "%zu position%s, %.2f km along the track, %zu pause%s",
                  sum.positions, sum.positions == 1 ? "" : "s", sum.distance_m / 1000, pauses,
                  pauses == 1 ? "" : "s");
    write_plain(left, above - 2.8, "start", text.data(), xml);
}

void write_lines(const page_layout &layout, xml_writer &xml, const track_progress &progress) {
    for (size_t i = 1; i < layout.lines.size(); ++i)
        write_pause_line(layout.lines[i - 1].back(), layout.lines[i].front(), xml);
    for (size_t i = 0; i < layout.lines.size(); ++i) {
        const std::vector<page_point> &line = layout.lines[i];
        const auto place = [](page_point at) { return mm(at.x) + " " + mm(at.y); };
        // A line without length is drawn as a dot by its round ends.
        std::string points = "M" + place(line.front()) + "L" + place(line.front());
        for (size_t k = 1; k < line.size(); ++k) {
            // Some lines of text, for editors that dislike long ones.
            points += (k % 8 == 0 ? "\n" : " ") + place(line[k]);
        }
        xml.empty("path", {{"fill", "none"},
                           {"stroke", TRACK},
                           {"stroke-width", "0.7"},
                           {"stroke-linejoin", "round"},
                           {"stroke-linecap", "round"},
                           {"d", points}});
        progress(static_cast<double>(i) / static_cast<double>(layout.lines.size()));
    }
}

// The middle of each pause and how long it was.
void write_pause_texts(const track_summary &sum, const page_layout &layout, page_labels &labels,
                       xml_writer &xml) {
    for (size_t i = 1; i < layout.lines.size(); ++i) {
        const page_point from = layout.lines[i - 1].back();
        const page_point to = layout.lines[i].front();
        const int64_t pause = sum.gaps[i - 1].to - sum.gaps[i - 1].from;
        page_text text;
        if (labels.place({(from.x + to.x) / 2, (from.y + to.y) / 2},
                         pause < 0 ? "clock set back" : "pause " + duration_text(pause), &text))
            write_text(text, xml);
    }
}

void write_map(const track &all, const page_layout &layout, const track_summary &sum,
               xml_writer &xml, const track_progress &progress) {
    const double scale_m = page_round_length(LONGEST_SCALE_MM * layout.metres_per_mm);
    write_grid(layout, scale_m / layout.metres_per_mm, xml);
    write_scale_and_legend(layout, scale_m, xml);
    write_lines(layout, xml, progress);

    page_labels labels(layout);
    write_degrees(layout, labels, xml);
    const page_point start = layout.lines.front().front();
    const page_point end = layout.lines.back().back();
    // Where both are at one place the end shows around the start.
    const bool together = std::hypot(start.x - end.x, start.y - end.y) < 2 * MARK_MM;
    const double end_half = together ? LARGE_MARK_MM : MARK_MM;
    labels.keep_free(around(start, MARK_MM));
    labels.keep_free(around(end, 0.8 * end_half));
    page_text text;
    if (labels.place(start, "start " + date_text(*sum.first).substr(11), &text))
        write_text(text, xml);
    if (labels.place(end, "end " + date_text(*sum.last).substr(11), &text))
        write_text(text, xml);
    write_pause_texts(sum, layout, labels, xml);
    for (const page_time &time : page_times(all, layout)) {
        if (labels.place(time.at, time.text, &text)) {
            write_time_dot(time.at, xml);
            write_text(text, xml);
        }
    }
    write_end_mark(end, end_half, xml);
    write_start_mark(start, xml);
}

} // namespace

void track_write_svg(const track &all, int64_t gap_s, FILE *out, const track_progress &progress) {
    const page_layout layout = page_lay_out(all, gap_s);
    const std::string width = xml_number(layout.width, 0);
    const std::string height = xml_number(layout.height, 0);
    xml_writer xml(out);
    xml.open("svg", {{"xmlns", "http://www.w3.org/2000/svg"},
                     {"version", "1.1"},
                     {"width", width + "mm"},
                     {"height", height + "mm"},
                     {"viewBox", "0 0 " + width + " " + height},
                     {"font-family", "sans-serif"},
                     {"font-size", xml_number(PAGE_FONT_MM, 1)}});
    xml.text("title", "Location history");
    xml.empty("rect", {{"width", width}, {"height", height}, {"fill", "#ffffff"}});
    const track_summary sum = track_summarise(all, gap_s);
    write_head(layout, sum, xml);
    if (sum.first == nullptr)
        write_plain(layout.width / 2, layout.height / 2, "middle", "No positions", xml);
    else
        write_map(all, layout, sum, xml, progress);
}
