// Recording fakes of the three platform libraries, linked in their place by the daemon's unit
// tests. What the daemon calls is recorded; what it reads is set here.
#ifndef FAKE_PLATFORM_H
#define FAKE_PLATFORM_H

#include "dbhandler.h"
#include "mqutils.h"
#include "zukhal.h"

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

// Everything back to its default and forgotten, the daemon's process-wide state included.
void reset();

// Forgets the log alone.
void reset_log();
// Log lines of a level (3 error, 4 warning...) that contain `part`.
size_t count_logged(int level, std::string_view part);

// Waits until at least n messages were sent, 5 s at most; what was sent then.
std::vector<sent_message> wait_for_sent(size_t n);
inline std::vector<sent_message> sent() {
    return wait_for_sent(0);
}
// What a send does from now on, on the sender's thread.
void on_send(std::function<void(const sent_message &)> action);

// Votes given and taken with the daemon's state id.
struct votes {
    int disabled, enabled;
    bool operator==(const votes &) const = default;
};
votes system_state_votes();
// Waits for the workers; whether as many votes were given back as taken, and any at all.
bool wait_for_votes_returned();

// Settings database and what else answers. Any write is recorded as the stored value. Whoever sets
// or reads this waits until no worker is under way.
struct settings {
    int32_t power_on_status = 2;
    int power_on_writes = 0;
    int power_on_write_result = 0;
    location_history_settings history = {};
    int registration_result = 0; // of scm_conn_init
};
inline settings &database() {
    static settings stored;
    return stored;
}

// Platform timers: handles count from 1. Their intervals by handle - 1, 0 for one that was deleted.
// Whoever reads them waits as above.
inline std::vector<uint32_t> timers;

// A message with transaction id 77 as the bus would deliver it; the payload must outlive it.
bus_msg make_message(uint8_t type, uint32_t id, uint8_t from, bytes &payload);
inline scm_conn *connection() {
    static scm_conn conn;
    return &conn;
}
// Delivers a message as the bus would, and takes the payload's bytes back. The daemon's result.
int deliver(uint8_t type, uint32_t id, uint8_t from, bytes payload = {});
// The TA's answer to a 1416, said to have `cmd_len` bytes.
void deliver_ta_answer(std::string_view answer, uint32_t cmd_len);

} // namespace fake

#endif
