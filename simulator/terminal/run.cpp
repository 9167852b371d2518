#include "run.h"

#include "children.h"
#include "control.h"
#include "environment.h"
#include "loop.h"
#include "ls_descriptor.h"
#include "say.h"
#include "services.h"
#include "settings.h"
#include "terminal.h"
#include "tree.h"
#include "verbs.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <unistd.h>

namespace sim {
namespace {

// What the run is about; the one thread of the loop owns it.
terminal_paths paths;
bool stop_wanted = false;

constexpr int CTL_PATIENCE_S = 60;      // longer than stopping and starting a daemon may take
constexpr double READY_PATIENCE_S = 20; // configuring a receiver that answers takes 2 s

void tell(const char *service, const std::string &what) {
    say_detail("%-4s %s", service, what.c_str());
}

constexpr services_host AROUND_SERVICES{
    .now = loop_now,
    .watch = loop_watch,
    .forget = loop_forget,
    .add_timer = loop_add_timer,
    .line_send = terminal_line_send,
    .faults = terminal_ta_faults,
    .tell = tell,
};

std::string status() {
    terminal_step();
    return terminal_describe() + "settings  " + settings_describe() + "\ndaemon    " +
           children_describe() + "\n";
}

bool bring_up(const terminal_options &options, int &lock, std::string &error) {
    bool fresh = false;
    int board = 0;
    lock = tree_make(options.directory, paths, fresh, error);
    if (lock < 0 || !tree_configure(paths, options, board, error))
        return false;
    if (!environment_set(paths)) {
        error = "setting the environment failed";
        return false;
    }
    if (!environment_write(paths, error) || !settings_apply(options, fresh, error))
        return false;
    say_plain("simulated terminal %s, board type %d", paths.root.c_str(), board);
    say_plain("  settings   user/settings.db: %s", settings_describe().c_str());
    say_plain("  bus        bus/            log  log/terminal.log");
    verbs_use({.status = status,
               .faults = terminal_faults,
               .power = terminal_power,
               .fault = terminal_fault,
               .have_daemon = children_have_daemon,
               .daemon_running = children_daemon_running});
    int32_t antenna = 0;
    return terminal_up(options, paths, board, error) &&
           (!options.services ||
            (settings_antenna(antenna, error) &&
             services_open(AROUND_SERVICES, board, antenna, paths.bus, paths.services, error))) &&
           control_open({.watch = loop_watch, .forget = loop_forget}, paths.control, verbs_handle,
                        error);
}

// Starts the daemon and waits until it serves requests. With a receiver that does not answer it
// takes more than a minute to come up; then the run goes on without waiting for that.
bool start_daemon(std::string &error) {
    services_forget_ready();
    if (!children_start_daemon(error, [] { return stop_wanted; }))
        return false;
    if (!services_are_open())
        return true;
    const auto enough = [] {
        return services_daemon_ready() || stop_wanted || children_daemon_died();
    };
    if (!loop_until(enough, loop_now() + READY_PATIENCE_S))
        say_event("daemon is still starting");
    else if (services_daemon_ready())
        say_event("daemon is ready");
    return true;
}

// Does to the daemon what was asked by `simterm ctl`. False: the run ends.
bool grant(const terminal_options &options, daemon_wish wish) {
    std::string error;
    if (wish == daemon_wish::kill) {
        children_kill_daemon();
        verbs_daemon_done(true, "");
        return true;
    }
    const bool orderly = wish == daemon_wish::start || children_stop_daemon();
    const bool started = start_daemon(error);
    if (!started)
        children_forget_death(); // start_daemon has said it
    verbs_daemon_done(orderly && started, started ? "the daemon did not stop in order" : error);
    if (started || options.keep || wish == daemon_wish::start)
        return true;
    say_error("%s", error.c_str());
    return false;
}

// Until the command has ended, the daemon has died for good, or somebody wants to stop. The exit
// status.
int stay(const terminal_options &options) {
    for (;;) {
        loop_until(
            [] {
                return stop_wanted || children_daemon_died() || children_command_ended() ||
                       verbs_daemon_wish() != daemon_wish::none;
            },
            std::nullopt);
        if (children_daemon_died()) {
            children_report_death();
            if (!options.keep)
                return EXIT_FAILURE;
            children_forget_death();
        }
        if (children_command_ended())
            return children_command_status();
        if (stop_wanted) {
            say_event("stopping");
            return EXIT_SUCCESS;
        }
        const daemon_wish wish = verbs_daemon_wish();
        if (wish != daemon_wish::none && !grant(options, wish))
            return EXIT_FAILURE;
    }
}

} // namespace

int terminal_run(const terminal_options &options) {
    say_to_stderr(!options.command.empty());
    say_verbose(options.verbose);
    std::string error;
    int lock = -1;
    int status = EXIT_FAILURE;
    children_use(options, paths);
    bool up =
        children_watch_signals([] { stop_wanted = true; }, error) && bring_up(options, lock, error);
    if (up && !options.daemon.empty() && !start_daemon(error)) {
        up = options.keep;
        if (up) {
            say_error("%s", error.c_str());
            children_forget_death();
        }
    }
    if (up && !stop_wanted && !options.command.empty())
        up = children_start_command(error);
    if (up) {
        if (options.command.empty())
            say_plain("running; stop with Ctrl-C or SIGTERM");
        status = stay(options);
    } else {
        say_error("%s", error.c_str());
    }
    const bool orderly = children_stop_all();
    control_close();
    services_close();
    terminal_down();
    children_close();
    loop_close();
    ls_close(lock);
    return status == EXIT_SUCCESS && !orderly ? EXIT_FAILURE : status;
}

int terminal_env(const std::string &directory) {
    const terminal_paths asked = tree_paths(tree_root(directory));
    if (access(asked.marker.c_str(), F_OK) != 0) {
        say_error("%s is no simulated terminal", directory.c_str());
        return EXIT_FAILURE;
    }
    std::fputs(environment_text(asked).c_str(), stdout);
    return std::fflush(stdout) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

int terminal_ctl(const std::string &directory, const std::vector<std::string> &words) {
    std::string answer;
    const control_result result =
        control_ask(tree_paths(directory).control, words, CTL_PATIENCE_S, answer);
    if (result == control_result::ok) {
        std::fputs(answer.c_str(), stdout);
        return 0;
    }
    while (answer.ends_with('\n'))
        answer.pop_back();
    say_error("%s", answer.c_str());
    return result == control_result::refused ? 1 : 3;
}

} // namespace sim
