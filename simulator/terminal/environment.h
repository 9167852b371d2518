// The environment in which programs find a terminal directory, and its file for a shell.
#ifndef SIMULATOR_TERMINAL_ENVIRONMENT_H
#define SIMULATOR_TERMINAL_ENVIRONMENT_H

#include "tree.h"

#include <string>

namespace sim {

// Sets it in this process, for its own platform libraries and for everything started from it. No
// other thread may run yet.
bool environment_set(const terminal_paths &paths);

// Lines for a shell, "export NAME='VALUE'", whatever the paths hold.
std::string environment_text(const terminal_paths &paths);

// Writes these lines to DIR/env, anew each time: the directory may have moved. False: `error`.
bool environment_write(const terminal_paths &paths, std::string &error);

} // namespace sim

#endif
