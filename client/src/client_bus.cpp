// liblocation_client, bus side: opening, closing, sending, and sorting what arrives.
//
// Threads: client_on_message runs on the bus library's receive thread and only copies under the
// client's lock; it never sends and never waits, so that the kernel's short queue cannot fill up.
#include "client_state.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>

namespace {

struct errno_result {
    int code;
    location_result result;
};

constexpr errno_result INIT_RESULTS[] = {
    {ENOENT, LOCATION_NO_BUS},     {ENOTDIR, LOCATION_NO_BUS},   {EADDRINUSE, LOCATION_ID_TAKEN},
    {EACCES, LOCATION_BUS_DENIED}, {EPERM, LOCATION_BUS_DENIED}, {EBUSY, LOCATION_BUS_LOCKED},
};

constexpr errno_result SEND_RESULTS[] = {
    {ENOENT, LOCATION_NO_DAEMON}, {ECONNREFUSED, LOCATION_NO_DAEMON},
    {EAGAIN, LOCATION_BUS_FULL},  {ETIMEDOUT, LOCATION_BUS_FULL},
    {ENOBUFS, LOCATION_BUS_FULL}, {EACCES, LOCATION_BUS_DENIED},
    {EPERM, LOCATION_BUS_DENIED},
};

// A bus library may wait for something at each id; 32 times in vain is too long.
constexpr std::chrono::seconds TOOL_ID_SEARCH{5};

location_result result_of_errno(std::span<const errno_result> table, int code) {
    const auto found = std::find_if(table.begin(), table.end(),
                                    [code](const errno_result &row) { return row.code == code; });
    return found == table.end() ? LOCATION_BUS_ERROR : found->result;
}

// The bus library wants its record zeroed before each attempt.
location_result connect_as(location_client &client, uint8_t serv_id) {
    client.link.conn = {};
    client.link.conn.on_message = client_on_message;
    client.serv_id = serv_id;
    errno = 0;
    if (scm_conn_init(&client.link.conn, serv_id) == 0)
        return LOCATION_ANSWERED;
    return result_of_errno(INIT_RESULTS, errno);
}

// Not every bus library says why an id cannot be had: whatever it says, the next id may do.
location_result connect_as_tool(location_client &client) {
    const client_clock::time_point last_try = client_clock::now() + TOOL_ID_SEARCH;
    bool taken = false;
    location_result result = LOCATION_IDS_EXHAUSTED;
    for (uint8_t id = LOCATION_CLIENT_TOOL_ID_FIRST;
         id <= LOCATION_CLIENT_TOOL_ID_LAST && client_clock::now() < last_try; ++id) {
        result = connect_as(client, id);
        if (result == LOCATION_ANSWERED)
            return result;
        taken = taken || result == LOCATION_ID_TAKEN;
    }
    return taken ? LOCATION_IDS_EXHAUSTED : result;
}

location_result send_filled(location_client &client, const msg_hdr &hdr,
                            std::span<const uint8_t> payload) {
    errno = 0;
    if (send_msg(&client.link.conn, &hdr, payload.empty() ? nullptr : payload.data()) != -1)
        return LOCATION_ANSWERED;
    return result_of_errno(SEND_RESULTS, errno);
}

size_t payload_size(const bus_msg &msg) {
    return msg.pld == nullptr ? 0 : msg.hdr.pld_len;
}

// A response to a command repeats it. One to another command, of a process that had this service id
// before, is not the answer. The refusal by the closed gate repeats nothing.
bool is_of_command(const client_waiter &waiter, const bus_msg &msg) {
    constexpr size_t at = offsetof(ls_engg_cmd, command);
    const size_t size = waiter.command.size();
    return size == 0 || payload_size(msg) != sizeof(ls_engg_cmd) ||
           std::memcmp(static_cast<const uint8_t *>(msg.pld) + at, waiter.command.data(), size) ==
               0;
}

bool is_for(const client_waiter &waiter, const bus_msg &msg) {
    if (waiter.done || waiter.msg_type != msg.hdr.msg_type || waiter.msg_id != msg.hdr.msg_id)
        return false;
    return waiter.msg_type != LS_MSG_RESPONSE ||
           (waiter.txn_id == msg.hdr.txn_id && is_of_command(waiter, msg));
}

// A response is of one request; the LPP record answers all who asked before it.
void take_awaited(location_client &client, const bus_msg &msg) {
    const size_t size = payload_size(msg);
    for (client_waiter *waiter = client.waiters; waiter != nullptr; waiter = waiter->next) {
        if (!is_for(*waiter, msg))
            continue;
        waiter->size = static_cast<uint32_t>(size);
        if (size != 0)
            std::memcpy(waiter->data.data(), msg.pld, std::min(size, waiter->data.size()));
        waiter->done = true;
        if (msg.hdr.msg_type == LS_MSG_RESPONSE)
            return;
    }
}

void take_update(location_client &client, const bus_msg &msg) {
    if (payload_size(msg) != sizeof(ls_position_reply)) {
        ++client.lost_updates;
        return;
    }
    if (client.num_updates == CLIENT_UPDATE_SLOTS) {
        client.first_update = (client.first_update + 1) % CLIENT_UPDATE_SLOTS;
        --client.num_updates;
        ++client.lost_updates;
    }
    const size_t slot = (client.first_update + client.num_updates) % CLIENT_UPDATE_SLOTS;
    std::memcpy(&client.updates[slot], msg.pld, sizeof(ls_position_reply));
    ++client.num_updates;
    client_tell_ready(client);
}

bool is_lpp(const bus_msg &msg) {
    return msg.hdr.msg_type == LS_MSG_REQUEST && msg.hdr.msg_id == SAL_REQUEST_GNSS_LOCATION &&
           payload_size(msg) == sizeof(gps_lpp_location);
}

} // namespace

int client_on_message(scm_conn *conn, bus_msg *msg) noexcept {
    // The record is the first member of its link.
    location_client &client = *reinterpret_cast<client_link *>(conn)->owner;
    if (msg == nullptr || msg->hdr.src_serv_id != LS_OWN_SERV_ID)
        return 0;
    {
        const std::lock_guard guard(client.lock);
        if (msg->hdr.msg_type == LS_MSG_NOTIFICATION &&
            msg->hdr.msg_id == LS_NOTIFY_PERIODIC_UPDATE)
            take_update(client, *msg);
        else if (msg->hdr.msg_type == LS_MSG_RESPONSE || is_lpp(*msg))
            take_awaited(client, *msg);
    }
    client.changed.notify_all();
    return 0;
}

bool client_take_update(location_client &client, ls_position_reply &update) noexcept {
    if (client.num_updates == 0)
        return false;
    update = client.updates[client.first_update];
    client.first_update = (client.first_update + 1) % CLIENT_UPDATE_SLOTS;
    --client.num_updates;
    client_tell_ready(client);
    return true;
}

location_result client_send_request(location_client &client, client_waiter &waiter, uint32_t msg_id,
                                    std::span<const uint8_t> payload) noexcept {
    msg_hdr hdr{};
    if (fill_request_hdr(&client.link.conn, &hdr, static_cast<uint32_t>(payload.size()), msg_id,
                         LS_OWN_SERV_ID) == -1)
        return LOCATION_BUS_ERROR;
    waiter.msg_id = msg_id;
    waiter.txn_id = hdr.txn_id;
    if (msg_id == LS_EXEC_NMEA_CMD || msg_id == LS_EXEC_UBX_CMD)
        waiter.command = payload.subspan(offsetof(ls_engg_cmd, command), LS_ENGG_CMD_SIZE);
    // Before it is sent: the reply may be faster than the return of the send.
    client_list(client, waiter);
    const location_result result = send_filled(client, hdr, payload);
    if (result != LOCATION_ANSWERED)
        client_unlist(client, waiter);
    return result;
}

location_result client_send_notification(location_client &client, uint32_t msg_id,
                                         std::span<const uint8_t> payload) noexcept {
    msg_hdr hdr{};
    if (fill_notif_hdr(&client.link.conn, &hdr, static_cast<uint32_t>(payload.size()), msg_id,
                       LS_OWN_SERV_ID) == -1)
        return LOCATION_BUS_ERROR;
    return send_filled(client, hdr, payload);
}

void client_list(location_client &client, client_waiter &waiter) noexcept {
    const std::lock_guard guard(client.lock);
    waiter.next = client.waiters;
    client.waiters = &waiter;
}

void client_unlist(location_client &client, client_waiter &waiter) noexcept {
    const std::lock_guard guard(client.lock);
    for (client_waiter **link = &client.waiters; *link != nullptr; link = &(*link)->next) {
        if (*link == &waiter) {
            *link = waiter.next;
            return;
        }
    }
}

location_result location_client_open(uint8_t serv_id, location_client **client) noexcept {
    if (client == nullptr)
        return LOCATION_BAD_ARGUMENT;
    *client = nullptr;
    if (serv_id == LS_OWN_SERV_ID)
        return LOCATION_BAD_ARGUMENT;
    auto *opened = new (std::nothrow) location_client;
    if (opened == nullptr)
        return LOCATION_NO_MEMORY;
    opened->link.owner = opened;
    const location_result result =
        serv_id == 0 ? connect_as_tool(*opened) : connect_as(*opened, serv_id);
    if (result != LOCATION_ANSWERED) {
        delete opened;
        return result;
    }
    *client = opened;
    return result;
}

void location_client_close(location_client *client) noexcept {
    if (client != nullptr) {
        client_end_started(*client);
        scm_conn_exit(&client->link.conn);
        delete client;
    }
}

uint8_t location_client_serv_id(const location_client *client) noexcept {
    return client == nullptr ? 0 : client->serv_id;
}

uint32_t location_client_power_seen(const location_client *client) noexcept {
    return client == nullptr ? 0 : client->power_seen.load();
}

uint32_t location_client_lost_updates(const location_client *client) noexcept {
    return client == nullptr ? 0 : client->lost_updates.load();
}

namespace {

void set_cancelled(location_client *client, bool cancelled) {
    if (client != nullptr) {
        {
            const std::lock_guard guard(client->lock);
            client->cancelled = cancelled;
        }
        client->changed.notify_all();
    }
}

} // namespace

void location_client_cancel(location_client *client) noexcept {
    set_cancelled(client, true);
}

void location_client_resume(location_client *client) noexcept {
    set_cancelled(client, false);
}
