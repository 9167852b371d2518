// The other services of the terminal on the bus: TA (board 2), SAL, VoIP and WS.
//
// They answer what those services answer and write down what they receive, decoded, one line each.
// Messages arrive on the threads of the bus library and are handled in the loop; everything else
// here is called on the thread of the loop.
#ifndef SIMULATOR_SERVICES_H
#define SIMULATOR_SERVICES_H

#include <cstdint>
#include <string>

namespace sim {

// Registers the services on the bus in the directory `bus` (which MQUTILS_DIR names too) and logs
// to `log`. The TA exists on board 2 only; the terminal must be up. False: `error` names the step.
bool services_open(int board, int32_t antenna, const std::string &bus, const std::string &log,
                   std::string &error);
void services_close(); // harmless when they are not there
bool services_are_open();

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
