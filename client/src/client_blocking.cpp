// liblocation_client: the functions that wait for their reply.
//
// Threads: the caller's.
#include "client_request.h"

#include <cstring>

namespace {

// Carries out a request that fills one record, which is zero when nothing could be sent.
template <class record>
location_result fill(const client_call &call,
                     location_result (*request)(const client_call &, record &) noexcept,
                     record *out) {
    if (out == nullptr)
        return LOCATION_BAD_ARGUMENT;
    *out = {};
    return call.valid() ? request(call, *out) : LOCATION_BAD_ARGUMENT;
}

location_result exec(const client_call &call, uint32_t msg_id, const client_command &command,
                     uint8_t *answer) {
    ls_engg_cmd reply;
    const location_result result = client_exec(call, msg_id, command, reply);
    std::memcpy(answer, reply.answer, sizeof reply.answer);
    return result;
}

} // namespace

location_result location_client_get_power(location_client *client, int64_t timeout_ms,
                                          uint32_t *mode) noexcept {
    return fill({client, timeout_ms}, client_get_power, mode);
}

location_result location_client_set_power(location_client *client, int64_t timeout_ms,
                                          uint32_t mode, uint32_t *in_force) noexcept {
    const client_call call(client, timeout_ms);
    uint32_t now_in_force = 0;
    const location_result result =
        call.valid() ? client_set_power(call, mode, now_in_force) : LOCATION_BAD_ARGUMENT;
    if (in_force != nullptr)
        *in_force = now_in_force;
    return result;
}

location_result location_client_get_position(location_client *client, int64_t timeout_ms,
                                             gps_pos_data *position) noexcept {
    return fill({client, timeout_ms}, client_get_position, position);
}

location_result location_client_get_time(location_client *client, int64_t timeout_ms,
                                         gps_time_fields *utc, uint32_t *time_of_week) noexcept {
    if (utc == nullptr || time_of_week == nullptr)
        return LOCATION_BAD_ARGUMENT;
    ls_time_reply reply;
    const location_result result = fill({client, timeout_ms}, client_get_time, &reply);
    *utc = reply.time;
    *time_of_week = reply.time_of_week;
    return result;
}

location_result location_client_get_satellites(location_client *client, int64_t timeout_ms,
                                               gps_sat_info *info) noexcept {
    return fill({client, timeout_ms}, client_get_satellites, info);
}

location_result location_client_get_speed(location_client *client, int64_t timeout_ms,
                                          gps_speed_data *speed) noexcept {
    return fill({client, timeout_ms}, client_get_speed, speed);
}

location_result location_client_exec_nmea(location_client *client, int64_t timeout_ms,
                                          const char *body, uint8_t *answer) noexcept {
    const client_call call(client, timeout_ms);
    client_command command;
    if (answer == nullptr)
        return LOCATION_BAD_ARGUMENT;
    std::memset(answer, 0, LS_ENGG_ANSWER_SIZE);
    return call.valid() && client_nmea_command(body, command)
               ? exec(call, LS_EXEC_NMEA_CMD, command, answer)
               : LOCATION_BAD_ARGUMENT;
}

location_result location_client_exec_ubx(location_client *client, int64_t timeout_ms,
                                         const uint8_t *frame, size_t size,
                                         uint8_t *answer) noexcept {
    const client_call call(client, timeout_ms);
    client_command command;
    if (answer == nullptr)
        return LOCATION_BAD_ARGUMENT;
    std::memset(answer, 0, LS_ENGG_ANSWER_SIZE);
    return call.valid() && client_ubx_command(frame, size, command)
               ? exec(call, LS_EXEC_UBX_CMD, command, answer)
               : LOCATION_BAD_ARGUMENT;
}

location_result location_client_get_history_path(location_client *client, int64_t timeout_ms,
                                                 ls_history_path_reply *reply) noexcept {
    return fill({client, timeout_ms}, client_get_history_path, reply);
}

location_result location_client_notify_history_settings(location_client *client) noexcept {
    if (client == nullptr)
        return LOCATION_BAD_ARGUMENT;
    return client_send_notification(*client, WS_NOTIFY_LOCATION_HISTORY_ACQUISTION_CONFIG_UPDATE,
                                    {});
}

location_result location_client_get_lpp(location_client *client, int64_t timeout_ms,
                                        gps_lpp_location *lpp) noexcept {
    return fill({client, timeout_ms}, client_get_lpp, lpp);
}

location_result location_client_register_periodic(location_client *client, int64_t timeout_ms,
                                                  uint32_t num_updates,
                                                  uint32_t interval_s) noexcept {
    const client_call call(client, timeout_ms);
    return call.valid() ? client_register_periodic(call, {num_updates, interval_s})
                        : LOCATION_BAD_ARGUMENT;
}

location_result location_client_unregister_periodic(location_client *client,
                                                    int64_t timeout_ms) noexcept {
    const client_call call(client, timeout_ms);
    return call.valid() ? client_unregister_periodic(call) : LOCATION_BAD_ARGUMENT;
}

location_result location_client_next_update(location_client *client, int64_t timeout_ms,
                                            ls_position_reply *update) noexcept {
    if (update == nullptr)
        return LOCATION_BAD_ARGUMENT;
    *update = {};
    const client_call call(client, timeout_ms);
    if (client == nullptr || (timeout_ms != 0 && !call.valid()))
        return LOCATION_BAD_ARGUMENT;
    return client_wait(call, call.deadline(), [&] { return client_take_update(*client, *update); });
}
