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

// One message that somebody waits for; lives on the waiting thread's stack. All guarded by
// location_client::lock from client_list to client_unlist.
struct client_waiter {
    uint8_t msg_type = LS_MSG_RESPONSE;
    uint32_t msg_id = 0;
    uint32_t txn_id = 0; // of a response
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
};

// The bus callback; runs on the bus library's receive thread.
int client_on_message(scm_conn *conn, bus_msg *msg) noexcept;

// From here on the message finds its waiter; the caller unlists it.
void client_list(location_client &client, client_waiter &waiter) noexcept;
// A late message finds no waiter any more. Harmless for a waiter that is not listed.
void client_unlist(location_client &client, client_waiter &waiter) noexcept;

// Takes the oldest update out of the queue; false when there is none. With the lock held.
bool client_take_update(location_client &client, ls_position_reply &update) noexcept;

// Fills and lists `waiter` and sends the request to the service. Unless the result is
// LOCATION_ANSWERED nothing was sent and the waiter is not listed.
location_result client_send_request(location_client &client, client_waiter &waiter, uint32_t msg_id,
                                    std::span<const uint8_t> payload) noexcept;
location_result client_send_notification(location_client &client, uint32_t msg_id,
                                         std::span<const uint8_t> payload) noexcept;

#endif
