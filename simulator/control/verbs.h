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
    bool (*have_daemon)();    // one was asked for
    bool (*daemon_running)(); // now
};

void verbs_use(const verb_targets &terminal); // before the first verbs_handle

// The control_handler of simterm, on the thread of the loop.
std::optional<control_reply> verbs_handle(const std::vector<std::string> &words, int client);

// What somebody wants to be done to the daemon, and waits for: the run carries it out and then
// reports.
enum class daemon_wish { none, restart, start, kill };
daemon_wish verbs_daemon_wish();
void verbs_daemon_done(bool ok, const std::string &error);

} // namespace sim

#endif
