// simterm: a directory that behaves like a terminal. The command line; everything else is in
// terminal_run.
#include "options.h"
#include "run.h"
#include "terminal.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr int USAGE = 2;

void add_run(CLI::App &app, sim::terminal_options &options) {
    CLI::App *run = app.add_subcommand("run", "Bring a terminal up and keep it running");
    run->add_option("DIR", options.directory, "Directory of the terminal; made when missing")
        ->required();
    run->add_option("--board", options.board,
                    "Board type: 1 receiver on the serial line, 2 receiver behind the TA (new: 1)")
        ->check(CLI::IsMember({1, 2}))
        ->option_text("1|2");
    auto *truth = run->add_option_group("truth", "What the receiver sees");
    truth->add_option("--replay", options.replay, "Recording of a real receiver, NMEA lines")
        ->check(CLI::ExistingFile)
        ->option_text("FILE");
    truth->add_option("--route", options.route, "Route file: SECONDS LATITUDE LONGITUDE [ALTITUDE]")
        ->check(CLI::ExistingFile)
        ->option_text("FILE");
    truth->add_option("--place", options.place, "Fixed place, south and west negative")
        ->option_text("LAT,LON[,ALT]");
    truth->require_option(0, 1);
    run->add_option("--baud", options.baud, "Speed of the serial line, 0 = takes no time")
        ->check(CLI::Range(0U, 4000000U))
        ->option_text("RATE [9600]");
    run->add_option("--power-status", options.power_status,
                    "Stored power-on status: 0 and 1 off, 2 on (new: 2)")
        ->check(CLI::Range(0, 2))
        ->option_text("0|1|2");
    run->add_option("--antenna", options.antenna, "Stored antenna type; 4 serves requests (new: 4)")
        ->check(CLI::NonNegativeNumber)
        ->option_text("TYPE");
    run->add_option_function<std::string>(
           "--history", [&options](const std::string &text) { options.history = text == "on"; },
           "Location history (new: off)")
        ->check(CLI::IsMember({"on", "off"}))
        ->option_text("on|off");
    run->add_option("--history-interval", options.history_interval,
                    "Seconds between history entries (new: 60)")
        ->check(CLI::PositiveNumber)
        ->option_text("SECONDS");
    run->add_option("--startup", options.startup_s, "Seconds from power-on until it listens")
        ->check(CLI::Range(0.0, 3600.0))
        ->option_text("SECONDS [0]");
    run->add_option("--ttff", options.ttff, "Seconds to the first fix")
        ->option_text("COLD,WARM,HOT");
    run->add_flag("--instant-fix", options.instant_fix, "A fix from the first epoch on");
    run->add_flag("--blank-receiver", options.blank_receiver,
                  "Forget the receiver's battery memory and configuration: it talks unasked");
    run->add_option("--fault", options.faults, "Fault to start with; may be repeated")
        ->allow_extra_args(false)
        ->option_text("NAME[=ARG]");
    run->add_option("--log-level", options.log_level, "Level of log/terminal.log (new: info)")
        ->check(CLI::IsMember({"error", "warning", "info", "debug"}))
        ->option_text("error|warning|info|debug");
    run->add_option("--daemon", options.daemon, "Daemon to start inside")
        ->check(CLI::ExistingFile)
        ->option_text("FILE");
    run->add_flag("--keep", options.keep,
                  "Stay when the daemon dies: simterm ctl DIR start-daemon");
    run->add_flag_callback(
        "--no-services", [&options] { options.services = false; },
        "Without the TA, SAL, VoIP and WS stand-ins");
    run->add_flag("--verbose", options.verbose, "Show every exchange");
    run->add_option("COMMAND", options.command, "Command to run inside, behind --; ends the run");
    run->positionals_at_end(false);
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"A terminal on a workstation", "simterm"};
    app.set_version_flag("--version", "simterm " SIMTERM_VERSION);
    app.require_subcommand(1);
    sim::terminal_options options;
    add_run(app, options);
    std::string directory;
    std::vector<std::string> words;
    CLI::App *ctl = app.add_subcommand("ctl", "Ask a running terminal; \"help\" lists what");
    ctl->add_option("DIR", directory, "Directory of the terminal")->required();
    ctl->add_option("WORDS", words, "status, faults, fault NAME [ARG] on|off, power, ...")
        ->required()
        ->option_text("...");
    ctl->prefix_command(false);
    CLI::App *env =
        app.add_subcommand("env", "Print its environment, for a shell: eval \"$(...)\"");
    env->add_option("DIR", directory, "Directory of the terminal")->required();
    try {
        app.parse(argc, argv);
        if (env->parsed())
            return sim::terminal_env(directory);
        if (ctl->parsed())
            return sim::terminal_ctl(directory, words);
        // Before anything is made: a typing error leaves no directory behind.
        if (std::string error; !sim::terminal_check(options, error)) {
            std::cerr << "simterm: " << error << "\n";
            return USAGE;
        }
        return sim::terminal_run(options);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : USAGE;
    } catch (const std::exception &error) {
        std::cerr << "simterm: " << error.what() << "\n";
        return 1;
    }
}
