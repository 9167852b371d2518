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
#include <variant>

#include <pthread.h>
#include <unistd.h>

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

// What a started request is about and, when it is over, what there is to take.
struct client_nothing {};
using client_value =
    std::variant<client_nothing, uint32_t, gps_pos_data, ls_time_reply, gps_sat_info,
                 gps_speed_data, ls_engg_cmd, ls_history_path_reply, gps_lpp_location>;
struct client_call;
struct client_task {
    location_result (*run)(const client_call &call, client_task &task) noexcept = nullptr;
    client_value value{};
    uint32_t msg_id = 0;                          // of an engineering command
    std::array<char, LS_ENGG_CMD_SIZE> command{}; // the command
    uint32_t power_mode = 0;                      // of a change
    ls_register_periodic_req_pld_s wanted{};      // of a registration
};

// A place for a started request. Its thread is started with its first request and kept for the next
// ones. All guarded by location_client::lock, but for the task while the thread runs it.
enum class client_stage : uint8_t { idle, started, running, over };
struct client_place {
    location_client *owner = nullptr;
    pthread_t thread{};
    bool has_thread = false;
    client_stage stage = client_stage::idle;
    bool abandoned = false;
    uint32_t ticket = 0;
    client_clock::time_point start{}; // of the request
    std::chrono::milliseconds timeout{};
    client_task task{};
    location_result result = LOCATION_PENDING;
    uint64_t over_as = 0; // its number among the requests that are over
};

constexpr size_t CLIENT_UPDATE_SLOTS = 64;

struct location_client {
    client_link link{};
    uint8_t serv_id = 0;
    pid_t process = getpid(); // that has the threads
    std::atomic<uint32_t> lost_updates{0};
    std::atomic<uint32_t> power_seen{GPS_POWER_OFF}; // mode behind the last receiver_off

    std::mutex lock; // guards everything below
    std::condition_variable changed;
    bool cancelled = false;
    client_waiter *waiters = nullptr;
    std::array<ls_position_reply, CLIENT_UPDATE_SLOTS> updates{}; // ring
    size_t first_update = 0;
    size_t num_updates = 0;

    std::array<client_place, LOCATION_CLIENT_MAX_STARTED> places{};
    std::condition_variable work; // for the threads of the places
    bool closing = false;
    uint32_t last_ticket = 0;
    uint64_t num_over = 0;
    int ready_fd = -1;       // eventfd; -1 = not asked for yet
    bool ready_said = false; // the descriptor is readable
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

// --- client_started.cpp ---

// Makes the descriptor readable or not, as it is to be. With the lock held, after every change.
void client_tell_ready(location_client &client) noexcept;
// Ends the threads, what they do, and the descriptor.
void client_end_started(location_client &client) noexcept;

#endif
