// lsctl --terminal: a simulated terminal in a directory, in place of the machine's own files.
#ifndef LSCTL_TERMINAL_H
#define LSCTL_TERMINAL_H

#include <string>

// Why the directory is none of a simulated terminal; empty when it is one.
std::string lsctl_terminal_problem(const std::string &directory);

// Sets the environment of bus, settings and HAL to this terminal's, and LOCATION_TERMINAL_ROOT,
// which lsctl's own files go by. Before any other thread runs. False: no memory.
bool lsctl_terminal_use(const std::string &directory);

// What stands in front of every fixed path of the terminal: LOCATION_TERMINAL_ROOT, or nothing.
std::string lsctl_terminal_root();

#endif
