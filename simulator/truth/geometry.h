// What the sky is computed from: where the nominal GPS satellites are, at which angles a place sees
// a point, and what a set of angles is worth. Pure functions, any thread; degrees, metres, seconds.
#ifndef SIMULATOR_TRUTH_GEOMETRY_H
#define SIMULATOR_TRUTH_GEOMETRY_H

#include <array>
#include <span>

namespace sim {

struct ecef {
    double x = 0, y = 0, z = 0; // metres, Earth-centred, Earth-fixed
};

// WGS-84 geodetic to ECEF. `height` is metres above the ellipsoid.
ecef geodetic_to_ecef(double latitude, double longitude, double height);

// One place of the nominal constellation, at the epoch of the table.
struct orbital_slot {
    int prn;                     // 1 to 32, each once
    double ascending_node;       // right ascension, degrees
    double argument_of_latitude; // degrees from the ascending node
};

// Six planes, A to F, of four satellites each.
extern const std::array<orbital_slot, 24> nominal_slots;

// Where the satellite of `slot` is. `gps_seconds` as in sky_at; times before the epoch are fine.
ecef slot_position(const orbital_slot &slot, double gps_seconds);

struct look_angles {
    double elevation; // degrees above the horizon, -90 to 90
    double azimuth;   // degrees from true north, 0 to below 360; 0 straight overhead
};

// How `target` is seen from a geodetic place. At a pole, north is along the meridian opposite to
// `longitude`. The target must not be the place itself.
look_angles look_at(double latitude, double longitude, double height, const ecef &target);

// Dilutions of precision have no unit. 99.99 is "worthless" and the largest value.
struct dilution {
    double gdop, pdop, hdop, vdop, tdop;
};

// All 99.99 with fewer than four directions, or where they do not give a position.
dilution dilution_of(std::span<const look_angles> directions);

} // namespace sim

#endif
