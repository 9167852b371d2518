// The directory that is a terminal: what is where in it, making it, taking it up again.
#ifndef SIMULATOR_TERMINAL_TREE_H
#define SIMULATOR_TERMINAL_TREE_H

#include "options.h"

#include <string>

namespace sim {

// Absolute paths of everything in a terminal directory.
struct terminal_paths {
    std::string root;
    std::string marker;     // says that this is a terminal; locked while one runs
    std::string uart;       // link to the pty
    std::string gpio;       // /sys/class/gpio
    std::string power;      // /sys/power
    std::string bus;        // MQUTILS_DIR
    std::string settings;   // DBHANDLER_FILE
    std::string hal;        // ZUKHAL_CONF
    std::string log;        // log of the platform's log call
    std::string daemon_out; // stdout and stderr of the daemon
    std::string services;   // what the other services received
    std::string control;    // socket of `simterm ctl`
    std::string battery;    // battery-backed memory of the receiver
    std::string stub;       // static location switch
    std::string history;    // ring file of the location history
};

// The absolute path of a directory as it was typed.
std::string tree_root(const std::string &directory);

terminal_paths tree_paths(const std::string &root);

// Makes `directory` into a terminal, or takes an existing terminal up again, and locks it for this
// process. Returns the descriptor that holds the lock (close-on-exec, the caller's), or -1: `error`
// says why. `fresh_settings` says whether the settings database is still to be made.
int tree_make(const std::string &directory, terminal_paths &paths, bool &fresh_settings,
              std::string &error);

// The HAL's configuration: what `options` ask for replaces what is there, the rest is kept. `board`
// is the board type in force afterwards.
bool tree_configure(const terminal_paths &paths, const terminal_options &options, int &board,
                    std::string &error);

} // namespace sim

#endif
