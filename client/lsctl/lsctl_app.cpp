// lsctl: the table of sub-commands and the command line.
#include "lsctl.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <exception>
#include <sstream>
#include <string_view>

#include <CLI/CLI.hpp>

#include "lsctl_bus.h"
#include "lsctl_terminal.h"
#include "lsctl_usage.h"

namespace {

struct lsctl_command {
    const char *name;
    const char *help;
    lsctl_maker make;
};

constexpr std::array COMMANDS = {
    lsctl_command{"position", "Position, fix and accuracy", lsctl_position},
    lsctl_command{"time", "UTC date, time and time of week", lsctl_time},
    lsctl_command{"satellites", "Satellites in view and used", lsctl_satellites},
    lsctl_command{"speed", "Speed over ground", lsctl_speed},
    lsctl_command{"power", "Show or change the receiver's power mode", lsctl_power},
    lsctl_command{"watch", "Position updates as they come", lsctl_watch},
    lsctl_command{"stream", "Positions for programs that read a receiver, or gpsd", lsctl_stream},
    lsctl_command{"monitor", "Position, satellites and errors on a full screen", lsctl_monitor},
    lsctl_command{"nmea", "Send an NMEA sentence to the receiver", lsctl_nmea},
    lsctl_command{"ubx", "Send a UBX frame to the receiver", lsctl_ubx},
    lsctl_command{"lpp", "LPP location parameters, asked as SAL", lsctl_lpp},
    lsctl_command{"history", "The location history, as lines, table, map file or drawing",
                  lsctl_history},
    lsctl_command{"settings", "Show or change the stored settings", lsctl_settings},
    lsctl_command{"static", "Show, set or end the static location", lsctl_static},
    lsctl_command{"status", "Whether service and receiver are well, in one look", lsctl_status},
    lsctl_command{"wait", "Wait until the service answers, or has a fix", lsctl_wait},
    lsctl_command{"doctor", "What is wrong and what to do; a bundle for support", lsctl_doctor},
};

constexpr const char *FOOTER =
    "Exit status: 0 answered with success, 1 answered with failure, 2 wrong usage, 3 no answer.";

void add_terminal_option(CLI::App &app, std::string &directory) {
    app.add_option("--terminal", directory, "Simulated terminal to ask instead of this machine")
        ->option_text("DIR")
        ->check(lsctl_terminal_problem);
}

// A service by name becomes its number.
std::string service_number(const std::string &typed) {
    const uint32_t id = lsctl_service_id(typed);
    return id == 0 ? typed : std::to_string(id);
}

void add_common_options(CLI::App &app, lsctl_options &options) {
    app.add_flag("--json", options.json, "JSON objects instead of text");
    app.add_option("--timeout", options.timeout_s, "Longest wait for an answer")
        ->option_text("SECONDS [20]")
        ->check(CLI::Range(0.05, 3600.0));
    app.add_option(
           "--as", options.as,
           "Service to act as, its id or SAL, VoIP, WS, TA (default: the first free one of 32 to "
           "63)")
        ->option_text("SERVICE")
        ->transform(service_number)
        ->check([](const std::string &text) {
            return CLI::Range(1, 255)(text).empty()
                       ? std::string()
                       : "'" + text +
                             "' is neither a service id, 1 to 255, nor SAL, VoIP, WS or TA";
        })
        ->check([](const std::string &text) {
            return text == "8" ? std::string("8 is the location service itself") : std::string();
        });
}

// The first word that is no option of lsctl itself: the command, or what was meant to be one.
std::string command_word(const std::vector<std::string_view> &words) {
    for (size_t i = 0; i < words.size(); ++i)
        if (words[i] == "--terminal")
            ++i;
        else if (!words[i].starts_with("-"))
            return std::string(words[i]);
    return "";
}

std::string did_you_mean(const std::string &nearest) {
    return nearest.empty() ? "" : "; did you mean '" + nearest + "'?";
}

// One sentence for people, better than the parser's own where a word was mistyped.
std::string usage_sentence(CLI::App &app, const CLI::ParseError &error, const std::string &word) {
    std::vector<std::string> names(COMMANDS.size());
    std::transform(COMMANDS.begin(), COMMANDS.end(), names.begin(),
                   [](const lsctl_command &command) { return command.name; });
    if (word.empty() && app.remaining().empty())
        return "a command is missing: lsctl --help lists them";
    const bool known = std::find(names.begin(), names.end(), word) != names.end();
    const CLI::App *sub = known ? app.get_subcommand(word) : nullptr;
    if (sub == nullptr && !word.empty()) {
        return "'" + word + "' is no command" + did_you_mean(lsctl_nearest(word, names)) +
               (lsctl_nearest(word, names).empty() ? ": lsctl --help lists them" : "");
    }
    const CLI::App &asked = sub != nullptr ? *sub : app;
    const std::vector<std::string> unknown = app.remaining(true);
    if (dynamic_cast<const CLI::ExtrasError *>(&error) != nullptr && !unknown.empty() &&
        unknown.front().starts_with("-")) {
        names.clear();
        for (const CLI::Option *option : asked.get_options())
            for (const std::string &name : option->get_lnames())
                names.push_back("--" + name);
        const std::string typed = unknown.front().substr(0, unknown.front().find('='));
        if (std::find(names.begin(), names.end(), typed) != names.end())
            return "'" + typed + "' goes behind the command: lsctl " + word + " " + typed;
        return "'" + typed + "' is no option of " + (sub != nullptr ? "lsctl " + word : "lsctl") +
               did_you_mean(lsctl_nearest(typed, names));
    }
    return error.what();
}

int run_parsed(int argc, const char *const *argv) {
    lsctl_options options;
    std::string terminal;
    CLI::App app("Ask the location service of this terminal", "lsctl");
    app.footer(FOOTER);
    app.set_version_flag("--version", "lsctl " LSCTL_VERSION);
    add_terminal_option(app, terminal);
    app.require_subcommand(1);
    lsctl_runner chosen;
    for (const lsctl_command &command : COMMANDS) {
        CLI::App *sub = app.add_subcommand(command.name, command.help);
        add_common_options(*sub, options);
        add_terminal_option(*sub, terminal);
        sub->callback([&chosen, runner = command.make(*sub)] { chosen = runner; });
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        // Help and version are "errors" with status 0.
        std::ostringstream told;
        if (app.exit(error, told, told) == 0)
            return lsctl_print(told.str()) ? LSCTL_OK : LSCTL_FAILED;
        const std::vector<std::string_view> words(argv + 1, argv + argc);
        return lsctl_usage_error(std::find(words.begin(), words.end(), "--json") != words.end(),
                                 usage_sentence(app, error, command_word(words)));
    }
    if (!terminal.empty() && !lsctl_terminal_use(terminal)) {
        lsctl_complain("there is not enough memory");
        return LSCTL_NO_ANSWER;
    }
    if (!lsctl_signals_start()) {
        lsctl_complain("cannot wait for signals");
        return LSCTL_NO_ANSWER;
    }
    const int status = chosen(options);
    lsctl_signals_stop();
    return status;
}

} // namespace

int lsctl_run(int argc, const char *const *argv) noexcept {
    lsctl_output_start();
    // A closed pipe is seen where the line is written.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return lsctl_output_end(run_parsed(argc, argv));
    } catch (const std::exception &error) {
        std::fprintf(stderr, "lsctl: %s\n", error.what());
    } catch (...) {
        std::fputs("lsctl: unknown failure\n", stderr);
    }
    lsctl_signals_stop();
    return LSCTL_NO_ANSWER;
}
