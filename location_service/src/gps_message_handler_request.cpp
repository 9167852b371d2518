// Request handlers: each runs one receiver query under the service's two locks and replies with a
// payload of fixed size. The reply is sent with neither lock held.
#include "gps_history.h"
#include "gps_message_handler.h"
#include "gps_power.h"
#include "gps_service.h"
#include "ls_log.h"
#include "ls_paths.h"
#include "ls_state.h"

#include <cstring>

static constexpr char log_module[] = "gps_message_handler";

namespace {

// The three ways a query's result becomes the status word of its reply.
constexpr uint32_t position_status(int32_t result) {
    return result == 2 ? LS_STATUS_PASSED_THROUGH : result == 1 ? LS_STATUS_FAILED : LS_STATUS_OK;
}

constexpr uint32_t time_status(int32_t result) {
    return result == 2 ? LS_STATUS_PASSED_THROUGH : result == 0 ? LS_STATUS_OK : LS_STATUS_FAILED;
}

constexpr uint32_t command_status(int32_t result) {
    return result == 1 ? LS_STATUS_FAILED : LS_STATUS_OK;
}

// Requests that are using the receiver; the count decides about powering down.
void count_pending(int32_t n) {
    const std::lock_guard guard(pending_req_lock);
    pending_req_count += n;
}

// One receiver query in the common frame: counted, and alone on the receiver.
template <typename Query>
auto run_query(Query query) {
    count_pending(1);
    const auto result = [&] {
        const std::lock_guard guard(gps_access_lock);
        return query();
    }();
    count_pending(-1);
    return result;
}

// A reply of zeros, its padding included: all of it goes to the client.
template <typename Reply>
Reply zeroed() {
    Reply reply;
    memset(&reply, 0, sizeof(reply));
    return reply;
}

template <typename Reply>
void send_reply(scm_conn *conn, const bus_msg *msg, const Reply &reply) {
    ls_send_response(conn, msg, &reply, sizeof(reply), 0);
}

// Runs an engineering command on a copy of the request's record, which goes back as the reply.
void exec_command(scm_conn *conn, const bus_msg *msg, int32_t (*execute)(ls_engg_cmd *),
                  ls_log_text failed, const char *name) {
    ls_engg_cmd record;
    int32_t result = 1;
    if (ls_payload_record(*msg, &record))
        result = run_query([&] { return execute(&record); });
    record.status = command_status(result);
    if (record.status != LS_STATUS_OK)
        log_text(LS_LOG_ERROR, failed, name);
    send_reply(conn, msg, record);
}

// The buffered position and the result of the query that left it, or a new query.
struct position_result {
    int32_t result;
    bool is_buffered;
};

position_result query_position(const char *name, gps_pos_data *pos) {
    int32_t stored_result = 0;
    if (!gps_get_buffered_pos(pos, &stored_result))
        return {gps_get_pos(pos), false};
    log_info("%s: Sending buffered position data", name);
    return {stored_result, true};
}

} // namespace

void ls_hal_get_power_mode(scm_conn *conn, const bus_msg *msg) {
    auto reply = zeroed<ls_power_reply>();
    const int32_t result = run_query([&] { return gps_get_power_mode(&reply.power_mode); });
    reply.status = command_status(result);
    send_reply(conn, msg, reply);
}

void ls_hal_set_power_mode(scm_conn *conn, const bus_msg *msg) {
    auto reply = zeroed<ls_power_reply>();
    uint32_t mode = 0;
    if (!ls_payload_word(*msg, &mode)) {
        log_error("%s: failed to set power mode\n", __func__);
        send_reply(conn, msg, reply);
        return;
    }
    const uint8_t client = msg->hdr.src_serv_id;
    if (gps_cfun_level_g == 1 && (mode == GPS_POWER_ON || mode == GPS_POWER_OFF))
        ls_hal_send_lpp_capabilites(conn, mode == GPS_POWER_ON ? 1 : 0);

    const int32_t result = run_query([&] { return gps_set_power_mode(mode, client); });
    reply.status = command_status(result);
    if (reply.status == LS_STATUS_OK)
        reply.power_mode = mode;
    else
        log_error("%s: failed to set power mode\n", __func__);
    send_reply(conn, msg, reply);
    if (reply.status == LS_STATUS_OK && (client == LS_SERV_WS || client == LS_SERV_VOIP))
        ls_send_power_notification(LS_NOTIFY_POWER_MODE, &reply.power_mode,
                                   sizeof(reply.power_mode), LS_SERV_VOIP);
}

void ls_take_position(const char *name, ls_position_reply *reply) {
    memset(reply, 0, sizeof(*reply));
    const position_result taken = run_query([&] { return query_position(name, &reply->pos); });
    reply->status = position_status(taken.result);
    // A failed query may have filled part of the record; the client gets zeros.
    if (reply->status != LS_STATUS_OK && !taken.is_buffered)
        memset(&reply->pos, 0, sizeof(reply->pos));
}

void ls_hal_get_position(scm_conn *conn, const bus_msg *msg) {
    ls_position_reply reply;
    ls_take_position(__func__, &reply);
    send_reply(conn, msg, reply);
}

void ls_hal_get_time(scm_conn *conn, const bus_msg *msg) {
    auto reply = zeroed<ls_time_reply>();
    int32_t result = run_query([&] { return gps_get_time(&reply.time); });
    reply.status = time_status(result);
    if (reply.status == LS_STATUS_OK) {
        int32_t tow = 0;
        result = run_query([&] { return gps_get_tow(&tow); });
        reply.time_of_week = static_cast<uint32_t>(tow);
        reply.status = time_status(result);
    }
    send_reply(conn, msg, reply);
}

void ls_hal_get_sat_info(scm_conn *conn, const bus_msg *msg) {
    auto reply = zeroed<ls_sat_info_reply>();
    const int32_t result = run_query([&] { return gps_get_sat_info(&reply.info); });
    reply.status = position_status(result);
    send_reply(conn, msg, reply);
}

void ls_hal_get_speed(scm_conn *conn, const bus_msg *msg) {
    auto reply = zeroed<ls_speed_reply>();
    const int32_t result = run_query([&] { return gps_get_speed(&reply.speed); });
    reply.status = position_status(result);
    send_reply(conn, msg, reply);
}

void ls_hal_get_history_file_path(scm_conn *conn, const bus_msg *msg) {
    auto reply = zeroed<ls_history_path_reply>();
    {
        const std::lock_guard guard(ls_history_file_lock);
        reply.status = static_cast<uint32_t>(ls_hal_read_history_data());
    }
    static_assert(sizeof(LS_HISTORY_EXPORT_NAME) <= sizeof(reply.path));
    memcpy(reply.path, LS_HISTORY_EXPORT_NAME, sizeof(LS_HISTORY_EXPORT_NAME));
    send_reply(conn, msg, reply);
}

void ls_hal_exec_nmea_cmd(scm_conn *conn, const bus_msg *msg) {
    exec_command(conn, msg, gps_engg_exec_nmea, "%s: gps_engg_exec_nmea failed\n", __func__);
}

void ls_hal_exec_ubx_cmd(scm_conn *conn, const bus_msg *msg) {
    exec_command(conn, msg, gps_engg_exec_ubx, "%s: gps_engg_exec_ubx failed\n", __func__);
}

int ls_hal_get_lpp_params(scm_conn *conn, const bus_msg *msg) {
    gps_lpp_location location;
    if (!ls_payload_record(*msg, &location))
        log_error("%s is a NULL POINTER!", "msg->pld"); // and starts from zeros

    count_pending(1);
    {
        const std::lock_guard guard(gps_access_lock);
        if (gps_get_lpp_paramas(&location) == 1) {
            // Not taken out of the count: from now on no reply powers the receiver down.
            log_error("failed to get lpp param\n");
            return -1;
        }
    }
    count_pending(-1);
    ls_hal_send_req_msg(conn, msg, &location, sizeof(location));
    return 0;
}
