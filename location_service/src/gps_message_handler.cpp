#include "gps_message_handler.h"

#include "dbhandler.h"
#include "ls_log.h"
#include "ls_state.h"

#include <algorithm>
#include <array>
#include <cstring>

static constexpr char log_module[] = "gps_message_handler";

namespace {

bool missing_argument(const scm_conn *conn, const bus_msg *msg) {
    if (conn == nullptr) {
        log_error("%s is a NULL POINTER!", "s");
        return true;
    }
    if (msg == nullptr) {
        log_error("%s is a NULL POINTER!", "msg");
        return true;
    }
    return false;
}

// Whether this terminal serves GNSS at all. Registration and the antenna announcement, which may
// open the gate, always pass.
bool gate_is_open(uint32_t msg_id) {
    return stub_location_on_g == 1 || antenna_type == LS_ANTENNA_TYPE_GNSS ||
           gps_board_type_g == 1 || msg_id == TA_NOTIFY_ANTENNA_TYPE ||
           msg_id == SCM_RESPONSE_REGISTRATION;
}

void refuse_at_gate(scm_conn *conn, const bus_msg *msg) {
    if (msg->hdr.msg_type == LS_MSG_REQUEST) {
        const std::array<uint8_t, LS_REFUSED_REPLY_SIZE> zero = {};
        if (ls_send_response(conn, msg, zero.data(), zero.size(), 0) == -1)
            log_error("Error while send response");
    }
    log_error("gps req failed stub-loc-%d ant-type-%d,board-type-%d ", stub_location_on_g.load(),
              antenna_type.load(), gps_board_type_g.load());
}

// Hands the TA's answer to the waiting receiver request. The answer to a request that has given up
// refreshes the buffer but wakes nobody, so that the next request does not take it for its own.
void store_ta_answer(const bus_msg &msg) {
    gps_data_req_pld answer = {}; // what a short answer lacks is zero
    memcpy(&answer, msg.pld, std::min<size_t>(msg.hdr.pld_len, sizeof(answer)));
    const std::lock_guard guard(ta_data_mutex);
    ta_data_req_pld = answer;
    if (ta_req_timed_out_g == 0)
        sem_post(&ta_data_sem);
    else
        ta_req_timed_out_g = 0;
}

} // namespace

bool ls_payload_word(const bus_msg &msg, uint32_t *word) {
    if (msg.pld == nullptr || msg.hdr.pld_len < sizeof(*word))
        return false;
    memcpy(word, msg.pld, sizeof(*word));
    return true;
}

int ls_hal_process_message(scm_conn *conn, bus_msg *msg) {
    log_info(">>%s", __func__);
    if (missing_argument(conn, msg))
        return -1;
    if (!gate_is_open(msg->hdr.msg_id)) {
        refuse_at_gate(conn, msg);
        return -1;
    }

    pm_system_state_disable(LS_SYSTEM_STATE_ID);
    int result = -1;
    switch (msg->hdr.msg_type) {
    case LS_MSG_RESPONSE:
        log_debug("Received response message");
        result = ls_hal_process_response_msg(conn, msg);
        break;
    case LS_MSG_NOTIFICATION:
        log_debug("Processing notification request message");
        result = ls_hal_process_notification_msg(conn, msg);
        break;
    case LS_MSG_REQUEST:
        // The vote is given back by the request entry when it refuses, and by the worker at its
        // end.
        log_debug("Processing request message");
        return ls_hal_process_request_msg(conn, msg);
    default:
        log_error("%s, Invalid Message Type", __func__);
        break;
    }
    pm_system_state_enable(LS_SYSTEM_STATE_ID);
    return result;
}

int ls_hal_process_response_msg(scm_conn *conn, bus_msg *msg) {
    if (missing_argument(conn, msg))
        return -1;
    switch (msg->hdr.msg_id) {
    case SCM_RESPONSE_REGISTRATION:
        log_info("%s: Recived Registration response from SCM", __func__);
        return 0;
    case TA_REQUEST_GPS_DATA:
        log_info("Received GPS data from TA: Message Id  %d\n", msg->hdr.msg_id);
        if (msg->pld == nullptr) {
            log_error("%s is a NULL POINTER!", "msg->pld");
            return -1;
        }
        if (gps_board_type_g == 2)
            store_ta_answer(*msg);
        return 0;
    case SAL_REQUEST_LPP_CAPABILITIES:
        log_info("Recived response from SAL : Message Id  %d", msg->hdr.msg_id);
        return 0;
    default:
        log_error("%s, Invalid Message Id %d", __func__, msg->hdr.msg_id);
        return -1;
    }
}

namespace {

int handle_cfun_level(scm_conn *conn, const bus_msg &msg) {
    if (msg.pld == nullptr || msg.hdr.pld_len < 1) {
        log_error("%s is a NULL POINTER!", "msg->pld");
        return -1;
    }
    uint8_t level = 0;
    memcpy(&level, msg.pld, sizeof(level));
    log_info("pld: ss->cfun_level = %d\n\n", level);
    log_info("txn_id = %d\nmsg_id = %d\nmsg_type = %d\n\n", msg.hdr.txn_id, msg.hdr.msg_id,
             msg.hdr.msg_type);
    int32_t power_on_status = 0;
    db_read_gps_power_on_status(&power_on_status);
    gps_cfun_level_g = level;
    if (level == 1 && power_on_status == GPS_POWER_ON)
        ls_hal_send_lpp_capabilites(conn, 1);
    return 0;
}

int handle_antenna_type(const bus_msg &msg) {
    uint32_t type = 0;
    if (!ls_payload_word(msg, &type)) {
        log_error("%s is a NULL POINTER!", "msg->pld");
        return -1;
    }
    antenna_type = static_cast<int32_t>(type);
    log_info("antenna_type: %d", antenna_type.load());
    return 0;
}

} // namespace

int ls_hal_process_notification_msg(scm_conn *conn, bus_msg *msg) {
    if (missing_argument(conn, msg))
        return -1;
    switch (msg->hdr.msg_id) {
    case SS_NOTIFY_CFUN_LEVEL:
        return handle_cfun_level(conn, *msg);
    case WS_NOTIFY_LOCATION_HISTORY_ACQUISTION_CONFIG_UPDATE:
        log_debug("Case WS_NOTIFY_LOCATION_HISTORY_ACQUISTION_CONFIG_UPDATE\n");
        ls_start_history_config();
        return 0;
    case TA_NOTIFY_ANTENNA_TYPE:
        return handle_antenna_type(*msg);
    case SAL_REQUEST_PROVIDE_GNSS_LOCATION_TO_CP:
        // The worker returns a vote at its end, and so does the caller of this handler.
        log_info("Received request for lpp parameters");
        ls_msg_req_handler_thread(conn, msg);
        return 0;
    default:
        log_error("%s, Invalid Message Id", __func__);
        return -1;
    }
}

void ls_hal_send_lpp_capabilites(scm_conn *conn, uint16_t capability) {
    auto *hdr = static_cast<msg_hdr *>(g_try_malloc0_n(1, sizeof(msg_hdr)));
    if (hdr == nullptr)
        log_error("%s is a NULL POINTER!", "hdr");
    fill_request_hdr(conn, hdr, sizeof(capability), SAL_REQUEST_LPP_CAPABILITIES, LS_SERV_SAL);
    if (send_msg(conn, hdr, &capability) == -1)
        log_error("Error while sending response %s", __func__);
    g_free(hdr);
}
