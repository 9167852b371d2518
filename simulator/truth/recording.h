// From NMEA lines to epochs. Used by load_recording only; pure functions.
#ifndef SIMULATOR_TRUTH_RECORDING_H
#define SIMULATOR_TRUTH_RECORDING_H

#include "truth.h"

#include <string>
#include <string_view>
#include <vector>

namespace sim {

// A value that was printed: somewhere within `half` of `value`.
struct rounded_value {
    double value = 0, half = 0;
};

// Gathers sentences into epochs. A new epoch begins when the time changes or a type comes again.
struct epoch_gatherer {
    std::vector<epoch> done;

    // The epoch in hand.
    epoch draft;
    std::vector<std::string> types; // sentence types seen in it
    std::string last_type;
    bool void_fix = false; // some sentence says there is no fix
    bool valid_fix = false;
    int gsa_mode = 0;                   // 0 = no GSA of GPS yet
    std::optional<rounded_value> speed; // metres per second, all tellings of it together
};

// Takes one line without its line end. False: not a sentence, or its checksum is wrong.
bool gather_line(epoch_gatherer &gatherer, std::string_view line);

// Ends the epoch in hand.
void gather_end(epoch_gatherer &gatherer);

} // namespace sim

#endif
