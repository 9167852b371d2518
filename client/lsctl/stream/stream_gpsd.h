// lsctl stream: the watcher protocol of gpsd. Pure functions.
//
// A line is one object that ends in CR LF. Its class comes first and it has no blanks: clients
// compare the first bytes of a line before they parse it. What is not known is left out.
#ifndef LSCTL_STREAM_GPSD_H
#define LSCTL_STREAM_GPSD_H

#include <optional>
#include <string>

#include "stream_state.h"

// Longest request taken, bytes; the longest that a client of today sends has some 150.
constexpr size_t GPSD_REQUEST_SIZE = 1024;

// The name of the one device there is.
constexpr const char *GPSD_DEVICE = "location_service";

// What one client has asked for.
struct gpsd_session {
    bool enabled = false;
    bool json = false;
    bool nmea = false;
    bool wants_json() const { return enabled && json; }
    bool wants_nmea() const { return enabled && nmea; }
};

struct gpsd_request {
    std::string name;                    // "WATCH"; empty: `fault` says why it is none
    std::optional<std::string> argument; // the JSON object behind '=', unparsed
    std::string fault;
};

// Takes the first request off `input`; none: more has to come. Ends at the object's last brace, at
// ';' or at the line's end, so that it does not matter which of these a client sends.
std::optional<gpsd_request> gpsd_take_request(std::string &input);

// The lines that answer a request. `activated` is when this program began, as UTC.
std::string gpsd_reply(gpsd_session &session, const gpsd_request &request,
                       const std::string &activated);
bool gpsd_is_poll(const gpsd_request &request);

// An object as a line.
std::string gpsd_line(const lsctl_json &object);
std::string gpsd_version();
std::string gpsd_error(const std::string &message);
// Mode 3 or 2 with a position, 1 without a fix, 0 when the service does not answer.
std::string gpsd_tpv(const stream_report &report);
// Without satellites when they are not known.
std::string gpsd_sky(const stream_report &report);
// `time` is now, as UTC.
std::string gpsd_poll(const stream_report &report, const std::string &time);

#endif
