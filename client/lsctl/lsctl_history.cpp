// lsctl history: has the history exported, and prints it or turns it into a file of another format.
#include "lsctl_history.h"

#include <array>
#include <ctime>

#include <CLI/CLI.hpp>

#include "lsctl_history_file.h"
#include "lsctl_terminal.h"
#include "lsctl_text.h"
#include "lsctl_usage.h"

namespace {

struct format {
    const char *name;
    track_writer write;
    history_line line; // null: it cannot be written line by line
};

constexpr std::array<format, 7> FORMATS = {{
    {"text", track_write_lines, track_line_text},
    {"csv", track_write_csv, nullptr},
    {"json", track_write_json, track_line_json},
    {"gpx", track_write_gpx, nullptr},
    {"kml", track_write_kml, nullptr},
    {"geojson", track_write_geojson, nullptr},
    {"svg", track_write_svg, nullptr},
}};

struct history_command {
    // As typed.
    std::string format_name;
    std::string since;
    std::string until;
    std::string output;
    history_source source;
    int64_t gap_s = 0;
    bool follow = false;
    bool summary = false;

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;

  private:
    std::string usage_problem(const lsctl_options &options) const;
    const format &chosen_format(const lsctl_options &options) const;
    track_range wanted_range() const;
    int write(const lsctl_options &options, const std::string &text, bool incomplete) const;
};

std::string check_time(const std::string &text) {
    int64_t utc = 0;
    return track_parse_time(text, 0, false, &utc)
               ? std::string()
               : "'" + text +
                     "' is neither YYYY-MM-DD[ HH:MM[:SS]] with or without Z or an offset "
                     "(+01:00), HH:MM[:SS] nor an age (90m)";
}

const format &history_command::chosen_format(const lsctl_options &options) const {
    const std::string name = !format_name.empty() ? format_name : options.json ? "json" : "text";
    for (const format &each : FORMATS)
        if (name == each.name)
            return each;
    return FORMATS.front();
}

track_range history_command::wanted_range() const {
    track_range range;
    const int64_t now = time(nullptr);
    if (!since.empty())
        track_parse_time(since, now, false, &range.since);
    if (!until.empty())
        track_parse_time(until, now, true, &range.until);
    return range;
}

void tell_what_was_left_out(const track &all, bool needs_places) {
    if (all.bad_lines != 0) {
        lsctl_complain(lsctl_format("%zu line%s skipped: cut or damaged%s", all.bad_lines,
                                    all.bad_lines == 1 ? "" : "s",
                                    all.first_bad ? " (the first one is the oldest, which the "
                                                    "newest may have overwritten in part)"
                                                  : ""));
    }
    size_t unplaced = 0;
    for (const track_point &point : all.points)
        unplaced += point.placed ? 0 : 1;
    if (needs_places && unplaced != 0) {
        lsctl_complain(lsctl_format("%zu line%s without a place left out", unplaced,
                                    unplaced == 1 ? "" : "s"));
    }
}

void history_command::add_options(CLI::App &app) {
    std::vector<std::string> names;
    names.reserve(std::size(FORMATS));
    for (const format &each : FORMATS)
        names.emplace_back(each.name);
    app.add_option("-f,--format", format_name, "The lines as they are, or another format")
        ->option_text("text|csv|json|gpx|kml|geojson|svg [text]")
        ->check(CLI::IsMember(names));
    app.add_option("--since", since,
                   "Nothing older: YYYY-MM-DD[ HH:MM[:SS]], HH:MM[:SS] of today, or an age (90m, "
                   "2d); local time, or with Z or an offset")
        ->option_text("TIME")
        ->check(check_time);
    app.add_option("--until", until, "Nothing newer; a day alone means all of it")
        ->option_text("TIME")
        ->check(check_time);
    app.add_option("-o,--output", output, "Write to this file (default: standard output)")
        ->option_text("FILE");
    app.add_option("--gap", gap_s,
                   "Steps longer than this are pauses (default: those much longer than usual)")
        ->option_text("SECONDS")
        ->check(CLI::Range(1, 31'536'000));
    app.add_option("--root", source.root,
                   "Directory of a simulated terminal, before the service's path")
        ->option_text("DIR (environment: LOCATION_TERMINAL_ROOT)");
    app.add_option("--input", source.input, "Read this exported file instead of asking the service")
        ->option_text("FILE");
    app.add_flag("--follow", follow, "Print what is recorded from now on, too, until a signal");
    app.add_flag("--summary", summary, "Distance, times, bounding box and gaps instead of lines");
}

// What goes together with what; empty = all right.
std::string history_command::usage_problem(const lsctl_options &options) const {
    const bool json_only = options.json && !format_name.empty() && format_name != "json";
    if (json_only)
        return "--json and --format " + format_name + " exclude each other";
    if (summary && !format_name.empty() && format_name != "json" && format_name != "text")
        return "--summary is text or json";
    if (follow && (summary || !output.empty() || !source.input.empty() || !until.empty()))
        return "--follow goes with none of --summary, --output, --input and --until";
    if (follow && chosen_format(options).line == nullptr)
        return "--follow prints text or json";
    const track_range range = wanted_range();
    return range.since > range.until ? "--since is later than --until" : "";
}

int history_command::run(const lsctl_options &options) const {
    if (const std::string problem = usage_problem(options); !problem.empty())
        return lsctl_usage_error(options.json, problem);
    history_source from = source;
    if (from.root.empty())
        from.root = lsctl_terminal_root();
    if (follow) {
        lsctl_options streamed = options;
        streamed.stream = true;
        streamed.json = options.json || format_name == "json";
        return history_follow(streamed, from, chosen_format(options).line, wanted_range());
    }
    std::string text;
    bool incomplete = false;
    if (const int status = history_load(options, from, &text, &incomplete); status != LSCTL_OK)
        return status;
    if (text.empty() && !incomplete) {
        lsctl_complain(from.input.empty() ? "nothing is recorded: " + history_why_nothing(from)
                                          : from.input + " is empty");
    }
    return write(options, text, incomplete);
}

// `text`: the whole export.
int history_command::write(const lsctl_options &options, const std::string &text,
                           bool incomplete) const {
    history_progress progress(text.size());
    track all =
        track_parse(text, wanted_range(), [&](double part) { progress.show("Reading", part); });
    if (incomplete)
        all.incomplete =
            "the location service could not write all of its export: lines are missing";
    const bool any = !all.points.empty() || all.out_of_range != 0;
    if (!source.input.empty() && !any && all.bad_lines != 0) {
        return lsctl_fail_as(options, "not_history", LSCTL_FAILED,
                             source.input + " is no exported location history");
    }
    if (all.points.empty() && all.out_of_range != 0) {
        lsctl_complain(lsctl_format("none of the %zu recorded positions is between --since and "
                                    "--until",
                                    all.out_of_range));
    }
    const format &to = chosen_format(options);
    const bool as_json = options.json || to.write == track_write_json;
    const history_error error = history_write(output, [&](FILE *out) {
        const auto told = [&](double part) { progress.show("Writing", part); };
        if (summary)
            history_write_summary(all, gap_s, as_json, out);
        else
            to.write(all, gap_s, out, told);
    });
    if (output.empty() && !error.none()) {
        lsctl_output_failed(error.code);
        return LSCTL_FAILED;
    }
    if (!error.none())
        return lsctl_fail_as(options, "not_written", LSCTL_FAILED, "cannot write " + error.text);
    const bool needs_places =
        summary || (to.write != track_write_lines && to.write != track_write_csv && !as_json);
    tell_what_was_left_out(all, needs_places);
    if (incomplete) {
        lsctl_complain(all.incomplete);
        return LSCTL_FAILED;
    }
    return LSCTL_OK;
}

} // namespace

lsctl_runner lsctl_history(CLI::App &app) {
    return lsctl_make<history_command>(app);
}
