// liblocation_client, request side: the typed requests.
//
// Threads: the caller's.
#include "client_state.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace {

using std::chrono::milliseconds;

// One exchange; on `answered` the reply has the size of its record, its status is not looked at.
template <class record>
location_result exchange(location_client *client, uint32_t msg_id, std::span<const uint8_t> payload,
                         milliseconds timeout, client_probing probing, record &reply) {
    static_assert(std::is_trivially_copyable_v<record>);
    static_assert(sizeof(record) <= sizeof(client_waiter::data));
    reply = {};
    if (client == nullptr || !client_timeout_valid(timeout))
        return location_result::bad_argument;
    return client_exchange(*client, msg_id, payload, timeout, probing,
                           {reinterpret_cast<uint8_t *>(&reply), sizeof reply});
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
    location_result result = exchange(client, msg_id, {}, timeout, client_probing::yes, reply);
    if (result == location_result::answered)
        result = result_of_status(reply.status);
    if (result != location_result::answered)
        reply = {};
    return result;
}

// The same where the caller wants one part of the reply.
template <class record, class part>
location_result query_part(location_client *client, uint32_t msg_id, milliseconds timeout,
                           part record::*wanted, part *out) {
    if (out == nullptr)
        return location_result::bad_argument;
    record reply;
    const location_result result = query(client, msg_id, timeout, reply);
    *out = reply.*wanted;
    return result;
}

template <class record>
std::span<const uint8_t> bytes_of(const record &value) {
    static_assert(std::is_trivially_copyable_v<record>);
    return {reinterpret_cast<const uint8_t *>(&value), sizeof value};
}

struct lpp_asked {
    const location_client *client;
    uint64_t count; // of the answers before the question
};

bool lpp_is_here(const void *context) {
    const auto *asked = static_cast<const lpp_asked *>(context);
    return asked->client->lpp_count != asked->count;
}

bool update_is_here(const void *client) {
    return static_cast<const location_client *>(client)->num_updates != 0;
}

location_result exec(location_client *client, uint32_t msg_id, milliseconds timeout,
                     std::string_view text, location_client_answer *answer) {
    ls_engg_cmd command{};
    text.copy(command.command, sizeof command.command - 1);
    ls_engg_cmd reply;
    location_result result =
        exchange(client, msg_id, bytes_of(command), timeout, client_probing::yes, reply);
    if (result == location_result::answered)
        result = result_of_status(reply.status);
    if (result == location_result::answered)
        std::memcpy(answer->data(), reply.answer, sizeof reply.answer);
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
        if (size < 0 || length + static_cast<size_t>(size) >= text.size())
            return 0;
        std::memcpy(text.data() + length, piece, static_cast<size_t>(size));
        length += static_cast<size_t>(size);
    }
    text[length] = '\0';
    return length;
}

} // namespace

location_result location_client_get_power(location_client *client, milliseconds timeout,
                                          uint32_t *mode) noexcept {
    if (mode == nullptr)
        return location_result::bad_argument;
    ls_power_reply reply;
    location_result result =
        exchange(client, LS_REQUEST_GET_POWER_MODE, {}, timeout, client_probing::no, reply);
    if (result == location_result::answered)
        result = result_of_status(reply.status);
    *mode = result == location_result::answered ? reply.power_mode : 0;
    return result;
}

location_result location_client_set_power(location_client *client, milliseconds timeout,
                                          uint32_t mode, uint32_t *in_force) noexcept {
    const client_clock::time_point start = client_clock::now();
    uint32_t now_in_force = 0;
    ls_power_reply reply;
    location_result result = exchange(client, LS_REQUEST_SET_POWER_MODE, bytes_of(mode), timeout,
                                      client_probing::no, reply);
    if (result == location_result::answered) {
        result = result_of_status(reply.status);
        now_in_force = reply.power_mode;
    }
    if (result == location_result::failed) {
        // A failed change and the closed gate look the same on the wire; the mode tells them apart.
        const auto left =
            timeout - std::chrono::duration_cast<milliseconds>(client_clock::now() - start);
        const location_result read = client_timeout_valid(left)
                                         ? location_client_get_power(client, left, &now_in_force)
                                         : location_result::no_reply;
        if (read != location_result::answered)
            result = read;
    }
    if (in_force != nullptr)
        *in_force = now_in_force;
    return result;
}

location_result location_client_get_position(location_client *client, milliseconds timeout,
                                             gps_pos_data *position) noexcept {
    return query_part(client, LS_REQUEST_GET_POSITION, timeout, &ls_position_reply::pos, position);
}

location_result location_client_get_time(location_client *client, milliseconds timeout,
                                         gps_time_fields *utc, uint32_t *time_of_week) noexcept {
    if (utc == nullptr || time_of_week == nullptr)
        return location_result::bad_argument;
    ls_time_reply reply;
    const location_result result = query(client, LS_REQUEST_GET_TIME, timeout, reply);
    *utc = reply.time;
    *time_of_week = reply.time_of_week;
    return result;
}

location_result location_client_get_satellites(location_client *client, milliseconds timeout,
                                               gps_sat_info *info) noexcept {
    return query_part(client, LS_REQUEST_GET_SAT_INFO, timeout, &ls_sat_info_reply::info, info);
}

location_result location_client_get_speed(location_client *client, milliseconds timeout,
                                          gps_speed_data *speed) noexcept {
    return query_part(client, LS_REQUEST_GET_SPEED, timeout, &ls_speed_reply::speed, speed);
}

location_result location_client_exec_nmea(location_client *client, milliseconds timeout,
                                          std::string_view body,
                                          location_client_answer *answer) noexcept {
    if (answer == nullptr)
        return location_result::bad_argument;
    *answer = {};
    const auto acceptable = [](char c) { return c >= ' ' && c <= '~' && c != '$' && c != '*'; };
    if (body.empty() || body.size() >= LS_ENGG_CMD_SIZE ||
        !std::all_of(body.begin(), body.end(), acceptable))
        return location_result::bad_argument;
    return exec(client, LS_EXEC_NMEA_CMD, timeout, body, answer);
}

size_t location_client_ubx_text(std::span<const uint8_t> frame,
                                std::array<char, LS_ENGG_CMD_SIZE> *text) noexcept {
    if (text == nullptr)
        return 0;
    const size_t length = write_ubx_text(frame, *text, true);
    return length != 0 ? length : write_ubx_text(frame, *text, false);
}

location_result location_client_exec_ubx(location_client *client, milliseconds timeout,
                                         std::span<const uint8_t> frame,
                                         location_client_answer *answer) noexcept {
    constexpr size_t overhead = 8; // sync, class, id, length, checksum
    if (answer == nullptr)
        return location_result::bad_argument;
    *answer = {};
    if (frame.size() < overhead || frame[0] != 0xB5 || frame[1] != 0x62 ||
        static_cast<size_t>(frame[4] | frame[5] << 8) != frame.size() - overhead)
        return location_result::bad_argument;
    std::array<char, LS_ENGG_CMD_SIZE> text{};
    const size_t length = location_client_ubx_text(frame, &text);
    if (length == 0)
        return location_result::bad_argument;
    return exec(client, LS_EXEC_UBX_CMD, timeout, {text.data(), length}, answer);
}

location_result location_client_get_history_path(location_client *client, milliseconds timeout,
                                                 ls_history_path_reply *reply) noexcept {
    if (reply == nullptr)
        return location_result::bad_argument;
    const location_result result = exchange(client, LS_REQUEST_GET_HISTORY_FILE_PATH, {}, timeout,
                                            client_probing::yes, *reply);
    reply->path[sizeof reply->path - 1] = '\0';
    if (result == location_result::answered && reply->status != 0)
        return location_result::failed;
    return result;
}

location_result location_client_notify_history_settings(location_client *client) noexcept {
    if (client == nullptr)
        return location_result::bad_argument;
    return client_send_notification(*client, WS_NOTIFY_LOCATION_HISTORY_ACQUISTION_CONFIG_UPDATE,
                                    {});
}

location_result location_client_get_lpp(location_client *client, milliseconds timeout,
                                        gps_lpp_location *lpp) noexcept {
    if (lpp == nullptr)
        return location_result::bad_argument;
    *lpp = {};
    if (client == nullptr || client->serv_id != LS_SERV_SAL || !client_timeout_valid(timeout))
        return location_result::bad_argument;
    const client_clock::time_point start = client_clock::now();
    lpp_asked asked{client, 0};
    {
        const std::lock_guard guard(client->lock);
        asked.count = client->lpp_count;
    }
    location_result result = client_send_notification(
        *client, SAL_REQUEST_PROVIDE_GNSS_LOCATION_TO_CP, bytes_of(gps_lpp_location{}));
    if (result == location_result::answered)
        result = client_wait_or_diagnose(*client, start, timeout, lpp_is_here, &asked);
    if (result == location_result::answered) {
        const std::lock_guard guard(client->lock);
        *lpp = client->lpp;
    }
    return result;
}

location_result location_client_register_periodic(location_client *client, milliseconds timeout,
                                                  uint32_t num_updates,
                                                  uint32_t interval_s) noexcept {
    if (num_updates == 0 || interval_s < LOCATION_CLIENT_MIN_INTERVAL_S)
        return location_result::bad_argument;
    const ls_register_periodic_req_pld_s wanted{num_updates, interval_s};
    ls_periodic_reply reply;
    const location_result result = exchange(client, LS_REQUEST_REGISTER_PERIODIC_UPDATE,
                                            bytes_of(wanted), timeout, client_probing::yes, reply);
    return result == location_result::answered ? result_of_status(reply.result) : result;
}

location_result location_client_unregister_periodic(location_client *client,
                                                    milliseconds timeout) noexcept {
    ls_periodic_reply reply;
    const location_result result = exchange(client, LS_REQUEST_UNREGISTER_PERIODIC_UPDATE, {},
                                            timeout, client_probing::no, reply);
    return result == location_result::answered ? result_of_status(reply.result) : result;
}

location_result location_client_next_update(location_client *client, milliseconds timeout,
                                            ls_position_reply *update) noexcept {
    if (update == nullptr)
        return location_result::bad_argument;
    *update = {};
    if (client == nullptr || (timeout != milliseconds(0) && !client_timeout_valid(timeout)))
        return location_result::bad_argument;
    std::unique_lock held(client->lock);
    if (!client_wait(*client, held, client_clock::now() + timeout, update_is_here, client))
        return client_end_of_wait(*client, location_result::no_reply);
    *update = client->updates[client->first_update];
    client->first_update = (client->first_update + 1) % CLIENT_UPDATE_SLOTS;
    --client->num_updates;
    return location_result::answered;
}
