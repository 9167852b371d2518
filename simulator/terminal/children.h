// The daemon and the command that run inside the terminal, and the signals that concern them.
//
// State of one run, on the thread of the loop, which must be the main thread.
#ifndef SIMULATOR_TERMINAL_CHILDREN_H
#define SIMULATOR_TERMINAL_CHILDREN_H

#include "options.h"
#include "tree.h"

#include <functional>
#include <string>

namespace sim {

// Both must outlive the run.
void children_use(const terminal_options &options, const terminal_paths &paths);

// Takes SIGINT, SIGTERM, SIGHUP and SIGCHLD into the loop; `stop` is called for a signal that ends
// the run. SIGINT from the keyboard is the command's own affair while one runs.
bool children_watch_signals(std::function<void()> stop, std::string &error);

// Starts the daemon and waits, bounded, until it is on the bus. False: it is not running, `error`
// says why. Also true when `cancelled` said to give up waiting.
bool children_start_daemon(std::string &error, const std::function<bool()> &cancelled);

// Stops it. False when it had to be killed or ended with a failure, which has been said; the run
// then does not end with success any more.
bool children_stop_daemon();

// Kills it with SIGKILL, as a crash would end it; the run does not end by that.
void children_kill_daemon();

bool children_start_command(std::string &error);

bool children_have_daemon(); // one was asked for
bool children_daemon_running();
bool children_daemon_died();  // it was running, and nobody here stopped it
void children_forget_death(); // it has been dealt with
void children_report_death();
bool children_command_ended();
int children_command_status(); // as a shell reports it

// The daemon in one line for people.
std::string children_describe();

// Stops what still runs. False when something did not end in order, now or earlier in the run.
bool children_stop_all();
void children_close();

} // namespace sim

#endif
