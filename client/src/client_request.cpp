// liblocation_client, request side: one exchange with the service, and the typed requests.
//
// Threads: the caller's. A request lists a waiter that lives on the caller's stack, sends, and
// waits on the client's condition variable; it never holds the lock while it sends.
#include "client_state.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace {

using std::chrono::milliseconds;

// A reply that needs no receiver is here by then.
constexpr milliseconds PROBE_AFTER{300};
// After the word that the receiver is off: a reply that was already under way may still come.
constexpr milliseconds PROBE_GRACE{400};
// Least time for the second request of a power change.
constexpr milliseconds CONFIRM_AT_LEAST{1000};

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
           std::all_of(waiter.data.begin(), waiter.data.begin() + LS_REFUSED_REPLY_SIZE,
                       [](uint8_t byte) { return byte == 0; });
}

// True when `done` came true before the deadline. The lock is held on both sides.
template <class predicate>
bool wait_for(location_client &client, std::unique_lock<std::mutex> &held,
              client_clock::time_point deadline, predicate done) {
    client.changed.wait_until(held, deadline,
                              [&client, &done] { return done() || client.cancelled; });
    return done();
}

// What is known when a wait ended without a reply.
location_result end_of_wait(const location_client &client, location_result otherwise) {
    return client.cancelled ? location_result::cancelled : otherwise;
}

// Waits for `done`. When it does not come soon, finds out whether it can come at all: the power
// mode is answered whatever state the receiver is in, at once unless a query is running.
template <class predicate>
location_result wait_or_diagnose(location_client &client, milliseconds timeout, predicate done) {
    const client_clock::time_point start = client_clock::now();
    const client_clock::time_point deadline = start + timeout;
    client_waiter probe;
    const unlist_guard unlist(client, probe);
    std::unique_lock held(client.lock);

    const bool may_probe = client.serv_id != LS_SERV_VOIP;
    if (wait_for(client, held, may_probe ? std::min(deadline, start + PROBE_AFTER) : deadline,
                 done)) {
        return location_result::answered;
    }
    if (client.cancelled || client_clock::now() >= deadline) {
        return end_of_wait(client, location_result::no_reply);
    }
    held.unlock();
    const location_result sent = client_send_request(client, probe, LS_REQUEST_GET_POWER_MODE, {});
    held.lock();
    if (sent == location_result::no_daemon && !done()) {
        return sent;
    }
    wait_for(client, held, deadline, [&] { return done() || probe.done; });
    if (done()) {
        return location_result::answered;
    }
    if (!probe.done) {
        return end_of_wait(client, location_result::no_reply);
    }
    ls_power_reply power{};
    std::memcpy(&power, probe.data.data(), sizeof power);
    location_result why = location_result::receiver_off;
    if (is_refusal(probe)) {
        why = location_result::gate_closed;
    } else if (power.power_mode == GPS_POWER_ON || probe.size != sizeof power) {
        why = location_result::receiver_busy;
    } else {
        client.power_seen = power.power_mode;
    }
    const client_clock::time_point last =
        why == location_result::receiver_busy
            ? deadline
            : std::min(deadline, client_clock::now() + PROBE_GRACE);
    return wait_for(client, held, last, done) ? location_result::answered
                                              : end_of_wait(client, why);
}

enum class probing { no, yes };

// One exchange; on `answered` the reply has the size of its record, its status is not looked at.
template <class record>
location_result exchange(location_client *client, uint32_t msg_id, std::span<const uint8_t> payload,
                         milliseconds timeout, probing probe, record &reply) {
    static_assert(std::is_trivially_copyable_v<record>);
    static_assert(sizeof(record) <= sizeof(client_waiter::data));
    reply = {};
    if (client == nullptr || !client_timeout_valid(timeout)) {
        return location_result::bad_argument;
    }
    client_waiter waiter;
    const unlist_guard unlist(*client, waiter);
    location_result result = client_send_request(*client, waiter, msg_id, payload);
    if (result != location_result::answered) {
        return result;
    }
    const auto done = [&waiter] { return waiter.done; };
    if (probe == probing::yes) {
        result = wait_or_diagnose(*client, timeout, done);
    } else {
        std::unique_lock held(client->lock);
        if (!wait_for(*client, held, client_clock::now() + timeout, done)) {
            result = end_of_wait(*client, location_result::no_reply);
        }
    }
    if (result != location_result::answered) {
        return result;
    }
    if (is_refusal(waiter) && msg_id != LS_REQUEST_SET_POWER_MODE) {
        return location_result::gate_closed;
    }
    if (waiter.size != sizeof(record)) {
        return location_result::bad_reply;
    }
    std::memcpy(&reply, waiter.data.data(), sizeof(record));
    return result;
}

location_result result_of_status(uint32_t status) {
    switch (status) {
    case LS_STATUS_OK:
        return location_result::answered;
    case LS_STATUS_FAILED:
        return location_result::failed;
    case LS_STATUS_PASSED_THROUGH:
        return location_result::receiver_timeout;
    default:
        return location_result::bad_reply;
    }
}

// A receiver query without payload whose reply begins with the status word.
template <class record>
location_result query(location_client *client, uint32_t msg_id, milliseconds timeout,
                      record &reply) {
    location_result result = exchange(client, msg_id, {}, timeout, probing::yes, reply);
    if (result == location_result::answered) {
        result = result_of_status(reply.status);
    }
    if (result != location_result::answered) {
        reply = {};
    }
    return result;
}

template <class record>
std::span<const uint8_t> bytes_of(const record &value) {
    static_assert(std::is_trivially_copyable_v<record>);
    return {reinterpret_cast<const uint8_t *>(&value), sizeof value};
}

location_result exec(location_client *client, uint32_t msg_id, milliseconds timeout,
                     std::string_view text, location_client_answer *answer) {
    ls_engg_cmd command{};
    text.copy(command.command, sizeof command.command - 1);
    ls_engg_cmd reply;
    location_result result =
        exchange(client, msg_id, bytes_of(command), timeout, probing::yes, reply);
    if (result == location_result::answered) {
        result = result_of_status(reply.status);
    }
    if (result == location_result::answered) {
        std::memcpy(answer->data(), reply.answer, sizeof reply.answer);
    }
    return result;
}

// Length, or 0 when it does not fit with its NUL.
size_t write_ubx_text(std::span<const uint8_t> frame, std::array<char, LS_ENGG_CMD_SIZE> &text,
                      bool two_digits) {
    size_t length = 0;
    for (const uint8_t byte : frame) {
        char piece[5];
        const int size = two_digits
                             ? std::snprintf(piece, sizeof piece, "%s%02X", length ? "," : "", byte)
                             : std::snprintf(piece, sizeof piece, "%s%X", length ? "," : "", byte);
        if (size < 0 || length + static_cast<size_t>(size) >= text.size()) {
            return 0;
        }
        std::memcpy(text.data() + length, piece, static_cast<size_t>(size));
        length += static_cast<size_t>(size);
    }
    text[length] = '\0';
    return length;
}

} // namespace

bool client_timeout_valid(milliseconds timeout) noexcept {
    return timeout >= milliseconds(1) && timeout <= std::chrono::hours(24);
}

location_result location_client_get_power(location_client *client, milliseconds timeout,
                                          uint32_t *mode) noexcept {
    if (mode == nullptr) {
        return location_result::bad_argument;
    }
    ls_power_reply reply;
    location_result result =
        exchange(client, LS_REQUEST_GET_POWER_MODE, {}, timeout, probing::no, reply);
    if (result == location_result::answered) {
        result = result_of_status(reply.status);
    }
    *mode = result == location_result::answered ? reply.power_mode : 0;
    return result;
}

location_result location_client_set_power(location_client *client, milliseconds timeout,
                                          uint32_t mode, uint32_t *in_force) noexcept {
    const client_clock::time_point start = client_clock::now();
    uint32_t now_in_force = 0;
    ls_power_reply reply;
    location_result result =
        exchange(client, LS_REQUEST_SET_POWER_MODE, bytes_of(mode), timeout, probing::no, reply);
    if (result == location_result::answered) {
        result = result_of_status(reply.status);
        now_in_force = reply.power_mode;
    }
    if (result == location_result::failed) {
        // A failed change and the closed gate look the same on the wire; the mode tells them apart.
        const auto spent = std::chrono::duration_cast<milliseconds>(client_clock::now() - start);
        const location_result read = location_client_get_power(
            client, std::max(timeout - spent, CONFIRM_AT_LEAST), &now_in_force);
        if (read != location_result::answered) {
            result = read;
        }
    }
    if (in_force != nullptr) {
        *in_force = now_in_force;
    }
    return result;
}

location_result location_client_get_position(location_client *client, milliseconds timeout,
                                             gps_pos_data *position) noexcept {
    if (position == nullptr) {
        return location_result::bad_argument;
    }
    ls_position_reply reply;
    const location_result result = query(client, LS_REQUEST_GET_POSITION, timeout, reply);
    *position = reply.pos;
    return result;
}

location_result location_client_get_time(location_client *client, milliseconds timeout,
                                         gps_time_fields *utc, uint32_t *time_of_week) noexcept {
    if (utc == nullptr || time_of_week == nullptr) {
        return location_result::bad_argument;
    }
    ls_time_reply reply;
    const location_result result = query(client, LS_REQUEST_GET_TIME, timeout, reply);
    *utc = reply.time;
    *time_of_week = reply.time_of_week;
    return result;
}

location_result location_client_get_satellites(location_client *client, milliseconds timeout,
                                               gps_sat_info *info) noexcept {
    if (info == nullptr) {
        return location_result::bad_argument;
    }
    ls_sat_info_reply reply;
    const location_result result = query(client, LS_REQUEST_GET_SAT_INFO, timeout, reply);
    *info = reply.info;
    return result;
}

location_result location_client_get_speed(location_client *client, milliseconds timeout,
                                          gps_speed_data *speed) noexcept {
    if (speed == nullptr) {
        return location_result::bad_argument;
    }
    ls_speed_reply reply;
    const location_result result = query(client, LS_REQUEST_GET_SPEED, timeout, reply);
    *speed = reply.speed;
    return result;
}

location_result location_client_exec_nmea(location_client *client, milliseconds timeout,
                                          std::string_view body,
                                          location_client_answer *answer) noexcept {
    if (answer == nullptr) {
        return location_result::bad_argument;
    }
    *answer = {};
    const auto acceptable = [](char c) { return c >= ' ' && c <= '~' && c != '$' && c != '*'; };
    if (body.empty() || body.size() >= LS_ENGG_CMD_SIZE ||
        !std::all_of(body.begin(), body.end(), acceptable)) {
        return location_result::bad_argument;
    }
    return exec(client, LS_EXEC_NMEA_CMD, timeout, body, answer);
}

size_t location_client_ubx_text(std::span<const uint8_t> frame,
                                std::array<char, LS_ENGG_CMD_SIZE> *text) noexcept {
    if (text == nullptr) {
        return 0;
    }
    const size_t length = write_ubx_text(frame, *text, true);
    return length != 0 ? length : write_ubx_text(frame, *text, false);
}

location_result location_client_exec_ubx(location_client *client, milliseconds timeout,
                                         std::span<const uint8_t> frame,
                                         location_client_answer *answer) noexcept {
    constexpr size_t overhead = 8; // sync, class, id, length, checksum
    if (answer == nullptr) {
        return location_result::bad_argument;
    }
    *answer = {};
    if (frame.size() < overhead || frame[0] != 0xB5 || frame[1] != 0x62 ||
        static_cast<size_t>(frame[4] | frame[5] << 8) != frame.size() - overhead) {
        return location_result::bad_argument;
    }
    std::array<char, LS_ENGG_CMD_SIZE> text{};
    const size_t length = location_client_ubx_text(frame, &text);
    if (length == 0) {
        return location_result::bad_argument;
    }
    return exec(client, LS_EXEC_UBX_CMD, timeout, {text.data(), length}, answer);
}

location_result location_client_get_history_path(location_client *client, milliseconds timeout,
                                                 ls_history_path_reply *reply) noexcept {
    if (reply == nullptr) {
        return location_result::bad_argument;
    }
    const location_result result =
        exchange(client, LS_REQUEST_GET_HISTORY_FILE_PATH, {}, timeout, probing::yes, *reply);
    reply->path[sizeof reply->path - 1] = '\0';
    if (result == location_result::answered && reply->status != 0) {
        return location_result::failed;
    }
    return result;
}

location_result location_client_get_lpp(location_client *client, milliseconds timeout,
                                        gps_lpp_location *lpp) noexcept {
    if (lpp == nullptr) {
        return location_result::bad_argument;
    }
    *lpp = {};
    if (client == nullptr || client->serv_id != LS_SERV_SAL || !client_timeout_valid(timeout)) {
        return location_result::bad_argument;
    }
    {
        const std::lock_guard guard(client->lock);
        client->lpp_wanted = true;
        client->lpp_here = false;
    }
    location_result result = client_send_notification(
        *client, SAL_REQUEST_PROVIDE_GNSS_LOCATION_TO_CP, bytes_of(gps_lpp_location{}));
    if (result == location_result::answered) {
        result = wait_or_diagnose(*client, timeout, [client] { return client->lpp_here; });
    }
    const std::lock_guard guard(client->lock);
    client->lpp_wanted = false;
    if (result == location_result::answered) {
        *lpp = client->lpp;
    }
    return result;
}

location_result location_client_register_periodic(location_client *client, milliseconds timeout,
                                                  uint32_t num_updates,
                                                  uint32_t interval_s) noexcept {
    if (num_updates == 0 || interval_s < LOCATION_CLIENT_MIN_INTERVAL_S) {
        return location_result::bad_argument;
    }
    const ls_register_periodic_req_pld_s wanted{num_updates, interval_s};
    ls_periodic_reply reply;
    const location_result result = exchange(client, LS_REQUEST_REGISTER_PERIODIC_UPDATE,
                                            bytes_of(wanted), timeout, probing::yes, reply);
    return result == location_result::answered ? result_of_status(reply.result) : result;
}

location_result location_client_unregister_periodic(location_client *client,
                                                    milliseconds timeout) noexcept {
    ls_periodic_reply reply;
    const location_result result =
        exchange(client, LS_REQUEST_UNREGISTER_PERIODIC_UPDATE, {}, timeout, probing::no, reply);
    return result == location_result::answered ? result_of_status(reply.result) : result;
}

location_result location_client_next_update(location_client *client, milliseconds timeout,
                                            ls_position_reply *update) noexcept {
    if (update == nullptr) {
        return location_result::bad_argument;
    }
    *update = {};
    if (client == nullptr || (timeout != milliseconds(0) && !client_timeout_valid(timeout))) {
        return location_result::bad_argument;
    }
    std::unique_lock held(client->lock);
    if (!wait_for(*client, held, client_clock::now() + timeout,
                  [client] { return client->num_updates != 0; })) {
        return end_of_wait(*client, location_result::no_reply);
    }
    *update = client->updates[client->first_update];
    client->first_update = (client->first_update + 1) % CLIENT_UPDATE_SLOTS;
    --client->num_updates;
    return location_result::answered;
}
