// lsctl: the table of sub-commands and the command line.
#include "lsctl.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <exception>

#include <CLI/CLI.hpp>

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
    lsctl_command{"nmea", "Send an NMEA sentence to the receiver", lsctl_nmea},
    lsctl_command{"ubx", "Send a UBX frame to the receiver", lsctl_ubx},
    lsctl_command{"lpp", "LPP location parameters, asked as SAL", lsctl_lpp},
    lsctl_command{"history", "The location history, as lines, table, map file or drawing",
                  lsctl_history},
    lsctl_command{"settings", "Show or change the stored settings", lsctl_settings},
};

constexpr const char *FOOTER =
    "Exit status: 0 answered with success, 1 answered with failure, 2 wrong usage, 3 no answer.";

void add_common_options(CLI::App &app, lsctl_options &options) {
    app.add_flag("--json", options.json, "JSON objects instead of text");
    app.add_option("--timeout", options.timeout_s, "Longest wait for an answer")
        ->option_text("SECONDS [20]")
        ->check(CLI::Range(0.05, 3600.0));
    app.add_option("--as", options.as,
                   "Service id to act as (default: the first free one of 32 to 63)")
        ->option_text("SERVICE")
        ->check(CLI::Range(1, 255))
        ->check([](const std::string &text) {
            return text == "8" ? std::string("8 is the location service itself") : std::string();
        });
}

int run_parsed(int argc, const char *const *argv) {
    lsctl_options options;
    CLI::App app("Ask the location service of this terminal", "lsctl");
    app.footer(FOOTER);
    app.set_version_flag("--version", "lsctl " LSCTL_VERSION);
    app.require_subcommand(1);
    lsctl_runner chosen;
    for (const lsctl_command &command : COMMANDS) {
        CLI::App *sub = app.add_subcommand(command.name, command.help);
        add_common_options(*sub, options);
        sub->callback([&chosen, runner = command.make(*sub)] { chosen = runner; });
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        // Help and version are "errors" with status 0.
        return app.exit(error) == 0 ? LSCTL_OK : LSCTL_USAGE;
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
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    std::clearerr(stdout);
    // A closed pipe is seen where the line is written.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return run_parsed(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "lsctl: %s\n", error.what());
    } catch (...) {
        std::fputs("lsctl: unknown failure\n", stderr);
    }
    lsctl_signals_stop();
    return LSCTL_NO_ANSWER;
}
