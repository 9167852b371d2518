// The other services of the terminal on the bus: TA (board 2), SAL, VoIP and WS.
//
// They answer what those services answer and write down what they receive, decoded, one line each.
// Messages arrive on the threads of the bus library and are handled in the loop; everything else
// here is called on the thread of the loop.
#ifndef SIMULATOR_SERVICES_H
#define SIMULATOR_SERVICES_H

#include "ta.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

namespace sim {

// The terminal around the services: its loop, its serial line, its faults, its voice. All are
// called on the thread of the loop.
struct services_host {
    double (*now)(); // seconds, never decreasing
    // `handler` is called whenever `fd` is readable, until it is forgotten.
    void (*watch)(int fd, std::function<void()> handler);
    void (*forget)(int fd);
    // `handler` is called when `when` says so; empty = not now.
    void (*add_timer)(std::function<std::optional<double>()> when, std::function<void()> handler);
    void (*line_send)(std::span<const uint8_t> command); // board 2: to the receiver
    ta_faults &(*faults)();
    void (*tell)(const char *service, const std::string &what); // one line for people
};

// Registers the services on the bus in the directory `bus` (which MQUTILS_DIR names too) and logs
// to `log`. The TA exists on board 2 only; the terminal must be up. False: `error` names the step.
bool services_open(const services_host &around, int board, int32_t antenna, const std::string &bus,
                   const std::string &log, std::string &error);
void services_close(); // harmless when they are not there
bool services_are_open();

// Board 2: the receiver said something. False: there is no TA to hear it.
bool services_take_answer(std::span<const uint8_t> answer);

// The daemon tells VoIP the power status when it has started; services_forget_ready before one
// starts, and services_daemon_ready says when it has.
void services_forget_ready();
bool services_daemon_ready();

// What people make the services say. False: `error` says why it was not sent.
bool services_announce_antenna(uint32_t type, std::string &error); // TA; kept for the next daemon
bool services_request_location(std::string &error);                // SAL asks for LPP parameters
bool services_notify_cfun(uint8_t level, std::string &error);      // the modem's level, sent as SAL
bool services_notify_history(std::string &error);                  // WS: history settings changed

} // namespace sim

#endif
