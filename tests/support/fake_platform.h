// Recording fakes of the three platform libraries, linked in their place by the daemon's unit
// tests. What the daemon calls is recorded; what it reads is set here. Thread-safe.
#ifndef FAKE_PLATFORM_H
#define FAKE_PLATFORM_H

#include "dbhandler.h"
#include "mqutils.h"
#include "zukhal.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace fake {

using bytes = std::vector<uint8_t>;

struct sent_message {
    msg_hdr hdr;
    bytes payload;

    // The payload as a record; only for payloads of its size.
    template <typename Record>
    Record as() const {
        Record record = {};
        if (payload.size() == sizeof(record))
            memcpy(&record, payload.data(), sizeof(record));
        return record;
    }
};

// Everything back to its default and forgotten, the daemon's process-wide state included. Headers
// of failed sends, which the daemon deliberately keeps, are freed here.
void reset();

// Forgets the log alone.
void reset_log();
// Log lines of a level (3 error, 4 warning...) that contain `part`.
size_t count_logged(int level, std::string_view part);

std::vector<sent_message> sent();
// Waits until at least n messages were sent, 5 s at most; what was sent then.
std::vector<sent_message> wait_for_sent(size_t n);
// What send_msg returns from now on, and what it does besides (on the sender's thread).
inline std::atomic<int> send_result = 0;
void on_send(std::function<void(const sent_message &)> action);

// Votes given and taken with the daemon's state id; any other id is counted in `other`.
struct votes {
    int disabled, enabled, other;
    bool operator==(const votes &) const = default;
};
votes system_state_votes();
// Waits until as many votes were given back as taken, 5 s at most, and the workers are done.
bool wait_for_votes_returned();

// Settings database. Any write is recorded as the stored value; -1 = reads fail.
struct settings {
    int32_t power_on_status = 2;
    int power_on_writes = 0;
    location_history_settings history = {};
    bool fail = false;
};
settings &database();

// Platform timers: handles count from 1. Their intervals by handle - 1, 0 for one that was deleted.
std::vector<uint32_t> timers();
inline std::atomic<bool> timer_deletion_fails = false;

// A message as the bus would deliver it; the payload must outlive it.
bus_msg make_message(uint8_t type, uint32_t id, uint8_t from, bytes &payload, uint32_t txn_id = 77);
scm_conn *connection();
// Delivers a message as the bus would, and takes the payload's bytes back. The daemon's result.
int deliver(uint8_t type, uint32_t id, uint8_t from, bytes payload = {}, uint32_t txn_id = 77);
// The TA's answer to a 1416, said to have `cmd_len` bytes.
void deliver_ta_answer(std::string_view answer, uint32_t cmd_len);

} // namespace fake

#endif
