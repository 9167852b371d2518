// Sentences: text in and out. Pure functions.
#ifndef SIMULATOR_RECEIVER_NMEA_H
#define SIMULATOR_RECEIVER_NMEA_H

#include "truth.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

// One moment as the receiver knows it.
struct nav_report {
    epoch now;
    int leap_seconds = 18; // GPS minus UTC
};

struct nmea_style {
    std::string talker = "GP";
    std::string gsv_talker = "GP"; // satellites in view are listed by system or by main talker
    uint8_t version = 0x40;        // 0x21, 0x23, 0x40, 0x41
    size_t max_satellites = 16;    // per GSV answer; no more than four sentences of four
    bool blank = false;            // all value fields empty
};

// A standard answer, e.g. type "GGA"; GSV has up to four sentences. Empty: no such type.
std::string nmea_answer(std::string_view type, const nav_report &report, const nmea_style &style);

// PUBX message 0, 3 or 4. Empty: no such message.
std::string pubx_answer(int number, const nav_report &report, const nmea_style &style);

} // namespace sim

#endif
