// The table of bus connections: see mqutils_connection.h for the thread contract.

#include "mqutils_connection.h"

#include "ls_descriptor.h"

#include <array>
#include <cstring>

namespace mqutils {
namespace {

// What the 76 bytes of a record hold, at offset 0. Copied in and out: the record is plain bytes.
struct handle {
    uint32_t magic;
    uint32_t slot;
    uint32_t generation;
};
static_assert(sizeof(handle) <= sizeof(scm_conn::library));
static_assert(offsetof(scm_conn, on_message) % alignof(scm_msg_cb) == 0);

constexpr uint32_t HANDLE_MAGIC = 0x51434d53;
constexpr uint64_t OPEN_BIT = UINT64_C(1) << 31;
constexpr uint64_t REFERENCE_MASK = OPEN_BIT - 1;
constexpr unsigned GENERATION_SHIFT = 32;

// A service opens one; a simulator plays a handful. Entries are never freed, so a stale handle
// reads a generation, not freed memory.
constexpr size_t MAX_CONNECTIONS = 64;
std::array<connection, MAX_CONNECTIONS> connections;

static_assert(std::atomic<uint64_t>::is_always_lock_free, "used in signal handlers");
static_assert(std::atomic<pthread_t>::is_always_lock_free);

uint32_t generation_of(uint64_t word) {
    return static_cast<uint32_t>(word >> GENERATION_SHIFT);
}

handle handle_of(const scm_conn *record) {
    handle found{};
    std::memcpy(&found, record->library, sizeof found);
    return found;
}

connection *entry_of(const handle &wanted) {
    if (wanted.magic != HANDLE_MAGIC || wanted.slot >= MAX_CONNECTIONS)
        return nullptr;
    return &connections[wanted.slot];
}

bool is_open_as(uint64_t word, uint32_t generation) {
    return (word & OPEN_BIT) != 0 && generation_of(word) == generation;
}

} // namespace

connection *connection_reserve() {
    for (connection &conn : connections) {
        uint64_t word = conn.word.load(std::memory_order_relaxed);
        if ((word & (OPEN_BIT | REFERENCE_MASK)) != 0)
            continue;
        const uint64_t reserved = (uint64_t{generation_of(word) + 1U} << GENERATION_SHIFT) | 1U;
        if (conn.word.compare_exchange_strong(word, reserved, std::memory_order_acquire,
                                              std::memory_order_relaxed))
            return &conn;
    }
    return nullptr;
}

void connection_open(connection &conn, scm_conn *record) {
    const uint64_t word = conn.word.load(std::memory_order_relaxed);
    const handle given{HANDLE_MAGIC, static_cast<uint32_t>(&conn - connections.data()),
                       generation_of(word)};
    std::memcpy(record->library, &given, sizeof given);
    conn.record = record;
    conn.word.store((word | OPEN_BIT) + 1U, std::memory_order_release);
}

connection *connection_acquire(const scm_conn *record) {
    const handle wanted = handle_of(record);
    connection *conn = entry_of(wanted);
    if (conn == nullptr)
        return nullptr;
    uint64_t word = conn->word.load(std::memory_order_relaxed);
    do {
        if (!is_open_as(word, wanted.generation))
            return nullptr;
    } while (!conn->word.compare_exchange_weak(word, word + 1U, std::memory_order_acquire,
                                               std::memory_order_relaxed));
    if (conn->record != record) {
        connection_release(*conn);
        return nullptr;
    }
    return conn;
}

connection *connection_close(const scm_conn *record) {
    connection *conn = connection_acquire(record);
    if (conn == nullptr)
        return nullptr;
    // In one total order with the look of a send that has just opened a socket: see
    // mqutils_send.cpp.
    const uint64_t before = conn->word.fetch_and(~OPEN_BIT);
    connection_release(*conn);
    return (before & OPEN_BIT) != 0 ? conn : nullptr;
}

bool connection_is_open(const connection &conn) {
    return (conn.word.load() & OPEN_BIT) != 0;
}

void connection_release(connection &conn) {
    uint64_t word = conn.word.load(std::memory_order_acquire);
    for (;;) {
        if ((word & (OPEN_BIT | REFERENCE_MASK)) == 1U) {
            // Closed and ours alone: nobody can acquire it, nobody reserves it before the store.
            ls_close(conn.socket);
            for (std::atomic<int> &sender : conn.senders) {
                int held = sender.exchange(0, std::memory_order_relaxed) - 1;
                ls_close(held);
            }
            directory_close(conn.directory);
            conn.word.store(word - 1U, std::memory_order_release);
            return;
        }
        if (conn.word.compare_exchange_weak(word, word - 1U, std::memory_order_acq_rel,
                                            std::memory_order_acquire))
            return;
    }
}

} // namespace mqutils
