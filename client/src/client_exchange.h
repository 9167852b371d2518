// Inside of liblocation_client: one call of a request, and its waits.
#ifndef CLIENT_EXCHANGE_H
#define CLIENT_EXCHANGE_H

#include "client_state.h"

// One call; its time-out counts from the making of this record.
struct client_call {
    location_client *client;
    std::chrono::milliseconds timeout;
    client_clock::time_point start = client_clock::now();
    const bool *abandoned = nullptr; // of a started request; guarded by the client's lock

    client_call(location_client *of, int64_t timeout_ms) : client(of), timeout(timeout_ms) {}
    client_clock::time_point deadline() const { return start + timeout; }
    // False without a client and for a time-out outside 1 ms to one day.
    bool valid() const {
        return client != nullptr && timeout >= std::chrono::milliseconds(1) &&
               timeout <= std::chrono::hours(24);
    }
};

// Unlists a waiter when its request is over, whichever way.
struct client_unlist_guard {
    location_client &client;
    client_waiter &waiter;
    client_unlist_guard(location_client &c, client_waiter &w) : client(c), waiter(w) {}
    client_unlist_guard(const client_unlist_guard &) = delete;
    client_unlist_guard &operator=(const client_unlist_guard &) = delete;
    ~client_unlist_guard() { client_unlist(client, waiter); }
};

// LOCATION_ANSWERED when `done()`, asked with the client's lock held and no more once it was true,
// came true before `until`; otherwise LOCATION_CANCELLED or LOCATION_NO_REPLY.
template <class condition>
location_result client_wait(const client_call &call, client_clock::time_point until,
                            const condition &done) {
    location_client &client = *call.client;
    bool is_done = false;
    bool cancelled = false;
    std::unique_lock held(client.lock);
    client.changed.wait_until(held, until, [&] {
        is_done = done();
        cancelled = client.cancelled || (call.abandoned != nullptr && *call.abandoned);
        return is_done || cancelled;
    });
    if (is_done)
        return LOCATION_ANSWERED;
    return cancelled ? LOCATION_CANCELLED : LOCATION_NO_REPLY;
}

enum class client_probing : uint8_t { no, yes };

// Waits for the waiter, until the call's deadline. With probing, when it is not there soon, finds
// out whether it can come at all.
location_result client_await(const client_call &call, const client_waiter &waiter,
                             client_probing probing) noexcept;

// One request and its reply, which is written only with LOCATION_ANSWERED and has exactly the
// wanted size. Only a send that the bus holds up can make it longer than its time-out.
location_result client_exchange(const client_call &call, uint32_t msg_id,
                                std::span<const uint8_t> payload, client_probing probing,
                                std::span<uint8_t> reply) noexcept;

#endif
