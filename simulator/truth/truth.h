// What is true in the simulated world at one moment: the single source of all sentences and frames.
//
// Sources (a fixed place, a route with times, a recording) produce epochs; the receiver turns them
// into NMEA and UBX. Pure data; no I/O, no threads.
#ifndef SIMULATOR_TRUTH_H
#define SIMULATOR_TRUTH_H

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
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

// A fixed place (degrees, metres above mean sea level) at the time of day of `wall_clock` (Unix
// seconds; empty = the system's), which is read once, at the first epoch.
truth_source make_fixed_place(double latitude, double longitude, double altitude,
                              std::function<double()> wall_clock = {});

// A route file: lines "SECONDS LATITUDE LONGITUDE [ALTITUDE]", times ascending, # comments; between
// points position is interpolated, speed and course follow. Without an altitude the last one holds.
// Empty result: `error` says why.
truth_source load_route(const std::string &path, std::string &error,
                        std::function<double()> wall_clock = {});

struct recording_summary {
    size_t epochs = 0;   // moments to replay
    size_t damaged = 0;  // lines skipped: no sentence, or a wrong checksum
    double duration = 0; // seconds until it begins again
};

// A recording: NMEA lines of any talker, LF or CRLF. Of several constellations the GPS part is
// kept. Epochs last as long as their times say; 1 s where a time is missing or the recording was
// cut. Empty result: `error` says why.
truth_source load_recording(const std::string &path, std::string &error,
                            recording_summary *summary = nullptr);

} // namespace sim

#endif
