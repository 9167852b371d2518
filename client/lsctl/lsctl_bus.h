// lsctl: who is on the bus, and what this user may do there; and the advice that follows from it.
// Looks at files only: nothing is taken and nothing is sent.
#ifndef LSCTL_BUS_H
#define LSCTL_BUS_H

#include <cstdint>
#include <initializer_list>
#include <string>

enum class lsctl_place : uint8_t {
    open,   // nobody has the id, and this user may take it
    taken,  // a process has it
    closed, // nobody has it, and this user may not take it, or it cannot be seen
};
lsctl_place lsctl_look_at_place(uint32_t serv_id);

// "WS", "9": as --as takes it.
std::string lsctl_service_name(uint32_t serv_id);
// The id behind a name, whatever its case; 0 = none has it.
uint32_t lsctl_service_id(const std::string &name);

// What to type for the power mode ("on", "off") as one of the services that may change it: the
// first whose id this user can take; or who has to.
std::string lsctl_power_advice(const char *mode, std::initializer_list<uint32_t> may);

// "; as root: usermod -aG ..." for the groups of the bus that this user lacks; empty for none.
std::string lsctl_group_advice();

#endif
