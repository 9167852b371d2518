// `simterm run` and `simterm ctl`.
#ifndef SIMULATOR_TERMINAL_RUN_H
#define SIMULATOR_TERMINAL_RUN_H

#include "options.h"

#include <string>
#include <vector>

namespace sim {

// Brings the terminal up, runs what is to run in it, takes everything down. Returns the exit
// status: that of the command, 0 after an orderly end without one, 1 after a failure. A success
// turns into 1 when the daemon or the command had to be killed or the daemon stopped with a
// failure.
int terminal_run(const terminal_options &options);

// Prints the environment of the terminal in `directory`, running or not, for a shell. Returns the
// exit status: 1 when there is none.
int terminal_env(const std::string &directory);

// Sends `words` to the terminal in `directory` and prints the answer. Returns the exit status: 0
// done, 1 refused, 3 no terminal there.
int terminal_ctl(const std::string &directory, const std::vector<std::string> &words);

} // namespace sim

#endif
