// liblocation_client, exchange side: one request, the wait for its reply, and what is found out
// when it does not come.
//
// Threads: the caller's. An exchange lists a waiter that lives on the caller's stack, sends, and
// waits on the client's condition variable; it never holds the lock while it sends.
#include "client_state.h"

#include <algorithm>
#include <cstring>

namespace {

using std::chrono::milliseconds;

// By then a query has its answer, unless it waits for others or the receiver: a position takes
// 0.3 s on a line of 9600 baud.
constexpr milliseconds PROBE_AFTER{2000};
// After the word that the receiver is off: a reply that was already under way may still come.
constexpr milliseconds PROBE_GRACE{400};

// Unlists a waiter when its request is over, whichever way.
struct unlist_guard {
    location_client &client;
    client_waiter &waiter;
    unlist_guard(location_client &c, client_waiter &w) : client(c), waiter(w) {}
    unlist_guard(const unlist_guard &) = delete;
    unlist_guard &operator=(const unlist_guard &) = delete;
    ~unlist_guard() { client_unlist(client, waiter); }
};

// The answer to any request while the gate is closed. A power mode is never all zero: a mode that
// was read has status 1.
bool is_refusal(const client_waiter &waiter) {
    return waiter.size == LS_REFUSED_REPLY_SIZE &&
           std::all_of(
               waiter.data.begin(), waiter.data.begin() + LS_REFUSED_REPLY_SIZE,
               [](uint8_t byte) { return byte == 0; });
}

bool is_done(const void *waiter) {
    return static_cast<const client_waiter *>(waiter)->done;
}

struct probed {
    client_condition done;
    const void *context;
    const client_waiter *probe;
};

bool is_done_or_probed(const void *context) {
    const auto *both = static_cast<const probed *>(context);
    return both->done(both->context) || both->probe->done;
}

// The service switches a receiver off behind an answer to SAL or VoIP when no request is under way,
// and the question would be one. Service 9 is served whatever the power mode.
bool may_probe(uint8_t serv_id) {
    return serv_id != LS_SERV_SAL && serv_id != LS_SERV_VOIP && serv_id != LS_SERV_CLIENT_9;
}

// What an answer to the question for the power mode says about a request without one.
location_result result_of_probe(location_client &client, const client_waiter &probe) {
    if (is_refusal(probe))
        return location_result::gate_closed;
    ls_power_reply power{};
    std::memcpy(&power, probe.data.data(), sizeof power);
    if (probe.size != sizeof power || power.power_mode == GPS_POWER_ON)
        return location_result::receiver_busy;
    client.power_seen = power.power_mode;
    return location_result::receiver_off;
}

} // namespace

bool client_timeout_valid(milliseconds timeout) noexcept {
    return timeout >= milliseconds(1) && timeout <= std::chrono::hours(24);
}

location_result client_end_of_wait(const location_client &client,
                                   location_result otherwise) noexcept {
    return client.cancelled ? location_result::cancelled : otherwise;
}

bool client_wait(location_client &client, std::unique_lock<std::mutex> &held,
                 client_clock::time_point deadline, client_condition done,
                 const void *context) noexcept {
    client.changed.wait_until(
        held, deadline, [&client, done, context] { return done(context) || client.cancelled; });
    return done(context);
}

location_result client_wait_or_diagnose(location_client &client, client_clock::time_point start,
                                        milliseconds timeout, client_condition done,
                                        const void *context) noexcept {
    const client_clock::time_point deadline = start + timeout;
    client_waiter probe;
    const unlist_guard unlist(client, probe);
    std::unique_lock held(client.lock);

    const client_clock::time_point probe_at =
        may_probe(client.serv_id) ? std::min(deadline, start + PROBE_AFTER) : deadline;
    if (client_wait(client, held, probe_at, done, context))
        return location_result::answered;
    if (client.cancelled || client_clock::now() >= deadline)
        return client_end_of_wait(client, location_result::no_reply);
    // The power mode is answered whatever state the receiver is in, at once unless a query runs.
    held.unlock();
    const location_result sent = client_send_request(client, probe, LS_REQUEST_GET_POWER_MODE, {});
    held.lock();
    if (sent == location_result::no_daemon && !done(context))
        return sent;
    const probed both{done, context, &probe};
    client_wait(client, held, deadline, is_done_or_probed, &both);
    if (done(context))
        return location_result::answered;
    if (!probe.done)
        return client_end_of_wait(client, location_result::no_reply);
    const location_result why = result_of_probe(client, probe);
    const client_clock::time_point last =
        why == location_result::receiver_busy
            ? deadline
            : std::min(deadline, client_clock::now() + PROBE_GRACE);
    return client_wait(client, held, last, done, context) ? location_result::answered
                                                          : client_end_of_wait(client, why);
}

location_result client_exchange(location_client &client, uint32_t msg_id,
                                std::span<const uint8_t> payload, milliseconds timeout,
                                client_probing probing, std::span<uint8_t> reply) noexcept {
    const client_clock::time_point start = client_clock::now();
    client_waiter waiter;
    const unlist_guard unlist(client, waiter);
    location_result result = client_send_request(client, waiter, msg_id, payload);
    if (result != location_result::answered)
        return result;
    if (probing == client_probing::yes) {
        result = client_wait_or_diagnose(client, start, timeout, is_done, &waiter);
    } else {
        std::unique_lock held(client.lock);
        if (!client_wait(client, held, start + timeout, is_done, &waiter))
            result = client_end_of_wait(client, location_result::no_reply);
    }
    if (result != location_result::answered)
        return result;
    // A failed power change looks the same; its caller tells the two apart.
    if (is_refusal(waiter) && msg_id != LS_REQUEST_SET_POWER_MODE)
        return location_result::gate_closed;
    if (waiter.size != reply.size())
        return location_result::bad_reply;
    std::memcpy(reply.data(), waiter.data.data(), reply.size());
    return result;
}
