#include "children.h"

#include "loop.h"
#include "ls_descriptor.h"
#include "process.h"
#include "say.h"
#include "terminal.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace sim {
namespace {

// The children of this run; the one thread of the loop owns them.
const terminal_options *asked = nullptr;
const terminal_paths *where = nullptr;
pid_t daemon_pid = -1;          // -1 = not running
std::optional<int> daemon_end;  // wait status of one that ended without being told to
pid_t command_pid = -1;         // -1 = not running
std::optional<int> command_end; // wait status
bool in_order = true;           // nothing was killed or failed when it was stopped
int signals = -1;               // signalfd

constexpr double BUS_PATIENCE_S = 15;  // a daemon registers first thing
constexpr double STOP_PATIENCE_S = 10; // it may be waiting for the receiver when it is told
constexpr double LOOK_AGAIN_S = 0.02;  // between two looks at the bus
constexpr size_t LAST_LOG_LINES = 12;

bool from_keyboard(const signalfd_siginfo &info) {
    return info.ssi_code == SI_KERNEL;
}

void on_signal(const std::function<void()> &stop) {
    signalfd_siginfo info{};
    while (read(signals, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
        if (info.ssi_signo == SIGCHLD)
            continue; // the wake-up is all that counts: children_* look themselves
        if (info.ssi_signo == SIGINT && from_keyboard(info) && command_pid > 0)
            continue;
        stop();
    }
}

void look_at_children() {
    if (const std::optional<int> ended = process_ended(daemon_pid); ended.has_value()) {
        daemon_pid = -1;
        daemon_end = ended;
    }
    if (const std::optional<int> ended = process_ended(command_pid); ended.has_value()) {
        command_pid = -1;
        command_end = ended;
    }
}

// A live owner accepts a connection; the socket file of a dead one refuses it.
bool on_the_bus() {
    const ls_descriptor directory(open(where->bus.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const ls_descriptor bus(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/8", directory.fd);
    return directory.fd >= 0 && bus.fd >= 0 &&
           connect(bus.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

bool wait_for_bus(const std::function<bool()> &cancelled) {
    const double deadline = loop_now() + BUS_PATIENCE_S;
    while (!on_the_bus()) {
        const bool over = loop_until([&] { return cancelled() || children_daemon_died(); },
                                     loop_now() + LOOK_AGAIN_S);
        if (over || loop_now() >= deadline)
            return cancelled() && !children_daemon_died();
    }
    return true;
}

std::string own_log() {
    std::string text = last_lines(where->log, LAST_LOG_LINES, "    ");
    const std::string output = last_lines(where->daemon_out, LAST_LOG_LINES, "    ");
    if (!text.empty())
        text = "  last lines of log/terminal.log:\n" + text;
    if (!output.empty())
        text += "  last lines of log/daemon.out:\n" + output;
    if (text.ends_with('\n'))
        text.pop_back();
    return text;
}

void report(const char *what, int wait_status) {
    const std::string log = own_log();
    say_error("%s: %s%s%s", what, process_outcome(wait_status).c_str(), log.empty() ? "" : "\n",
              log.c_str());
}

} // namespace

void children_use(const terminal_options &options, const terminal_paths &paths) {
    asked = &options;
    where = &paths;
}

bool children_watch_signals(std::function<void()> stop, std::string &error) {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        sigaddset(&set, number);
    // A parent may have left SIGCHLD ignored, which would take the exit statuses away.
    if (signal(SIGCHLD, SIG_DFL) == SIG_ERR || sigprocmask(SIG_BLOCK, &set, nullptr) != 0 ||
        (signals = signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC)) < 0) {
        error = std::string("taking signals: ") + std::strerror(errno);
        return false;
    }
    loop_watch(signals, [stop = std::move(stop)] { on_signal(stop); });
    return true;
}

bool children_start_daemon(std::string &error, const std::function<bool()> &cancelled) {
    char *const resolved = realpath(asked->daemon.c_str(), nullptr);
    if (resolved == nullptr) {
        error = "starting " + asked->daemon + ": " + std::strerror(errno);
        return false;
    }
    const std::string program = resolved;
    std::free(resolved);
    unlink(where->daemon_out.c_str());
    terminal_step(); // a daemon that has just ended gave its lines back, maybe unseen as yet
    terminal_boot_lines();
    daemon_end.reset();
    daemon_pid = process_start({.arguments = {program},
                                .directory = where->root,
                                .output = where->daemon_out,
                                .own_session = true},
                               error);
    if (daemon_pid < 0)
        return false;
    say_event("daemon started, process %d", static_cast<int>(daemon_pid));
    if (wait_for_bus(cancelled)) {
        say_event("daemon is on the bus");
        return true;
    }
    if (children_daemon_died()) {
        children_report_death();
        error = "the daemon ended before it was on the bus";
    } else {
        error = "the daemon was not on the bus after " +
                std::to_string(static_cast<int>(BUS_PATIENCE_S)) + " s";
    }
    return false;
}

bool children_stop_daemon() {
    look_at_children();
    if (daemon_pid < 0)
        return true;
    bool killed = false;
    const pid_t pid = std::exchange(daemon_pid, -1);
    const int status = process_stop(pid, "the daemon", STOP_PATIENCE_S, killed);
    say_event("daemon stopped: %s", process_outcome(status).c_str());
    // SIGTERM before its handlers are in place ends it too; that is no failure.
    const bool orderly =
        !killed && (status == 0 || (WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM));
    if (!orderly && !killed)
        report("the daemon did not stop in order", status);
    in_order = in_order && orderly;
    return orderly;
}

void children_kill_daemon() {
    look_at_children();
    if (daemon_pid < 0)
        return;
    const pid_t pid = std::exchange(daemon_pid, -1);
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    say_event("daemon killed: %s", process_outcome(status).c_str());
}

bool children_start_command(std::string &error) {
    command_end.reset();
    command_pid = process_start(
        {.arguments = asked->command, .directory = "", .output = "", .own_session = false}, error);
    return command_pid > 0;
}

bool children_have_daemon() {
    return !asked->daemon.empty();
}

bool children_daemon_running() {
    look_at_children();
    return daemon_pid > 0;
}

bool children_daemon_died() {
    look_at_children();
    return daemon_end.has_value();
}

void children_forget_death() {
    daemon_end.reset();
}

void children_report_death() {
    report("the daemon died", daemon_end.value_or(0));
}

bool children_command_ended() {
    look_at_children();
    return command_end.has_value();
}

int children_command_status() {
    return process_exit_code(command_end.value_or(0));
}

std::string children_describe() {
    if (!children_have_daemon())
        return "none";
    look_at_children();
    if (daemon_pid < 0)
        return "not running";
    return "process " + std::to_string(daemon_pid) + (on_the_bus() ? ", on the bus" : "");
}

bool children_stop_all() {
    look_at_children();
    if (command_pid > 0) {
        bool killed = false;
        const int status =
            process_stop(std::exchange(command_pid, -1), "the command", STOP_PATIENCE_S, killed);
        say_event("command stopped: %s", process_outcome(status).c_str());
        in_order = in_order && !killed;
    }
    children_stop_daemon();
    return in_order;
}

void children_close() {
    if (signals >= 0) {
        loop_forget(signals);
        ls_close(signals);
    }
}

} // namespace sim
