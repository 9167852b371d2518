// The event loop of the simulated terminal: descriptors, timers, a condition to end on.
//
// One loop per process, one thread. A handler may watch and forget descriptors, its own included.
#ifndef SIMULATOR_TERMINAL_LOOP_H
#define SIMULATOR_TERMINAL_LOOP_H

#include <functional>
#include <optional>

namespace sim {

double loop_now(); // CLOCK_MONOTONIC, seconds

// Calls `handler` whenever `fd` is readable or hung up, in the order of watching. Replaces an
// earlier handler of the same descriptor.
void loop_watch(int fd, std::function<void()> handler);
void loop_forget(int fd); // harmless for a descriptor that is not watched

// Calls `handler` when `when` says so (empty = not now); asked before every wait. Exact to the
// timer of the kernel, not to the millisecond of poll. Stays until loop_close.
void loop_add_timer(std::function<std::optional<double>()> when, std::function<void()> handler);

// Runs until `done` (looked at after every round) or until `deadline` on the same clock, whichever
// is first. True = done. False also when waiting itself failed.
bool loop_until(const std::function<bool()> &done, std::optional<double> deadline);

void loop_close(); // forgets everything

} // namespace sim

#endif
