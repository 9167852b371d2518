// The policy of the bus: which messages a service takes, and from whom. The file's format is in
// docs/bus.md.
//
// Thread contract: a policy is filled once by policy_read and constant afterwards.
#ifndef MQUTILS_POLICY_H
#define MQUTILS_POLICY_H

#include "mqutils_directory.h"
#include "mqutils_log.h"

#include <array>
#include <bitset>
#include <cstddef>
#include <cstdint>

namespace mqutils {

constexpr size_t MAX_POLICY_RULES = 128; // of one service

// One range of message ids of one line.
struct policy_rule {
    bool other;     // instead of the range: every id that no line for this service names
    uint32_t first; // to `last`, both included
    uint32_t last;
    unsigned types; // bit 1 << msg_type
    std::bitset<256> senders;
};

struct policy {
    bool restricts = false; // some line is for this service
    size_t count = 0;
    std::array<policy_rule, MAX_POLICY_RULES> rules{};
};

// What the file "policy" of the directory says for service `serv_id`; `read` must be new. 0, or an
// errno value: the file is the directory owner's and cannot be used, EBADMSG when it is no regular
// file, too long, or others may write to it. Absent, or somebody else's: nothing is restricted.
int policy_read(policy &read, const bus_directory &directory, uint8_t serv_id, log_target &log);

bool policy_allows(const policy &policy, uint32_t msg_id, uint8_t msg_type, uint8_t src_serv_id);

} // namespace mqutils

#endif
