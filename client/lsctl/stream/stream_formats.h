// lsctl stream: a report as sentences and as JSON objects. Pure functions.
#ifndef LSCTL_STREAM_FORMATS_H
#define LSCTL_STREAM_FORMATS_H

#include <optional>
#include <string>

#include "stream_state.h"

// GGA and RMC of talker GP with their checksums, each with CR LF. Without a fix their fields are
// empty, the quality is 0 and the status V.
std::string stream_nmea(const stream_report &report);

// Objects of class "position" and "satellites", one a line. Without a fix all values of the former
// are null, and it says why.
std::string stream_json_position(const stream_report &report);
std::string stream_json_satellites(const stream_report &report);

// How the receiver itself is looked up among what it told of the sky; null: it did not.
const lsctl_sky_satellite *stream_in_sky(const stream_report &report, unsigned prn);

constexpr double STREAM_KMH_PER_KNOT = 1.852;
constexpr double STREAM_KMH_PER_MPS = 3.6;
// Speed over ground from whichever of its two fields the receiver filled.
std::optional<double> stream_speed_kmh(const lsctl_motion &motion);

// Metres of accuracy that the service makes of one unit of dilution of precision.
constexpr double STREAM_METRES_PER_DOP = 2.5;

#endif
