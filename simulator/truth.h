// What is true in the simulated world at one moment: the single source of all sentences and frames.
//
// Sources (a fixed place, a route with times, a recording) produce epochs; the receiver turns them
// into NMEA and UBX. Pure data; no I/O, no threads.
#ifndef SIMULATOR_TRUTH_H
#define SIMULATOR_TRUTH_H

#include <functional>
#include <optional>
#include <vector>

namespace sim {

struct satellite {
    int prn = 0;                  // GPS: 1 to 32
    std::optional<int> elevation; // degrees above the horizon
    std::optional<int> azimuth;   // degrees from true north
    std::optional<int> cn0;       // dB-Hz; empty = in view but not tracked
    bool used = false;            // in the fix
};

enum class fix_quality { none, fix_2d, fix_3d };

struct utc_time {
    int hour = 0, minute = 0;
    double second = 0; // 0 to 60.99
};

struct utc_date {
    int day = 0, month = 0, year = 0; // full year
};

// One epoch. Empty optionals are empty fields on the line.
struct epoch {
    std::optional<utc_time> time;
    std::optional<utc_date> date;
    fix_quality fix = fix_quality::none;
    std::optional<double> latitude;  // degrees, south negative
    std::optional<double> longitude; // degrees, west negative
    std::optional<double> altitude;  // metres above mean sea level
    std::optional<double> geoid;     // geoid separation, metres
    std::optional<double> speed;     // metres per second over ground
    std::optional<double> course;    // degrees from true north
    std::vector<satellite> satellites;
    std::vector<int> slots; // PRNs of the fix as a GSA lists them, 0 = an empty slot
    std::optional<double> pdop, hdop, vdop, tdop;
};

// A source gives the epoch at a simulated time, in seconds since the source's own start. Recordings
// and routes begin again when they end.
using truth_source = std::function<epoch(double seconds)>;

} // namespace sim

#endif
