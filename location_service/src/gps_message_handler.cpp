#include "gps_message_handler.h"

#include "dbhandler.h"
#include "gps_history.h"
#include "gps_main.h"
#include "ls_log.h"
#include "ls_send.h"
#include "ls_state.h"

#include <algorithm>
#include <array>
#include <cstring>

static constexpr char log_module[] = "gps_message_handler";

namespace {

// Logs a payload that is missing; what `taken` says.
bool expect_payload(bool taken) {
    if (!taken)
        log_error("%s is a NULL POINTER!", "msg->pld");
    return taken;
}

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
// False: there is none.
bool store_ta_answer(const bus_msg &msg) {
    gps_data_req_pld answer;
    if (!expect_payload(ls_payload_record(msg, &answer)))
        return false;
    if (gps_board_type_g != 2)
        return true;
    const std::lock_guard guard(ta_data_mutex);
    ta_data_req_pld = answer;
    if (ta_req_timed_out_g == 0)
        sem_post(&ta_data_sem);
    else
        ta_req_timed_out_g = 0;
    return true;
}

} // namespace

bool ls_payload_bytes(const bus_msg &msg, void *record, size_t size) {
    memset(record, 0, size);
    if (msg.pld == nullptr || msg.hdr.pld_len == 0)
        return false;
    memcpy(record, msg.pld, std::min<size_t>(msg.hdr.pld_len, size));
    return true;
}

bool ls_payload_word(const bus_msg &msg, uint32_t *word) {
    return msg.hdr.pld_len >= sizeof(*word) && ls_payload_record(msg, word);
}

int ls_hal_process_message(scm_conn *conn, bus_msg *msg) {
    const ls_activity activity;
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
        return store_ta_answer(*msg) ? 0 : -1;
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
    uint8_t level = 0;
    if (!expect_payload(ls_payload_record(msg, &level)))
        return -1;
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
    if (!expect_payload(ls_payload_word(msg, &type)))
        return -1;
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
        ls_hal_history_config();
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
    const ls_sent sent = ls_send(conn, &capability, [&](msg_hdr *hdr) {
        fill_request_hdr(conn, hdr, sizeof(capability), SAL_REQUEST_LPP_CAPABILITIES, LS_SERV_SAL);
    });
    if (sent == ls_sent::no_header)
        log_error("%s is a NULL POINTER!", "hdr");
    if (sent != ls_sent::yes)
        log_error("Error while sending response %s", __func__);
}
