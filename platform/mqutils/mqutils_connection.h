// The table of bus connections of this process.
//
// The record that the service holds carries no state, only a handle into this table. A connection
// stays in the table until the last thread that uses it lets go: so a send that races with
// scm_conn_exit never touches a descriptor that is closed, or worse, reused.
//
// Thread contract: every function may be called from any thread; connection_acquire,
// connection_release and connection_is_open also from a signal handler (no lock, no allocation).
#ifndef MQUTILS_CONNECTION_H
#define MQUTILS_CONNECTION_H

#include "mqutils.h"
#include "mqutils_directory.h"

#include <pthread.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace mqutils {

constexpr size_t MAX_DATAGRAM_BYTES = 65536;
constexpr size_t MAX_SERVICES = 256; // ids 0 to 255
constexpr size_t MAX_PAYLOAD_BYTES = MAX_DATAGRAM_BYTES - sizeof(msg_hdr);

struct receive_buffer;

struct connection {
    // generation (bits 63..32), open (bit 31), references (bits 30..0)
    std::atomic<uint64_t> word{0};

    // Transaction ids: how many were given out, and the first of them.
    std::atomic<uint64_t> transactions{0};
    uint32_t first_txn_id = 0;

    // Written by scm_conn_init before the connection opens, constant until its last reference.
    scm_conn *record = nullptr;
    scm_msg_cb on_message = nullptr;
    uint8_t serv_id = 0;
    bool log_to_stderr = false;
    int send_timeout_ms = 0;
    int socket = -1;          // bound to <directory>/<serv_id>; receives
    pid_t process = 0;        // a forked child has no receive thread and must not remove the socket
    bus_directory directory;  // owns its descriptor
    socket_identity identity; // of our socket file

    // The receive thread's: made by scm_conn_init, deleted by the thread.
    receive_buffer *buffer = nullptr;

    // The sending socket of each peer, by its id: descriptor + 1, 0 = none yet. Set once by the
    // first send to that peer, closed with the connection.
    std::array<std::atomic<int>, MAX_SERVICES> senders{};

    std::atomic<bool> stop{false}; // the receive thread is to end
    // Known before the first callback and before scm_conn_init returns.
    std::atomic<pthread_t> receiver{};
};

// A free entry, closed, with one reference for the caller; null when all are taken.
connection *connection_reserve();

// Writes the handle into `record` and opens the connection with one more reference, which the
// receive thread gives back.
void connection_open(connection &conn, scm_conn *record);

// The open connection of `record` with one more reference; null when the record was never opened,
// is closed, or is a copy of the one that was.
connection *connection_acquire(const scm_conn *record);

// Closes the connection of `record` to new users. Of several callers one gets the connection (and
// the reference of scm_conn_init with it), the others null.
connection *connection_close(const scm_conn *record);

bool connection_is_open(const connection &conn);

// Gives one reference back; the last one of a closed connection closes its descriptors.
void connection_release(connection &conn);

} // namespace mqutils

#endif
