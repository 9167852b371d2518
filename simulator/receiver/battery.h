// The battery-backed memory: saved configuration and what the receiver knows of the sky.
//
// A text file, written whole and put in place in one step:
//   receiver-battery 1
//   known 1 1 1732190000        almanac, ephemeris, Unix time of the last fix
//   0608 640001000100           one saved CFG frame a line: class and id, payload
//   crc 3f2a9c01                CRC-32 of all lines before
#ifndef SIMULATOR_RECEIVER_BATTERY_H
#define SIMULATOR_RECEIVER_BATTERY_H

#include "config.h"

#include <string>

namespace sim {

struct battery_memory {
    receiver_config saved = fresh_config();
    bool almanac = false;   // almanac and clock
    bool ephemeris = false; // orbits as they were at the last fix
    double last_fix = 0.0;  // Unix seconds
};

// Missing or damaged in any way: a fresh memory.
battery_memory battery_load(const std::string &path);

// False: not written; the file is what it was before.
bool battery_store(const std::string &path, const battery_memory &memory);

} // namespace sim

#endif
