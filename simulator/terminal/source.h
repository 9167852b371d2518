// From the command line to what the receiver needs: its source of truth and its times to first fix.
#ifndef SIMULATOR_TERMINAL_SOURCE_H
#define SIMULATOR_TERMINAL_SOURCE_H

#include "options.h"
#include "receiver.h"

#include <string>

namespace sim {

// Fills `module` from `options`; `source` is the truth in words. False: `error` names the option.
bool source_from_options(const terminal_options &options, receiver_options &module,
                         std::string &source, std::string &error);

} // namespace sim

#endif
