// Request entry and workers: one detached thread per accepted request, and one per change of the
// history settings.
#include "gps_history.h"
#include "gps_message_handler.h"
#include "gps_power.h"
#include "ls_log.h"
#include "ls_state.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <pthread.h>

static constexpr char log_module[] = "gps_message_handler";

namespace {

// What a new worker copies onto its own stack first of all.
struct ls_thread_param_s {
    scm_conn *conn;
    bus_msg msg;   // pld points to the payload copy when there is one
    void *payload; // heap copy, owned by the worker from the hand-off on
};

// Hand-off record from the starter to a new worker, reused as soon as the worker has its copy.
// There are several because a starter that waits for each new worker has the two take turns on a
// processor for every request, which costs a third of the throughput; with these it waits only
// when that many workers have not had their first moment yet.
struct handoff {
    ls_thread_param_s param; // the starter's while free, else the new worker's
    std::atomic<bool> taken; // set by the starter, cleared by the worker behind its copy
};

std::mutex start_lock;           // one start at a time
std::array<handoff, 8> handoffs; // claimed under start_lock
size_t posts_due;                // under start_lock; workers started less ls_thread_sem waited for

std::atomic<int> active_workers;

// A worker needs room for its query's buffers and one log line. The default of 8 MB would use up a
// 32-bit address space with a few hundred requests waiting for the receiver.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t WORKER_STACK_SIZE = size_t{512} * 1024;
#else
constexpr size_t WORKER_STACK_SIZE = size_t{64} * 1024;
#endif

constexpr int LPP_ATTEMPTS = 3;

// The requests of these services also decide what the stored power-on status is to be from now on.
void serve_set_power_mode(scm_conn *conn, const bus_msg *msg) {
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
    for (int attempt = 0; attempt < LPP_ATTEMPTS; ++attempt) {
        if (ls_hal_get_lpp_params(conn, msg) == 0)
            return;
    }
    log_error("Maximum retry count reached for ls_hal_get_lpp_params");
}

struct request_handler {
    uint32_t msg_id;
    const char *log_text;
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
    for (const request_handler &handler : request_handlers) {
        if (handler.msg_id == msg_id)
            return &handler;
    }
    return nullptr;
}

// A free record; waits when there is none. Each worker posts once, behind clearing its record, so
// that a post waited for leaves at least one record free.
handoff &claim_handoff() {
    while (posts_due == handoffs.size()) {
        if (sem_wait(&ls_thread_sem) == 0)
            --posts_due;
    }
    size_t i = 0;
    while (handoffs[i].taken)
        ++i;
    return handoffs[i];
}

// Starts a detached thread that counts as a worker; `body` takes it off the count. 0, or an errno
// value.
int create_thread(void *(*body)(void *), void *param) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, WORKER_STACK_SIZE);
    ++active_workers;
    pthread_t thread_id = {};
    const int error = pthread_create(&thread_id, &attributes, body, param);
    if (error != 0)
        --active_workers;
    pthread_attr_destroy(&attributes);
    return error;
}

int create_worker(handoff &record) {
    log_info("%s", "ls_msg_req_handler_thread");
    record.taken = true;
    errno = create_thread(ls_process_thread_req, &record);
    if (errno != 0) {
        log_error("Error while creating the ta_sm_thread. error = %d(%m)", errno);
        record.taken = false;
        return -1;
    }
    ++posts_due;
    return 0;
}

void *apply_history_settings(void *) {
    ls_hal_history_config();
    pm_system_state_enable(LS_SYSTEM_STATE_ID);
    --active_workers;
    return nullptr;
}

} // namespace

int ls_active_workers() {
    return active_workers;
}

void ls_start_history_config() {
    pm_system_state_disable(LS_SYSTEM_STATE_ID);
    errno = create_thread(apply_history_settings, nullptr);
    if (errno != 0) {
        log_error("%s: no thread (%m), the settings are not applied", __func__);
        pm_system_state_enable(LS_SYSTEM_STATE_ID);
    }
}

int ls_hal_process_request_msg(scm_conn *conn, bus_msg *msg) {
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
    const std::lock_guard guard(start_lock);
    handoff &record = claim_handoff();
    ls_thread_param_s &param = record.param;
    param = {.conn = conn, .msg = *msg, .payload = nullptr};
    bus_msg &copy = param.msg;
    if (copy.pld == nullptr)
        copy.hdr.pld_len = 0; // a length without bytes is no payload
    if (copy.hdr.pld_len != 0) {
        param.payload = calloc(copy.hdr.pld_len, 1);
        if (param.payload == nullptr) {
            log_error("%s is a NULL POINTER!", "ls_thread_param.pld");
            return -1;
        }
        memcpy(param.payload, msg->pld, copy.hdr.pld_len);
        copy.pld = param.payload;
    } else {
        copy.pld = nullptr; // may dangle
    }
    return create_worker(record);
}

void *ls_process_thread_req(void *param) {
    auto *record = static_cast<handoff *>(param);
    const ls_thread_param_s own = record->param;
    record->taken = false;
    sem_post(&ls_thread_sem);
    log_info("LS thread unlocked done");

    const request_handler *handler = find_handler(own.msg.hdr.msg_id);
    if (handler == nullptr) {
        log_error("%s, Invalid Message Id", __func__);
        pm_system_state_enable(LS_SYSTEM_STATE_ID);
        --active_workers;
        // NOLINTNEXTLINE(performance-no-int-to-ptr): a status, nobody dereferences it
        return reinterpret_cast<void *>(intptr_t{-1});
    }
    log_debug("%s", handler->log_text);
    handler->serve(own.conn, &own.msg);
    if (own.msg.hdr.pld_len != 0) {
        log_info("removing %x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(own.payload)));
        free(own.payload);
    }
    pm_system_state_enable(LS_SYSTEM_STATE_ID);
    --active_workers;
    return nullptr;
}
