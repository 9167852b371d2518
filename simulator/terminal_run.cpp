#include "terminal_run.h"

#include "control.h"
#include "terminal.h"
#include "terminal_children.h"
#include "terminal_loop.h"
#include "terminal_say.h"
#include "terminal_settings.h"
#include "terminal_tree.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <glib.h>
#include <optional>
#include <unistd.h>

namespace sim {
namespace {

// What the run is about; the one thread of the loop owns it.
terminal_paths paths;
bool stop_wanted = false;
int restart_client = -1; // control client that waits for a restart of the daemon

constexpr int CTL_PATIENCE_S = 60; // longer than stopping and starting a daemon may take

std::optional<control_reply> on_fault(const std::vector<std::string> &words, int) {
    const bool on = words.back() == "on";
    if (words.size() < 3 || words.size() > 4 || (!on && words.back() != "off")) {
        return control_reply{false, "usage: fault NAME [ARG] on|off\n"};
    }
    std::string error;
    if (!terminal_fault(words[1], words.size() == 4 ? words[2] : "", on, error)) {
        return control_reply{false, error + "\n"};
    }
    return control_reply{true, ""};
}

std::optional<control_reply> on_restart(const std::vector<std::string> &, int client) {
    if (!children_have_daemon()) {
        return control_reply{false, "no daemon was started with --daemon\n"};
    }
    if (restart_client >= 0) {
        return control_reply{false, "a restart is under way\n"};
    }
    restart_client = client;
    return std::nullopt;
}

std::optional<control_reply> on_status(const std::vector<std::string> &, int) {
    return control_reply{true, terminal_describe() + "settings  " + settings_describe() + "\n" +
                                   "daemon    " + children_describe() + "\n"};
}

// The words of `simterm ctl`.
struct verb {
    const char *name;
    size_t words; // with the verb; 0 = the handler looks itself
    const char *usage;
    std::optional<control_reply> (*act)(const std::vector<std::string> &words, int client);
};

std::optional<control_reply> on_help(const std::vector<std::string> &words, int client);

constexpr std::array<verb, 6> VERBS{{
    {"status", 1, "status                   everything in a few lines", on_status},
    {"faults", 1, "faults                   every fault and its state",
     [](const std::vector<std::string> &, int) -> std::optional<control_reply> {
         return control_reply{true, terminal_faults()};
     }},
    {"fault", 0, "fault NAME [ARG] on|off  switch a fault", on_fault},
    {"power", 1, "power                    the receiver's power lines",
     [](const std::vector<std::string> &, int) -> std::optional<control_reply> {
         terminal_step();
         return control_reply{true, terminal_power()};
     }},
    {"restart-daemon", 1, "restart-daemon           stop the daemon and start it again",
     on_restart},
    {"help", 1, "help                     this list", on_help},
}};

std::optional<control_reply> on_help(const std::vector<std::string> &, int) {
    std::string text;
    for (const verb &entry : VERBS) {
        text += std::string(entry.usage) + "\n";
    }
    return control_reply{true, text};
}

std::optional<control_reply> on_control(const std::vector<std::string> &words, int client) {
    for (const verb &entry : VERBS) {
        if (!words.empty() && words.front() == entry.name) {
            if (entry.words != 0 && entry.words != words.size()) {
                return control_reply{false, std::string("usage: ") + entry.usage + "\n"};
            }
            return entry.act(words, client);
        }
    }
    return control_reply{false, "unknown request; \"simterm ctl DIR help\" lists them\n"};
}

bool bring_up(const terminal_options &options, int &lock, std::string &error) {
    bool fresh = false;
    int board = 0;
    lock = tree_make(options.directory, paths, fresh, error);
    if (lock < 0 || !tree_configure(paths, options, board, error)) {
        return false;
    }
    // For this process's own platform libraries and for everything started below. No other thread
    // runs yet.
    if (setenv("MQUTILS_DIR", paths.bus.c_str(), 1) != 0 ||
        setenv("DBHANDLER_FILE", paths.settings.c_str(), 1) != 0 ||
        setenv("ZUKHAL_CONF", paths.hal.c_str(), 1) != 0) {
        error = "setting the environment failed";
        return false;
    }
    if (!settings_apply(options, fresh, error)) {
        return false;
    }
    say_plain("simulated terminal %s, board type %d", paths.root.c_str(), board);
    say_plain("  settings   user/settings.db: %s", settings_describe().c_str());
    say_plain("  bus        bus/            log  log/terminal.log");
    return terminal_up(options, paths, board, error) &&
           control_open(paths.control, on_control, error);
}

void answer_restart(bool ok, const std::string &error) {
    control_answer(restart_client, {ok, ok ? "" : error + "\n"});
    restart_client = -1;
}

// Until the command has ended, the daemon has died, or somebody wants to stop. The exit status.
int stay() {
    for (;;) {
        loop_until(
            [] {
                return stop_wanted || children_daemon_died() || children_command_ended() ||
                       restart_client >= 0;
            },
            std::nullopt);
        if (children_daemon_died()) {
            children_report_death();
            return EXIT_FAILURE;
        }
        if (children_command_ended()) {
            return children_command_status();
        }
        if (stop_wanted) {
            say_event("stopping");
            return EXIT_SUCCESS;
        }
        std::string error;
        const bool restarted =
            children_stop_daemon() && children_start_daemon(error, [] { return stop_wanted; });
        answer_restart(restarted, error.empty() ? "the daemon did not stop in order" : error);
        if (!restarted && !error.empty()) {
            say_error("%s", error.c_str());
            return EXIT_FAILURE;
        }
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
    if (up && !options.daemon.empty()) {
        up = children_start_daemon(error, [] { return stop_wanted; });
    }
    if (up && !stop_wanted && !options.command.empty()) {
        up = children_start_command(error);
    }
    if (up) {
        if (options.command.empty()) {
            say_plain("running; stop with Ctrl-C or SIGTERM");
        }
        status = stay();
    } else {
        say_error("%s", error.c_str());
    }
    const bool orderly = children_stop_all();
    control_close();
    terminal_down();
    children_close();
    loop_close();
    if (lock >= 0) {
        close(lock);
    }
    return status == EXIT_SUCCESS && !orderly ? EXIT_FAILURE : status;
}

int terminal_ctl(const std::string &directory, const std::vector<std::string> &words) {
    std::string answer;
    const control_result result =
        control_ask(tree_paths(directory).control, words, CTL_PATIENCE_S, answer);
    if (result == control_result::ok) {
        std::fputs(answer.c_str(), stdout);
        return 0;
    }
    while (answer.ends_with('\n')) {
        answer.pop_back();
    }
    say_error("%s", answer.c_str());
    return result == control_result::refused ? 1 : 3;
}

} // namespace sim
