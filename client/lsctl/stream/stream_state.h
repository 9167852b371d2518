// lsctl stream: what is asked and when, and what of the answers still counts. Pure: the time comes
// from the caller.
//
// One question a second at most, however many listen. A position is every other one; the rest
// takes turns in the places between. Whatever is reported has an age, counted from its question:
// what is too old is unknown again, so that a service that is gone leaves no fix behind.
#ifndef LSCTL_STREAM_STATE_H
#define LSCTL_STREAM_STATE_H

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lsctl_sentence.h"

using stream_clock = std::chrono::steady_clock;

enum class stream_form : uint8_t { nmea, json, gpsd };

enum class stream_question : uint8_t {
    position,   // request 1003
    motion,     // VTG of the receiver: the record of request 1006 wraps at 256 km/h
    satellites, // request 1005
    sky,        // GSV of the receiver: elevation and azimuth, which no record has
};
constexpr size_t STREAM_QUESTIONS = 4;

constexpr std::chrono::milliseconds STREAM_SPACING{1000};       // between two questions
constexpr std::chrono::milliseconds STREAM_POSITION_LIFE{3000}; // asked for every 2 s
constexpr std::chrono::milliseconds STREAM_MOTION_LIFE{6000};
constexpr std::chrono::milliseconds STREAM_SKY_LIFE{20000};

struct stream_answer {
    stream_question question = stream_question::position;
    stream_clock::time_point asked;
    location_result result = LOCATION_NO_REPLY;
    std::string why; // a sentence unless `result` is answered
    // With `answered`, what belongs to the question; the rest is empty.
    gps_pos_data position{};
    lsctl_motion motion;
    gps_sat_info satellites{};
    std::vector<lsctl_sky_satellite> sky;
};

// The newest answer to each question.
using stream_state = std::array<std::optional<stream_answer>, STREAM_QUESTIONS>;

// What holds at one moment, for the formats.
struct stream_report {
    location_result result = LOCATION_NO_REPLY; // of the question for a position
    std::string why;                            // a sentence unless answered
    std::optional<gps_pos_data> position;       // with a fix
    lsctl_motion motion;
    std::optional<gps_sat_info> satellites;
    std::vector<lsctl_sky_satellite> sky; // those that the receiver told of; may be fewer
};

// Whether the service itself was heard; false: it is gone, stopped, or out of reach.
bool stream_is_answer(location_result result);

stream_report stream_report_of(const stream_state &state, stream_clock::time_point now);

// Whose turn it is.
struct stream_plan {
    stream_form form = stream_form::nmea;
    std::optional<stream_clock::time_point> asked;          // the last question
    std::optional<stream_clock::time_point> position_asked; // the last one for a position
    bool lost = false; // the last question for a position had no answer
    size_t turn = 0;   // of the other questions
};

// When the next question may be asked; and that question, asked at `now`.
stream_clock::time_point stream_next_time(const stream_plan &plan, stream_clock::time_point now);
stream_question stream_next(stream_plan &plan, stream_clock::time_point now);
void stream_answered(stream_plan &plan, const stream_answer &answer);

#endif
