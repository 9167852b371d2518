// Inside of liblocation_client: the state of one client and the steps that its files share.
#ifndef CLIENT_STATE_H
#define CLIENT_STATE_H

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <span>

#include "location_client.h"
#include "mqutils.h"

using client_clock = std::chrono::steady_clock;

// One reply that somebody waits for; lives on the waiting thread's stack. All guarded by
// location_client::lock from client_list to client_unlist.
struct client_waiter {
    uint32_t msg_id = 0;
    uint32_t txn_id = 0;
    std::span<const uint8_t>
        command{}; // what the response has to repeat; the sender's; may be empty
    bool done = false;
    uint32_t size = 0; // payload bytes on the wire, may exceed what data holds
    std::array<uint8_t, sizeof(ls_engg_cmd)> data{};
    client_waiter *next = nullptr;
};

// The bus library hands its record back to the callback; the client is found behind it.
struct client_link {
    scm_conn conn;
    location_client *owner;
};

constexpr size_t CLIENT_UPDATE_SLOTS = 64;

struct location_client {
    client_link link{};
    uint8_t serv_id = 0;
    std::atomic<uint32_t> lost_updates{0};
    std::atomic<uint32_t> power_seen{GPS_POWER_OFF}; // mode behind the last receiver_off

    std::mutex lock; // guards everything below
    std::condition_variable changed;
    bool cancelled = false;
    client_waiter *waiters = nullptr;
    std::array<ls_position_reply, CLIENT_UPDATE_SLOTS> updates{}; // ring
    size_t first_update = 0;
    size_t num_updates = 0;
    uint64_t lpp_count = 0; // requests 19 so far: each answers all who asked before it
    gps_lpp_location lpp{}; // of the last one
};

// The bus callback; runs on the bus library's receive thread.
int client_on_message(scm_conn *conn, bus_msg *msg) noexcept;

// Fills and lists `waiter` and sends the request to the service. Unless the result is `answered`
// nothing was sent and the waiter is not listed.
location_result client_send_request(location_client &client, client_waiter &waiter, uint32_t msg_id,
                                    std::span<const uint8_t> payload) noexcept;
location_result client_send_notification(location_client &client, uint32_t msg_id,
                                         std::span<const uint8_t> payload) noexcept;
// A late reply finds no waiter any more. Harmless for a waiter that is not listed.
void client_unlist(location_client &client, client_waiter &waiter) noexcept;

// False for a time-out outside 1 ms to one day.
bool client_timeout_valid(std::chrono::milliseconds timeout) noexcept;

// What is waited for; called with the client's lock held.
using client_condition = bool (*)(const void *context);

// True when the condition came true before the deadline; a cancelled wait ends early.
bool client_wait(location_client &client, std::unique_lock<std::mutex> &held,
                 client_clock::time_point deadline, client_condition done,
                 const void *context) noexcept;

// `cancelled`, or what else is known of a wait that ended without a reply. With the lock held.
location_result client_end_of_wait(const location_client &client,
                                   location_result otherwise) noexcept;

// Waits for the condition, which was asked for at `start`. When it does not come true soon, finds
// out whether it can at all.
location_result client_wait_or_diagnose(location_client &client, client_clock::time_point start,
                                        std::chrono::milliseconds timeout, client_condition done,
                                        const void *context) noexcept;

enum class client_probing : uint8_t { no, yes };

// One request and its reply, which is written only on `answered` and has exactly the wanted size.
// The time-out counts from the call: only a send that the bus holds up can make it longer.
location_result client_exchange(location_client &client, uint32_t msg_id,
                                std::span<const uint8_t> payload, std::chrono::milliseconds timeout,
                                client_probing probing, std::span<uint8_t> reply) noexcept;

#endif
