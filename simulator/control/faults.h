// The faults of the simulated terminal by name: what `simterm run --fault` and `simterm ctl fault`
// switch. One table says name, argument, meaning and effect.
#ifndef SIMULATOR_CONTROL_FAULTS_H
#define SIMULATOR_CONTROL_FAULTS_H

#include "receiver.h"
#include "spoil.h"
#include "ta.h"

#include <string>
#include <string_view>

namespace sim {

// Where the faults act; all belong to the caller.
struct fault_targets {
    line_faults &line;
    receiver_faults &receiver;
    ta_faults &ta;
};

// Switches fault `name`. An empty argument means the fault's own default when it is switched on,
// and all of it when it is switched off. False: `error` says what is wrong and nothing has changed.
bool fault_switch(fault_targets targets, std::string_view name, std::string_view argument, bool on,
                  std::string &error);

// As on the command line: NAME or NAME=ARG, switched on.
bool fault_switch_on(fault_targets targets, std::string_view text, std::string &error);

// One line per fault: name, argument, state, meaning.
std::string fault_list(fault_targets targets);

// The faults that are on, as "cut=20 nak=0608"; "none" when there are none.
std::string fault_summary(fault_targets targets);

} // namespace sim

#endif
