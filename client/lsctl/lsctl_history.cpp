// lsctl history: has the history exported, and prints it or turns it into a file of another format.
#include "lsctl_text.h"

#include <array>
#include <ctime>

#include <CLI/CLI.hpp>

#include "lsctl_history_file.h"
#include "track.h"

namespace {

struct format {
    const char *name;
    track_writer write;
};

constexpr std::array<format, 7> FORMATS = {{
    {"text", track_write_lines},
    {"csv", track_write_csv},
    {"json", track_write_json},
    {"gpx", track_write_gpx},
    {"kml", track_write_kml},
    {"geojson", track_write_geojson},
    {"svg", track_write_svg},
}};

struct history_command {
    // As typed.
    std::string format_name;
    std::string since;
    std::string until;
    std::string output;
    std::string root;
    std::string input;
    int64_t gap_s = 0;

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;

  private:
    const format &chosen_format(const lsctl_options &options) const;
    // Where the exported file is, or an exit status other than 0. *incomplete: the service could
    // not write all of it.
    int have_exported(const lsctl_options &options, std::string *path, bool *incomplete) const;
    track_range wanted_range() const;
};

std::string check_time(const std::string &text) {
    int64_t utc = 0;
    return track_parse_time(text, 0, false, &utc)
               ? std::string()
               : "'" + text + "' is neither YYYY-MM-DD[ HH:MM[:SS]], HH:MM[:SS] nor an age (90m)";
}

const format &history_command::chosen_format(const lsctl_options &options) const {
    const std::string name = !format_name.empty() ? format_name : options.json ? "json" : "text";
    for (const format &each : FORMATS)
        if (name == each.name)
            return each;
    return FORMATS.front();
}

int history_command::have_exported(const lsctl_options &options, std::string *path,
                                   bool *incomplete) const {
    if (!input.empty()) {
        *path = input;
        return LSCTL_OK;
    }
    const lsctl_link link(options.as);
    if (link.result != LOCATION_ANSWERED)
        return lsctl_fail(options, link.result);
    ls_history_path_reply reply{};
    const location_result result =
        location_client_get_history_path(link.client, lsctl_timeout(options), &reply);
    *incomplete = result == LOCATION_FAILED && reply.status == 255;
    if (result == LOCATION_FAILED && !*incomplete) {
        return lsctl_fail(options, result,
                          "the location service could not export its history: there is none yet, "
                          "its file is damaged, or its disk is full; the service's log says which");
    }
    if (result != LOCATION_ANSWERED && !*incomplete)
        return lsctl_fail(options, result, link.client);
    *path = root + reply.path;
    return LSCTL_OK;
}

int fail(const lsctl_options &options, const std::string &sentence) {
    return lsctl_fail(options, LOCATION_FAILED, sentence);
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
                   "2d); local time")
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
    app.add_option("--root", root, "Directory of a simulated terminal, before the service's path")
        ->option_text("DIR (environment: LSCTL_ROOT)")
        ->envname("LSCTL_ROOT");
    app.add_option("--input", input, "Read this exported file instead of asking the service")
        ->option_text("FILE");
}

int history_command::run(const lsctl_options &options) const {
    if (options.json && !format_name.empty() && format_name != "json") {
        lsctl_complain("--json and --format " + format_name + " exclude each other");
        return LSCTL_USAGE;
    }
    const track_range range = wanted_range();
    if (range.since > range.until) {
        lsctl_complain("--since is later than --until");
        return LSCTL_USAGE;
    }
    std::string path;
    bool incomplete = false;
    if (const int status = have_exported(options, &path, &incomplete); status != LSCTL_OK)
        return status;
    std::string text;
    const auto ended = [] { return lsctl_signals_last() != 0; };
    if (const std::string error = history_read(path, lsctl_timeout(options), ended, &text);
        !error.empty()) {
        return ended() ? lsctl_exit_of(LOCATION_CANCELLED)
                       : fail(options, "the exported history cannot be read: " + error +
                                           (root.empty() && input.empty()
                                                ? "; for a simulated terminal give --root DIR"
                                                : ""));
    }

    const format &to = chosen_format(options);
    std::string error;
    track all;
    {
        history_progress progress(text.size());
        all = track_parse(
            text, range, [&](double part) { progress.show("Reading", part); });
        error = history_write(output, [&](FILE *out) {
            to.write(all, gap_s, out, [&](double part) { progress.show("Writing", part); });
        });
    }
    if (!error.empty()) {
        lsctl_complain("cannot write " + error);
        return LSCTL_FAILED;
    }
    const bool needs_places = to.write != track_write_lines && to.write != track_write_csv &&
                              to.write != track_write_json;
    tell_what_was_left_out(all, needs_places);
    if (incomplete) {
        lsctl_complain("the location service could not write all of its export: lines are missing");
        return LSCTL_FAILED;
    }
    return LSCTL_OK;
}

} // namespace

lsctl_runner lsctl_history(CLI::App &app) {
    return lsctl_make<history_command>(app);
}
