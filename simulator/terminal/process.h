// Processes that run inside the terminal: started, watched and ended by process id.
//
// A child dies with simterm, whatever ends simterm. One thread: the one that runs the loop, which
// must be the main thread, because the kernel ties the child's life to the thread that started it.
#ifndef SIMULATOR_TERMINAL_PROCESS_H
#define SIMULATOR_TERMINAL_PROCESS_H

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace sim {

struct process_plan {
    std::vector<std::string> arguments; // the first is the program, looked up in PATH
    std::string directory;              // working directory; empty = as simterm
    std::string output;                 // file for stdout and stderr; empty = as simterm
    bool own_session = false;           // out of reach of the keyboard's signals
};

// The new process id, or -1: `error` says which step failed. The child starts with no signal
// blocked.
pid_t process_start(const process_plan &plan, std::string &error);

// The wait status of `pid` if it has ended (it is then gone for good), else empty.
std::optional<int> process_ended(pid_t pid);

// SIGTERM, a bounded wait in which the loop goes on, SIGKILL with a message. Returns the wait
// status; `killed` says that SIGKILL was needed.
int process_stop(pid_t pid, const char *name, double patience_s, bool &killed);

// "exit status 1", "signal 11 (Segmentation fault)".
std::string process_outcome(int wait_status);

// As a shell reports it: the exit status, or 128 and the signal.
int process_exit_code(int wait_status);

} // namespace sim

#endif
