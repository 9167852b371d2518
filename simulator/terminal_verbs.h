// What `simterm ctl` can ask of a running terminal.
#ifndef SIMULATOR_TERMINAL_VERBS_H
#define SIMULATOR_TERMINAL_VERBS_H

#include "control.h"

#include <optional>
#include <string>
#include <vector>

namespace sim {

// The control_handler of simterm, on the thread of the loop.
std::optional<control_reply> verbs_handle(const std::vector<std::string> &words, int client);

// Somebody waits for a restart of the daemon, which the run carries out and then reports.
bool verbs_restart_wanted();
void verbs_restart_done(bool ok, const std::string &error);

} // namespace sim

#endif
