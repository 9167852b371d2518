// liblocation_client, request side: what each request sends, and what its reply means.
//
// Threads: the caller's.
#include "client_request.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace {

template <class record>
std::span<const uint8_t> bytes_of(const record &value) {
    static_assert(std::is_trivially_copyable_v<record>);
    return {reinterpret_cast<const uint8_t *>(&value), sizeof value};
}

// One exchange; with LOCATION_ANSWERED the reply has the size of its record, its status is not
// looked at.
template <class record>
location_result exchange(const client_call &call, uint32_t msg_id, std::span<const uint8_t> payload,
                         client_probing probing, record &reply) {
    static_assert(std::is_trivially_copyable_v<record>);
    static_assert(sizeof(record) <= sizeof(client_waiter::data));
    reply = {};
    return client_exchange(call, msg_id, payload, probing,
                           {reinterpret_cast<uint8_t *>(&reply), sizeof reply});
}

location_result result_of_status(uint32_t status) {
    switch (status) {
    case LS_STATUS_OK:
        return LOCATION_ANSWERED;
    case LS_STATUS_FAILED:
        return LOCATION_FAILED;
    case LS_STATUS_PASSED_THROUGH:
        return LOCATION_RECEIVER_TIMEOUT;
    default:
        return LOCATION_BAD_REPLY;
    }
}

// An exchange whose reply begins with the status word; the reply is zero unless that is good.
template <class record>
location_result query(const client_call &call, uint32_t msg_id, std::span<const uint8_t> payload,
                      client_probing probing, record &reply) {
    location_result result = exchange(call, msg_id, payload, probing, reply);
    if (result == LOCATION_ANSWERED)
        result = result_of_status(reply.status);
    if (result != LOCATION_ANSWERED)
        reply = {};
    return result;
}

// The same for a query of the receiver of whose reply the caller wants one part.
template <class record, class part>
location_result query_part(const client_call &call, uint32_t msg_id, part record::*wanted,
                           part &out) {
    record reply;
    const location_result result = query(call, msg_id, {}, client_probing::yes, reply);
    out = reply.*wanted;
    return result;
}

// Length, or 0 when it does not fit into LS_ENGG_CMD_SIZE bytes with its NUL.
size_t write_ubx_text(std::span<const uint8_t> frame, char *text, bool two_digits) {
    size_t length = 0;
    for (const uint8_t byte : frame) {
        const size_t left = LS_ENGG_CMD_SIZE - length;
        const char *comma = length != 0 ? "," : "";
        const int size = two_digits ? std::snprintf(text + length, left, "%s%02X", comma, byte)
                                    : std::snprintf(text + length, left, "%s%X", comma, byte);
        if (size < 0 || static_cast<size_t>(size) >= left)
            return 0;
        length += static_cast<size_t>(size);
    }
    text[length] = '\0';
    return length;
}

} // namespace

bool client_nmea_command(const char *body, client_command &command) noexcept {
    if (body == nullptr)
        return false;
    const std::string_view text(body, strnlen(body, command.size()));
    const auto acceptable = [](char c) { return c >= ' ' && c <= '~' && c != '$' && c != '*'; };
    if (text.empty() || text.size() >= command.size() ||
        !std::all_of(text.begin(), text.end(), acceptable))
        return false;
    command = {};
    text.copy(command.data(), text.size());
    return true;
}

bool client_ubx_command(const uint8_t *frame, size_t size, client_command &command) noexcept {
    constexpr size_t overhead = 8; // sync, class, id, length, checksum
    command = {};
    return frame != nullptr && size >= overhead && frame[0] == 0xB5 && frame[1] == 0x62 &&
           static_cast<size_t>(frame[4] | frame[5] << 8) == size - overhead &&
           location_client_ubx_text(frame, size, command.data()) != 0;
}

size_t location_client_ubx_text(const uint8_t *frame, size_t size, char *text) noexcept {
    if (frame == nullptr || text == nullptr)
        return 0;
    const size_t length = write_ubx_text({frame, size}, text, true);
    return length != 0 ? length : write_ubx_text({frame, size}, text, false);
}

location_result client_get_power(const client_call &call, uint32_t &mode) noexcept {
    ls_power_reply reply;
    const location_result result =
        query(call, LS_REQUEST_GET_POWER_MODE, {}, client_probing::no, reply);
    mode = reply.power_mode;
    return result;
}

location_result client_set_power(const client_call &call, uint32_t mode,
                                 uint32_t &in_force) noexcept {
    ls_power_reply reply;
    const location_result result =
        query(call, LS_REQUEST_SET_POWER_MODE, bytes_of(mode), client_probing::no, reply);
    in_force = reply.power_mode;
    if (result != LOCATION_FAILED)
        return result;
    // A failed change and the closed gate look the same on the wire; the mode tells them apart.
    client_call again = call;
    again.timeout -=
        std::chrono::duration_cast<std::chrono::milliseconds>(client_clock::now() - call.start);
    again.start = client_clock::now();
    const location_result read =
        again.valid() ? client_get_power(again, in_force) : LOCATION_NO_REPLY;
    return read == LOCATION_ANSWERED ? result : read;
}

location_result client_get_position(const client_call &call, gps_pos_data &position) noexcept {
    return query_part(call, LS_REQUEST_GET_POSITION, &ls_position_reply::pos, position);
}

location_result client_get_time(const client_call &call, ls_time_reply &reply) noexcept {
    return query(call, LS_REQUEST_GET_TIME, {}, client_probing::yes, reply);
}

location_result client_get_satellites(const client_call &call, gps_sat_info &info) noexcept {
    return query_part(call, LS_REQUEST_GET_SAT_INFO, &ls_sat_info_reply::info, info);
}

location_result client_get_speed(const client_call &call, gps_speed_data &speed) noexcept {
    return query_part(call, LS_REQUEST_GET_SPEED, &ls_speed_reply::speed, speed);
}

location_result client_exec(const client_call &call, uint32_t msg_id, const client_command &command,
                            ls_engg_cmd &reply) noexcept {
    ls_engg_cmd request{};
    std::copy(command.begin(), command.end(), request.command);
    return query(call, msg_id, bytes_of(request), client_probing::yes, reply);
}

location_result client_get_history_path(const client_call &call,
                                        ls_history_path_reply &reply) noexcept {
    const location_result result =
        exchange(call, LS_REQUEST_GET_HISTORY_FILE_PATH, {}, client_probing::yes, reply);
    reply.path[sizeof reply.path - 1] = '\0';
    return result == LOCATION_ANSWERED && reply.status != 0 ? LOCATION_FAILED : result;
}

location_result client_get_lpp(const client_call &call, gps_lpp_location &lpp) noexcept {
    lpp = {};
    if (call.client->serv_id != LS_SERV_SAL)
        return LOCATION_BAD_ARGUMENT;
    client_waiter waiter{.msg_type = LS_MSG_REQUEST, .msg_id = SAL_REQUEST_GNSS_LOCATION};
    const client_unlist_guard unlist(*call.client, waiter);
    client_list(*call.client, waiter);
    location_result result = client_send_notification(
        *call.client, SAL_REQUEST_PROVIDE_GNSS_LOCATION_TO_CP, bytes_of(gps_lpp_location{}));
    if (result == LOCATION_ANSWERED)
        result = client_await(call, waiter, client_probing::yes);
    if (result == LOCATION_ANSWERED)
        std::memcpy(&lpp, waiter.data.data(), sizeof lpp);
    return result;
}

location_result client_register_periodic(const client_call &call,
                                         const ls_register_periodic_req_pld_s &wanted) noexcept {
    if (wanted.num_updates == 0 || wanted.interval < LOCATION_CLIENT_MIN_INTERVAL_S)
        return LOCATION_BAD_ARGUMENT;
    ls_periodic_reply reply;
    const location_result result = exchange(call, LS_REQUEST_REGISTER_PERIODIC_UPDATE,
                                            bytes_of(wanted), client_probing::yes, reply);
    return result == LOCATION_ANSWERED ? result_of_status(reply.result) : result;
}

location_result client_unregister_periodic(const client_call &call) noexcept {
    ls_periodic_reply reply;
    const location_result result =
        exchange(call, LS_REQUEST_UNREGISTER_PERIODIC_UPDATE, {}, client_probing::no, reply);
    return result == LOCATION_ANSWERED ? result_of_status(reply.result) : result;
}
