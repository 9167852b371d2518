// Request entry and workers: one detached thread per accepted request.
#include "gps_history.h"
#include "gps_main.h"
#include "gps_message_handler.h"
#include "gps_power.h"
#include "gps_uart.h"
#include "ls_log.h"
#include "ls_state.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

static constexpr char log_module[] = "gps_message_handler";

namespace {

// What a worker needs, in one block that is its own from the moment its thread exists. The copy of
// the payload stands behind it.
struct alignas(std::max_align_t) ls_thread_param {
    scm_conn *conn;
    bus_msg msg; // pld points behind this record, or is null

    uint8_t *payload() { return reinterpret_cast<uint8_t *>(this + 1); }
};

constexpr int LPP_ATTEMPTS = 3;

// The requests of these services also decide what the stored power-on status is to be from now on.
void serve_set_power_mode(scm_conn *conn, const bus_msg *msg) {
    ls_hal_uart_wait_configured(); // whose end goes by the stored status, too
    const uint8_t client = msg->hdr.src_serv_id;
    uint32_t mode = 0;
    if ((client == LS_SERV_WS || client == LS_SERV_CLIENT_9 || client == LS_SERV_VOIP) &&
        ls_payload_word(*msg, &mode))
        mt_gps_status = static_cast<int32_t>(mode);
    ls_hal_set_power_mode(conn, msg);
    ls_hal_history_config();
}

void serve_register_periodic(scm_conn *conn, const bus_msg *msg) {
    ls_hal_register_periodic_update_request(conn, msg);
    ls_dump_periodic_request_queue();
}

void serve_lpp_params(scm_conn *conn, const bus_msg *msg) {
    for (int attempt = 0; attempt < LPP_ATTEMPTS; ++attempt)
        if (ls_hal_get_lpp_params(conn, msg) == 0)
            return;
    log_error("Maximum retry count reached for ls_hal_get_lpp_params");
}

struct request_handler {
    uint32_t msg_id;
    ls_log_text case_text;
    void (*serve)(scm_conn *conn, const bus_msg *msg);
};

constexpr std::array request_handlers = {
    request_handler{LS_REQUEST_REGISTER_PERIODIC_UPDATE,
                    "Case LS_REQUEST_REGISTER_PERIODIC_UPDATE\n", serve_register_periodic},
    request_handler{LS_REQUEST_UNREGISTER_PERIODIC_UPDATE,
                    "Case LS_REQUEST_UNREGISTER_PERIODIC_UPDATE\n",
                    ls_hal_unregister_periodic_update_request},
    request_handler{LS_REQUEST_REGISTER_PERIODIC_UPDATE_LB,
                    "Case LS_REQUEST_REGISTER_PERIODIC_UPDATE_LB\n",
                    ls_hal_handle_periodic_loopback},
    request_handler{LS_REQUEST_GET_POSITION, "Case LS_REQUEST_GET_POSITION\n", ls_hal_get_position},
    request_handler{LS_REQUEST_GET_TIME, "Case LS_REQUEST_GET_TIME\n", ls_hal_get_time},
    request_handler{LS_REQUEST_GET_SAT_INFO, "Case LS_REQUEST_GET_SAT_INFO\n", ls_hal_get_sat_info},
    request_handler{LS_REQUEST_GET_SPEED, "Case LS_REQUEST_GET_SPEED\n", ls_hal_get_speed},
    request_handler{LS_REQUEST_GET_POWER_MODE, "Case LS_REQUEST_GET_POWER_MODE\n",
                    ls_hal_get_power_mode},
    request_handler{LS_REQUEST_SET_POWER_MODE, "Case LS_REQUEST_SET_POWER_MODE\n",
                    serve_set_power_mode},
    request_handler{LS_EXEC_NMEA_CMD, "Case LS_EXEC_NMEA_CMD\n", ls_hal_exec_nmea_cmd},
    request_handler{LS_EXEC_UBX_CMD, "Case LS_EXEC_UBX_CMD\n", ls_hal_exec_ubx_cmd},
    request_handler{LS_REQUEST_GET_HISTORY_FILE_PATH, "Case LS_REQUEST_GET_HISTORY_FILE_PATH\n",
                    ls_hal_get_history_file_path},
    request_handler{SAL_REQUEST_PROVIDE_GNSS_LOCATION_TO_CP,
                    "Case SAL_REQUEST_PROVIDE_GNSS_LOCATION_TO_CP", serve_lpp_params},
};

const request_handler *find_handler(uint32_t msg_id) {
    for (const request_handler &handler : request_handlers)
        if (handler.msg_id == msg_id)
            return &handler;
    return nullptr;
}

// Null (logged) when there is no memory.
ls_thread_param *copy_request(scm_conn *conn, const bus_msg &msg) {
    const uint32_t size = msg.pld == nullptr ? 0 : msg.hdr.pld_len; // no bytes, no payload
    auto *param = static_cast<ls_thread_param *>(calloc(1, sizeof(ls_thread_param) + size));
    if (param == nullptr) {
        log_error("%s is a NULL POINTER!", "ls_thread_param.pld");
        return nullptr;
    }
    param->conn = conn;
    param->msg = {.hdr = msg.hdr, .pld = nullptr};
    param->msg.hdr.pld_len = size;
    if (size != 0) {
        memcpy(param->payload(), msg.pld, size);
        param->msg.pld = param->payload();
    }
    return param;
}

// Starts a detached thread. 0, or an errno value.
int create_thread(void *(*body)(void *), void *param) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, LS_THREAD_STACK_SIZE);
    pthread_t thread_id = {};
    const int error = pthread_create(&thread_id, &attributes, body, param);
    pthread_attr_destroy(&attributes);
    return error;
}

} // namespace

int ls_hal_process_request_msg(scm_conn *conn, bus_msg *msg) {
    if (ls_is_stopping()) {
        log_error("unable to process gps request");
        pm_system_state_enable(LS_SYSTEM_STATE_ID);
        return -1;
    }
    const uint32_t id = msg->hdr.msg_id;
    const bool power_request = id == LS_REQUEST_GET_POWER_MODE || id == LS_REQUEST_SET_POWER_MODE;
    const bool wakes_receiver = msg->hdr.src_serv_id == LS_SERV_CLIENT_9;
    if (wakes_receiver && !power_request &&
        gps_set_power_mode(GPS_POWER_ON, LS_SERV_CLIENT_9) == 1) {
        log_error("GPS_POWER_ON unsuccessful \n");
        pm_system_state_enable(LS_SYSTEM_STATE_ID);
        return -1;
    }
    // While the receiver is off, only the power requests and the unregistration are served.
    if (mt_gps_status != GPS_POWER_ON && !wakes_receiver && !power_request &&
        id != LS_REQUEST_UNREGISTER_PERIODIC_UPDATE) {
        pm_system_state_enable(LS_SYSTEM_STATE_ID);
        log_error("unable to process gps request");
        return -1;
    }
    // When no worker could be started nobody gives the system-state vote back: the terminal stays
    // awake, and the request counts as taken.
    ls_msg_req_handler_thread(conn, msg);
    return 0;
}

int ls_msg_req_handler_thread(scm_conn *conn, bus_msg *msg) {
    ls_thread_param *param = copy_request(conn, *msg);
    if (param == nullptr)
        return -1;
    log_info("%s", "ls_msg_req_handler_thread");
    ls_activity::begin(); // the worker's from here on
    errno = create_thread(ls_process_thread_req, param);
    if (errno == 0)
        return 0;
    log_error("Error while creating the ta_sm_thread. error = %d(%m)", errno);
    ls_activity::end();
    if (param->msg.pld == nullptr)
        free(param); // a payload stays allocated, as behind an unknown id
    return -1;
}

void *ls_process_thread_req(void *param) {
    const ls_activity activity{ls_activity::adopt_t()};
    auto *own = static_cast<ls_thread_param *>(param);
    const bus_msg &msg = own->msg;
    const bool has_payload = msg.hdr.pld_len != 0;
    log_info("LS thread unlocked done");

    const request_handler *handler = find_handler(msg.hdr.msg_id);
    if (handler == nullptr) {
        log_error("%s, Invalid Message Id", __func__);
        // A payload of an id that nobody knows stays allocated, as the platform's engineers know
        // it: a client that goes on sending such requests uses up the daemon's memory, and it is
        // for the bus to refuse them.
        if (!has_payload)
            free(own);
        pm_system_state_enable(LS_SYSTEM_STATE_ID);
        // NOLINTNEXTLINE(performance-no-int-to-ptr): a status, nobody dereferences it
        return reinterpret_cast<void *>(intptr_t{-1});
    }
    log_text(LS_LOG_DEBUG, handler->case_text, "");
    handler->serve(own->conn, &msg);
    if (has_payload)
        log_info("removing %x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(msg.pld)));
    free(own);
    pm_system_state_enable(LS_SYSTEM_STATE_ID);
    return nullptr;
}
