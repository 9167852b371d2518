// The GPS sky: which satellites stand where, seen from a place at a time, and what that geometry is
// worth. Pure functions; angles in degrees, lengths in metres.
#ifndef SIMULATOR_TRUTH_SKY_H
#define SIMULATOR_TRUTH_SKY_H

#include <vector>

namespace sim {

struct sky_satellite {
    int prn;          // 1 to 32
    double elevation; // degrees above the horizon
    double azimuth;   // degrees from true north, 0 to 360
    double cn0;       // dB-Hz, follows elevation
    bool used;        // above the mask, in the fix
};

struct sky_view {
    std::vector<sky_satellite> satellites; // above the horizon, highest first
    double gdop, pdop, hdop, vdop, tdop;   // of the used satellites; 99.99 with fewer than four
};

// The sky over a place. `gps_seconds` counts from the GPS epoch (1980-01-06), without leap seconds.
// At most `max_used` satellites above `mask` degrees are used, highest first.
sky_view sky_at(double gps_seconds, double latitude, double longitude, double height,
                double mask = 5.0, int max_used = 12);

} // namespace sim

#endif
