// The hardware of the simulated terminal while it runs: receiver, serial line, power lines, faults.
//
// One terminal per process, on the thread of the event loop.
#ifndef SIMULATOR_TERMINAL_H
#define SIMULATOR_TERMINAL_H

#include "options.h"
#include "ta.h"
#include "tree.h"

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace sim {

// The receiver's power lines on board 1; it runs when both are 1.
constexpr int TERMINAL_POWER_LINES[] = {102, 37};

// Whether what `options` say can be done: values, files, faults. Makes nothing. False: `error` says
// what is wrong.
bool terminal_check(const terminal_options &options, std::string &error);

// Brings the hardware up inside the tree of `paths`. Board 1: receiver on the serial line, powered
// by the two lines. Board 2: receiver powered from the start, behind the TA. False: `error` names
// the step, and terminal_down cleans up.
bool terminal_up(const terminal_options &options, const terminal_paths &paths, int board,
                 std::string &error);
void terminal_down();

// Exports the receiver's power lines as the boot code does, so that a daemon about to start finds
// them.
void terminal_boot_lines();

// Takes in everything that has happened outside, up to now.
void terminal_step();

// The receiver's line on board 2, for the TA. Answers go to services_take_answer.
void terminal_line_send(std::span<const uint8_t> command);

ta_faults &terminal_ta_faults(); // the TA itself takes back what was to happen once

// Switches a fault; see fault_switch.
bool terminal_fault(std::string_view name, std::string_view argument, bool on, std::string &error);

std::string terminal_faults();   // one line per fault
std::string terminal_power();    // power lines and receiver, one line
std::string terminal_describe(); // lines for people

} // namespace sim

#endif
