// lsctl: what the receiver itself says when it is asked by pass-through: judged, and taken apart.
// Pure functions but for lsctl_ask_receiver.
#ifndef LSCTL_SENTENCE_H
#define LSCTL_SENTENCE_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "lsctl.h"

// What an answer is worth.
enum class lsctl_verdict : uint8_t {
    good,           // the sentence that was asked for, with its checksum
    nothing,        // no byte came (the service reports its time-out as success)
    wrong_checksum, // a whole sentence, damaged
    cut,            // begins as a sentence and does not end as one
    other,          // a whole sentence, not the one that was asked for
    noise,          // bytes without a sentence
};
const char *lsctl_verdict_name(lsctl_verdict verdict); // for JSON

// The fields of one sentence behind its address; the address is fields[0], "GPVTG".
using lsctl_fields = std::vector<std::string>;

struct lsctl_heard {
    lsctl_verdict verdict = lsctl_verdict::nothing; // the best one of what is in the answer
    std::vector<lsctl_fields> sentences;            // the good ones, in their order
    // Beside a good one: wrong_checksum or cut, when a sentence is; else good.
    lsctl_verdict damage = lsctl_verdict::good;
    // The last sentence ends where the service's room for an answer does. That is no damage; with
    // nothing better in the answer and the right beginning the verdict is still `cut`.
    bool cut_by_room = false;
    std::optional<bool> checksum_good; // of all whole sentences; none without one
};

// The receiver's bytes, zero-filled at the end. `wanted` is how the sentence begins behind '$' and
// the talker: "VTG", or with its maker's talker: "PUBX,00"; empty for any. An answer of
// LS_ENGG_ANSWER_SIZE bytes without zeros behind has filled the service's room.
lsctl_heard lsctl_judge_nmea(std::span<const uint8_t> answer, std::string_view wanted);

// Sends `body` and judges the answer. `heard` says something with `answered` only.
location_result lsctl_ask_receiver(location_client *client, std::chrono::milliseconds timeout,
                                   std::string_view body, std::string_view wanted,
                                   lsctl_heard &heard);

// Field `index` as a number; none when it is absent, empty or no number.
std::optional<double> lsctl_field_number(const lsctl_fields &fields, size_t index);
// Field `index`, a time "hhmmss.ss", as seconds of the day.
std::optional<double> lsctl_field_time_s(const lsctl_fields &fields, size_t index);

// VTG, asked for with LSCTL_ASK_VTG. A field that the receiver leaves empty is none: without
// movement it has no course.
struct lsctl_motion {
    std::optional<double> course_deg; // true, 0 to 360
    std::optional<double> speed_knots;
    std::optional<double> speed_kmh;
};
constexpr std::string_view LSCTL_ASK_VTG = "GPGPQ,VTG";
lsctl_motion lsctl_motion_of(const lsctl_fields &vtg);

// PUBX 00. Without a fix the receiver repeats old coordinates or leaves the fields empty.
struct lsctl_navigation {
    std::string status; // "NF" none, "DR", "G2", "G3", "D2", "D3", "RK", "TT"
    std::optional<double> horizontal_accuracy_m;
    std::optional<double> vertical_accuracy_m;
    unsigned satellites_used = 0;
    bool has_fix() const { return !status.empty() && status != "NF"; }
};
constexpr std::string_view LSCTL_ASK_PUBX_00 = "PUBX,00";
lsctl_navigation lsctl_navigation_of(const lsctl_fields &pubx_00);

// One satellite of the GSV sentences. An answer has room for two or three of them: with more
// satellites in view the last sentence is cut, and the record of request 1004 has the rest.
struct lsctl_sky_satellite {
    unsigned prn = 0;
    std::optional<double> elevation_deg; // above the horizon
    std::optional<double> azimuth_deg;   // from north, clockwise
    std::optional<double> cn0_dbhz;      // none: in view, not heard
};
constexpr std::string_view LSCTL_ASK_GSV = "GPGPQ,GSV";
std::vector<lsctl_sky_satellite> lsctl_sky_of(std::span<const lsctl_fields> gsv);

#endif
