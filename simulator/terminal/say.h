// What simterm tells people: a banner, events with the time since start, errors.
//
// Banner and events go to stdout, or to stderr when a command runs inside the terminal, whose
// stdout then stays its own. Errors always go to stderr. One thread.
#ifndef SIMULATOR_TERMINAL_SAY_H
#define SIMULATOR_TERMINAL_SAY_H

#include <string>

namespace sim {

void say_to_stderr(bool on);
void say_verbose(bool on);

void say_plain(const char *format, ...) __attribute__((format(printf, 1, 2)));
void say_event(const char *format, ...) __attribute__((format(printf, 1, 2)));
void say_detail(const char *format, ...) __attribute__((format(printf, 1, 2))); // verbose only
void say_error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// The last `count` lines of a file, each with `indent` in front; empty when there is none.
std::string last_lines(const std::string &path, size_t count, const std::string &indent);

} // namespace sim

#endif
