// What `simterm ctl` can ask of a running terminal.
#ifndef SIMULATOR_CONTROL_VERBS_H
#define SIMULATOR_CONTROL_VERBS_H

#include "control.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// The terminal that is asked; all are called on the thread of the loop.
struct verb_targets {
    std::string (*status)(); // lines for people
    std::string (*faults)(); // one line per fault
    std::string (*power)();  // the receiver's power lines
    bool (*fault)(std::string_view name, std::string_view argument, bool on, std::string &error);
    bool (*have_daemon)(); // one was asked for
};

void verbs_use(const verb_targets &terminal); // before the first verbs_handle

// The control_handler of simterm, on the thread of the loop.
std::optional<control_reply> verbs_handle(const std::vector<std::string> &words, int client);

// Somebody waits for a restart of the daemon, which the run carries out and then reports.
bool verbs_restart_wanted();
void verbs_restart_done(bool ok, const std::string &error);

} // namespace sim

#endif
