// Reply builders: response, notification to the requester, power notification.
#include "gps_message_handler.h"
#include "gps_power.h"
#include "ls_log.h"
#include "ls_send.h"
#include "ls_state.h"

static constexpr char log_module[] = "gps_message_handler";

namespace {

// A receiver woken for one request goes back to sleep behind the last reply, unless it is to stay
// on.
void power_down_if_unused(uint8_t serv_id) {
    if (pending_req_count == 0 && mt_gps_status != GPS_POWER_ON)
        gps_set_power_mode(GPS_POWER_OFF, serv_id);
}

// Whether there is something to answer, and where (logged).
bool can_answer(const scm_conn *conn, const bus_msg *req) {
    if (conn == nullptr)
        log_error("%s is a NULL POINTER!", "s");
    else if (req == nullptr)
        log_error("%s is a NULL POINTER!", "msg");
    return conn != nullptr && req != nullptr;
}

// 0, or -1 with the line that a send that did not work leaves in the log.
int report(ls_sent sent) {
    switch (sent) {
    case ls_sent::yes:
        return 0;
    case ls_sent::no_header:
        log_error("%s is a NULL POINTER!", "hdr");
        return -1;
    case ls_sent::no:
        break;
    }
    log_error("Error while sending response");
    return -1;
}

} // namespace

int ls_send_response(scm_conn *conn, const bus_msg *req, const void *payload, uint32_t len,
                     int as_notification) {
    if (!can_answer(conn, req))
        return -1;
    log_info("%d %d %d %d", req->hdr.dst_serv_id, req->hdr.msg_id, req->hdr.src_serv_id,
             req->hdr.txn_id);
    const auto fill = [&](msg_hdr *hdr) {
        if (as_notification == 0)
            fill_response_hdr(conn, hdr, req, len);
        else
            fill_notif_hdr(conn, hdr, len, LS_NOTIFY_PERIODIC_UPDATE, req->hdr.src_serv_id);
    };
    // A platform library that queues may still hold the header of a failed send: 20 bytes stay
    // allocated for each answer to a client that does not read or is gone.
    if (report(ls_send(conn, payload, fill, ls_failed_header::kept)) != 0)
        return -1;
    if (req->hdr.src_serv_id == LS_SERV_VOIP)
        power_down_if_unused(req->hdr.src_serv_id);
    return 0;
}

int ls_hal_send_req_msg(scm_conn *conn, const bus_msg *req, const void *payload, uint32_t len) {
    if (!can_answer(conn, req))
        return -1;
    log_info("%s: %d %d %d %d", __func__, req->hdr.dst_serv_id, req->hdr.msg_id,
             req->hdr.src_serv_id, req->hdr.txn_id);
    const auto fill = [&](msg_hdr *hdr) {
        fill_request_hdr(conn, hdr, len, SAL_REQUEST_GNSS_LOCATION, LS_SERV_SAL);
    };
    if (report(ls_send(conn, payload, fill)) != 0)
        return -1;
    power_down_if_unused(req->hdr.src_serv_id);
    return 0;
}

int ls_send_power_notification(uint32_t msg_id, const uint32_t *payload, uint32_t len,
                               uint8_t dst_serv_id) {
    log_info("sending power %d to VoiP", *payload);
    scm_conn *conn = gps_p_g.load();
    return report(ls_send(
        conn, payload, [&](msg_hdr *hdr) { fill_notif_hdr(conn, hdr, len, msg_id, dst_serv_id); }));
}
