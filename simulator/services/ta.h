// The TA of board 2: it owns the receiver there and carries one command and its answer at a time
// for the location service.
//
// A state machine without bus, line, clock or threads: requests and answers of the line go in,
// commands for the line and replies for the bus come out. `now` in seconds, never decreasing.
#ifndef SIMULATOR_SERVICES_TA_H
#define SIMULATOR_SERVICES_TA_H

#include "gps_data.h"
#include "mqutils.h"

#include <climits>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace sim {

constexpr unsigned TA_LOSES_ALL = UINT_MAX;

struct ta_faults {
    unsigned lost = 0;           // so many replies are still to be lost, or TA_LOSES_ALL
    unsigned late_ms = 0;        // replies go out this much later
    unsigned claimed_length = 0; // length that replies claim instead of their own; 0 = their own
};

struct ta_request {
    msg_hdr hdr; // of the request, for the reply
    std::vector<uint8_t> command;
};

struct ta_reply {
    msg_hdr request;
    gps_data_req_pld payload;
    double due;
};

struct ta {
    std::deque<ta_request> waiting;
    std::optional<ta_request> current; // its command is on the line
    double patience_until = 0;         // when the receiver counts as silent
    std::vector<ta_reply> replies;     // not sent yet
};

// Takes a request. False: the payload is no receiver exchange, `error` says why, there is no reply.
bool ta_take_request(ta &unit, const msg_hdr &hdr, std::span<const uint8_t> payload,
                     std::string &error);

// The next command for the line, when the line is free for one.
std::optional<std::vector<uint8_t>> ta_next_command(ta &unit, double now);

// The receiver said something: the answer of the present exchange. Without one it is ignored.
void ta_take_answer(ta &unit, std::span<const uint8_t> answer, ta_faults &faults, double now);

// The replies that go on the bus now. An exchange that the receiver leaves unanswered for three
// seconds ends with an empty answer.
std::vector<ta_reply> ta_due_replies(ta &unit, ta_faults &faults, double now);

// When ta_due_replies has something to do; empty = not by itself.
std::optional<double> ta_next_event(const ta &unit);

// What the TA tells its receiver when it starts: no output without being asked.
std::vector<std::string> ta_start_commands();

} // namespace sim

#endif
