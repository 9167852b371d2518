// liblocation_client, exchange side: one request, the wait for its reply, and what is found out
// when it does not come.
//
// Threads: the caller's. An exchange lists a waiter that lives on the caller's stack, sends, and
// waits on the client's condition variable; it never holds the lock while it sends.
#include "client_exchange.h"

#include <algorithm>
#include <cstring>

namespace {

using std::chrono::milliseconds;

// By then a query has its answer, unless it waits for others or the receiver: a position takes
// 0.3 s on a line of 9600 baud.
constexpr milliseconds PROBE_AFTER{2000};
// After the word that the receiver is off: a reply that was already under way may still come.
constexpr milliseconds PROBE_GRACE{400};

// The answer to any request while the gate is closed. A power mode is never all zero: a mode that
// was read has status 1.
bool is_refusal(const client_waiter &waiter) {
    return waiter.size == LS_REFUSED_REPLY_SIZE &&
           std::all_of(
               waiter.data.begin(), waiter.data.begin() + LS_REFUSED_REPLY_SIZE,
               [](uint8_t byte) { return byte == 0; });
}

// The service switches a receiver off behind an answer to SAL or VoIP when no request is under way,
// and the question would be one. Service 9 is served whatever the power mode.
bool may_probe(uint8_t serv_id) {
    return serv_id != LS_SERV_SAL && serv_id != LS_SERV_VOIP && serv_id != LS_SERV_CLIENT_9;
}

// What an answer to the question for the power mode says about a request without one.
location_result result_of_probe(location_client &client, const client_waiter &probe) {
    if (is_refusal(probe))
        return LOCATION_GATE_CLOSED;
    ls_power_reply power{};
    std::memcpy(&power, probe.data.data(), sizeof power);
    if (probe.size != sizeof power || power.power_mode == GPS_POWER_ON)
        return LOCATION_RECEIVER_BUSY;
    client.power_seen = power.power_mode;
    return LOCATION_RECEIVER_OFF;
}

// The second request of a call that waits in vain: the power mode, which is answered whatever state
// the receiver is in, at once unless a query runs. Waits on meanwhile.
location_result ask_power_and_await(const client_call &call, const client_waiter &waiter) {
    client_waiter probe;
    const client_unlist_guard unlist(*call.client, probe);
    const auto is_done = [&waiter] { return waiter.done; };
    location_result why = client_send_request(*call.client, probe, LS_REQUEST_GET_POWER_MODE, {});
    client_clock::time_point last = client_clock::now();
    if (why != LOCATION_NO_DAEMON) {
        bool done = false;
        const location_result result = client_wait(call, call.deadline(), [&] {
            done = waiter.done;
            return done || probe.done;
        });
        if (done || result != LOCATION_ANSWERED)
            return result;
        why = result_of_probe(*call.client, probe);
        last = why == LOCATION_RECEIVER_BUSY
                   ? call.deadline()
                   : std::min(call.deadline(), client_clock::now() + PROBE_GRACE);
    }
    const location_result result = client_wait(call, last, is_done);
    return result == LOCATION_NO_REPLY ? why : result;
}

} // namespace

location_result client_await(const client_call &call, const client_waiter &waiter,
                             client_probing probing) noexcept {
    const bool probe = probing == client_probing::yes && may_probe(call.client->serv_id);
    const client_clock::time_point until =
        probe ? std::min(call.deadline(), call.start + PROBE_AFTER) : call.deadline();
    const location_result result = client_wait(call, until, [&waiter] { return waiter.done; });
    return probe && result == LOCATION_NO_REPLY && client_clock::now() < call.deadline()
               ? ask_power_and_await(call, waiter)
               : result;
}

location_result client_exchange(const client_call &call, uint32_t msg_id,
                                std::span<const uint8_t> payload, client_probing probing,
                                std::span<uint8_t> reply) noexcept {
    client_waiter waiter;
    const client_unlist_guard unlist(*call.client, waiter);
    location_result result = client_send_request(*call.client, waiter, msg_id, payload);
    if (result == LOCATION_ANSWERED)
        result = client_await(call, waiter, probing);
    if (result != LOCATION_ANSWERED)
        return result;
    // A failed power change looks the same; its caller tells the two apart.
    if (is_refusal(waiter) && msg_id != LS_REQUEST_SET_POWER_MODE)
        return LOCATION_GATE_CLOSED;
    if (waiter.size != reply.size())
        return LOCATION_BAD_REPLY;
    std::memcpy(reply.data(), waiter.data.data(), reply.size());
    return result;
}
