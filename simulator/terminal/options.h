// What the command line asks for. Plain data; an empty optional leaves what the terminal has.
#ifndef SIMULATOR_TERMINAL_OPTIONS_H
#define SIMULATOR_TERMINAL_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sim {

struct terminal_options {
    std::string directory;

    std::optional<int> board; // 1 or 2
    std::optional<std::string> log_level;

    std::string replay; // at most one of the three; none = a fixed place
    std::string route;
    std::string place; // LAT,LON[,ALT]

    unsigned baud = 9600; // 0 = the line takes no time
    double startup_s = 0.0;
    std::string ttff; // COLD,WARM,HOT in seconds
    bool instant_fix = false;
    bool blank_receiver = false;     // with an empty battery memory, as it comes from its maker
    std::vector<std::string> faults; // NAME[=ARG], on from the start

    // Settings database.
    std::optional<int32_t> power_status;
    std::optional<int32_t> antenna;
    std::optional<bool> history;
    std::optional<uint32_t> history_interval;

    bool services = true;
    std::string daemon; // empty = none
    bool keep = false;  // the terminal outlives its daemon
    bool verbose = false;
    std::vector<std::string> command; // empty = stay until a signal
};

} // namespace sim

#endif
