// lsctl monitor: what is known, since when, and what it is worth. Pure: no bus, no screen, no clock
// of its own. One thread at a time; the asker's lock guards the one model there is.
#ifndef MONITOR_MODEL_H
#define MONITOR_MODEL_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "lsctl_sentence.h"

using monitor_time = std::chrono::steady_clock::time_point;

enum class monitor_service : uint8_t {
    unknown,  // not asked yet
    absent,   // nobody has its id, or there is no bus
    starting, // it answers, and may still be configuring the receiver: that is left alone
    present,
};

// What the large letters say.
enum class monitor_state : uint8_t {
    waiting, // for the first answer
    lost,    // no service
    starting,
    off,    // the receiver
    silent, // nothing that could be read comes from the receiver
    no_fix,
    stale, // a fix, and no newer one
    fix_2d,
    fix_3d,
};

struct monitor_satellite {
    unsigned prn = 0;
    std::optional<double> cn0_dbhz;      // none: in view, not heard
    std::optional<double> elevation_deg; // the last ones told
    std::optional<double> azimuth_deg;
    bool used = false;
    monitor_time seen; // when it was last in a list
};

// One column of the strip: what was so during MONITOR_STRIP_STEP.
struct monitor_moment {
    std::optional<double> cn0_dbhz; // mean of the best four
    char fix = '?';                 // '3', '2', '-' no fix, '?' no word from the receiver
};
constexpr std::chrono::seconds MONITOR_STRIP_STEP{4};
constexpr size_t MONITOR_STRIP_LENGTH = 300; // columns that are kept: 20 minutes

// Older than three rounds of questions: somebody who walks has gone ten metres.
constexpr std::chrono::seconds MONITOR_STALE_AFTER{7};
// What has not been told for this long is no longer shown: every question comes round in less.
constexpr std::chrono::seconds MONITOR_FORGET_AFTER{40};

struct monitor_error {
    std::string text;     // what it is and what to do
    monitor_time at;      // last time
    bool present = false; // nothing has gone well since
};

struct monitor_model {
    monitor_service service = monitor_service::unknown;
    std::optional<uint32_t> power_mode;

    std::optional<gps_pos_data> fix; // the last one there was, never a record without
    monitor_time fix_at;             // when the receiver had it, as far as that is known
    bool has_fix = false;            // the last answer was a fix
    bool heard = false;              // the last question to the receiver had an answer

    lsctl_motion motion;
    std::optional<monitor_time> motion_at;
    std::optional<double> clock_ahead_s; // of the system, against the receiver's
    monitor_time clock_at;

    std::vector<monitor_satellite> satellites; // by PRN
    std::optional<monitor_time> satellites_at;

    std::optional<lsctl_verdict> verdict; // of the last pass-through
    std::optional<monitor_error> error;

    std::deque<monitor_moment> strip; // the newest at the back
    std::optional<monitor_time> strip_next;
};

// The service could not be asked at all (`text` says why), or answers.
void monitor_on_absent(monitor_model &model, const std::string &text, monitor_time now);
void monitor_on_power(monitor_model &model, uint32_t mode, bool starting);

// A record of request 1001. One whose time is that of the record before is the service's buffered
// one: its age grows.
void monitor_on_position(monitor_model &model, const gps_pos_data &position, monitor_time now);
// The query had no success. `text`: what that means as far as the result tells; replaced where the
// last pass-through tells more.
void monitor_on_no_position(monitor_model &model, const std::string &text, monitor_time now);

void monitor_on_satellites(monitor_model &model, const gps_sat_info &info, monitor_time now);
void monitor_on_sky(monitor_model &model, std::span<const lsctl_sky_satellite> sky,
                    monitor_time now);
// The slots of GSA sentences, where the record of request 1004 could not be made.
void monitor_on_used(monitor_model &model, std::span<const lsctl_fields> gsa);
void monitor_on_motion(monitor_model &model, const lsctl_motion &motion, monitor_time now);
void monitor_on_clock(monitor_model &model, double ahead_s, monitor_time now);

// A pass-through's answer has been judged; what is not good is an error.
void monitor_on_verdict(monitor_model &model, lsctl_verdict verdict, monitor_time now);
void monitor_on_error(monitor_model &model, const std::string &text, monitor_time now);

// Lets time pass: forgets, and adds columns to the strip.
void monitor_tick(monitor_model &model, monitor_time now);

monitor_state monitor_state_of(const monitor_model &model, monitor_time now);

// Seconds by which `system_s` (since 1970, UTC) is ahead of PUBX 04; none without a valid time.
std::optional<double> monitor_clock_ahead(const lsctl_fields &pubx_04, double system_s);

#endif
