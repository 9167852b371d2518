// The settings database of a simulated terminal.
#ifndef SIMULATOR_TERMINAL_SETTINGS_H
#define SIMULATOR_TERMINAL_SETTINGS_H

#include "options.h"

#include <cstdint>
#include <string>

namespace sim {

// Stores what `options` ask for. A new database (`fresh`) gets the rest too: receiver on, GNSS
// antenna, history off, every 60 s. DBHANDLER_FILE must be set. False: `error` names the setting.
bool settings_apply(const terminal_options &options, bool fresh, std::string &error);

// The stored antenna type. False: `error` says that it cannot be read.
bool settings_antenna(int32_t &antenna, std::string &error);

// The stored settings in one line for people.
std::string settings_describe();

} // namespace sim

#endif
