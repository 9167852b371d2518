// Reply builders: response, notification to the requester, power notification.
#include "gps_message_handler.h"
#include "gps_power.h"
#include "ls_log.h"
#include "ls_state.h"

#include <cstring>

static constexpr char log_module[] = "gps_message_handler";

namespace {

// A receiver woken for one request goes back to sleep behind the last reply, unless it is to stay
// on.
void power_down_if_unused(uint8_t serv_id) {
    if (pending_req_count == 0 && mt_gps_status != GPS_POWER_ON)
        gps_set_power_mode(GPS_POWER_OFF, serv_id);
}

// A zeroed header for an answer to `req`; null (logged) when something is missing.
msg_hdr *new_header(const scm_conn *conn, const bus_msg *req) {
    if (conn == nullptr) {
        log_error("%s is a NULL POINTER!", "s");
        return nullptr;
    }
    if (req == nullptr) {
        log_error("%s is a NULL POINTER!", "msg");
        return nullptr;
    }
    auto *hdr = static_cast<msg_hdr *>(g_try_malloc0_n(1, sizeof(msg_hdr)));
    if (hdr == nullptr)
        log_error("%s is a NULL POINTER!", "hdr");
    return hdr;
}

} // namespace

int ls_send_response(scm_conn *conn, const bus_msg *req, const void *payload, uint32_t len,
                     int as_notification) {
    msg_hdr *hdr = new_header(conn, req);
    if (hdr == nullptr)
        return -1;
    log_info("%d %d %d %d", req->hdr.dst_serv_id, req->hdr.msg_id, req->hdr.src_serv_id,
             req->hdr.txn_id);
    if (as_notification == 0)
        fill_response_hdr(conn, hdr, req, len);
    else
        fill_notif_hdr(conn, hdr, len, LS_NOTIFY_PERIODIC_UPDATE, req->hdr.src_serv_id);
    if (send_msg(conn, hdr, payload) == -1) {
        // The header stays allocated: a platform library that queues may still hold it.
        log_error("Error while sending response");
        return -1;
    }
    g_free(hdr);
    if (req->hdr.src_serv_id == LS_SERV_VOIP)
        power_down_if_unused(req->hdr.src_serv_id);
    return 0;
}

int ls_hal_send_req_msg(scm_conn *conn, const bus_msg *req, const void *payload, uint32_t len) {
    msg_hdr *hdr = new_header(conn, req);
    if (hdr == nullptr)
        return -1;
    log_info("%s: %d %d %d %d", __func__, req->hdr.dst_serv_id, req->hdr.msg_id,
             req->hdr.src_serv_id, req->hdr.txn_id);
    fill_request_hdr(conn, hdr, len, SAL_REQUEST_GNSS_LOCATION, LS_SERV_SAL);
    const int sent = send_msg(conn, hdr, payload);
    g_free(hdr);
    if (sent == -1) {
        log_error("Error while sending response");
        return -1;
    }
    power_down_if_unused(req->hdr.src_serv_id);
    return 0;
}

int ls_send_power_notification(uint32_t msg_id, const uint32_t *payload, uint32_t len,
                               uint8_t dst_serv_id) {
    log_info("sending power %d to VoiP", *payload);
    auto *hdr = static_cast<msg_hdr *>(g_try_malloc0_n(1, sizeof(msg_hdr)));
    if (hdr == nullptr) {
        log_error("%s is a NULL POINTER!", "hdr");
        return -1;
    }
    scm_conn *conn = gps_p_g.load();
    fill_notif_hdr(conn, hdr, len, msg_id, dst_serv_id);
    const int sent = send_msg(conn, hdr, payload);
    g_free(hdr);
    if (sent == -1) {
        log_error("Error while sending response");
        return -1;
    }
    return 0;
}
