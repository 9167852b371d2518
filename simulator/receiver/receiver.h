// The GNSS receiver: a state machine that takes bytes and gives bytes, stepped by its caller.
//
// No threads, no clock, no descriptors: the caller passes `now` (seconds on a steady clock of its
// choice, never decreasing) to every call and asks `next_event` when to come back. One message
// (sentence or frame; a GSV answer is one, a polled frame and its acknowledge are one) is one
// element of what `take_output` returns.
#ifndef SIMULATOR_RECEIVER_H
#define SIMULATOR_RECEIVER_H

#include "truth.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace sim {

struct receiver_options {
    truth_source truth;
    std::string battery_file;   // battery-backed memory; empty = none, always a fresh receiver
    double startup_s = 0.0;     // power-on until it listens
    double cold_ttff_s = 29.0;  // time to first fix: nothing known
    double warm_ttff_s = 25.0;  // almanac and time known
    double hot_ttff_s = 1.0;    // ephemeris known too
    bool instant_fix = false;   // has a fix from the first epoch on
    bool preconfigured = false; // as its owner left it: GPS only, talker GP, speaks when asked
    std::function<double()>
        wall_clock; // Unix seconds, dates the battery memory; empty = the system's
};

// Faults of the receiver itself. Faults of the line (cut, checksum, garbage...) are the line's.
struct receiver_faults {
    bool silent = false;                  // answers nothing
    bool no_fix = false;                  // fix lost: fields empty until cleared
    bool empty_fields = false;            // every value field empty, fix or not
    bool week_rollover = false;           // dates 1024 weeks in the past
    std::vector<uint16_t> nak_frames;     // class << 8 | id of frames to refuse
    std::vector<uint16_t> ignored_frames; // class << 8 | id of frames to leave unanswered
};

class receiver {
  public:
    explicit receiver(receiver_options options);
    ~receiver();
    receiver(const receiver &) = delete;
    receiver &operator=(const receiver &) = delete;

    // The two power lines; on needs both. Losing power clears all but the battery-backed memory.
    void set_power(bool gpio102, bool gpio37, double now);
    bool powered() const;

    // Bytes from the line, any amount, in any pieces.
    void input(std::span<const uint8_t> bytes, double now);

    // Messages that are complete at `now`, in order; each is one answer as it goes on the line.
    std::vector<std::vector<uint8_t>> take_output(double now);

    // When take_output has something to say without further input; empty = not by itself.
    std::optional<double> next_event() const;

    receiver_faults &faults();

    // One line of state for people: power, fix, configuration that differs from a fresh receiver.
    std::string describe(double now) const;

  private:
    struct state;
    std::unique_ptr<state> self;
};

} // namespace sim

#endif
