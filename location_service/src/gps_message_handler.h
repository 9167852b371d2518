// Bus messages: dispatch of what arrives, request workers, request handlers, reply builders.
//
// Road of a request: ls_hal_process_message (bus receive thread) -> ls_hal_process_request_msg ->
// ls_msg_req_handler_thread -> worker thread: ls_process_thread_req -> handler -> ls_send_response.
// Results are 0, or -1 for failure (logged), unless said otherwise.
#ifndef GPS_MESSAGE_HANDLER_H
#define GPS_MESSAGE_HANDLER_H

#include "ls_messages.h"
#include "mqutils.h"

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <type_traits>

// --- gps_message_handler.cpp: dispatch, on the bus library's receive thread

// The bus callback: gate, system-state vote, dispatch by type.
int ls_hal_process_message(scm_conn *conn, bus_msg *msg);
int ls_hal_process_response_msg(scm_conn *conn, bus_msg *msg);
int ls_hal_process_notification_msg(scm_conn *conn, bus_msg *msg);

// Tells SAL whether GNSS is available for LPP (1) or not (0).
void ls_hal_send_lpp_capabilites(scm_conn *conn, uint16_t capability);

bool ls_payload_bytes(const bus_msg &msg, void *record, size_t size);

// The record of a payload; what a short one lacks is zero. False when there is none: a length
// without bytes is no payload either.
template <typename Record>
bool ls_payload_record(const bus_msg &msg, Record *record) {
    static_assert(std::is_trivially_copyable_v<Record>);
    return ls_payload_bytes(msg, record, sizeof(*record));
}

// The first 32-bit word of a payload, for what is one word only: half a word means nothing.
bool ls_payload_word(const bus_msg &msg, uint32_t *word);

// --- gps_message_handler_worker.cpp: request entry and worker threads

// Power check and start of a worker. -1 when the request is refused (no reply is sent then).
int ls_hal_process_request_msg(scm_conn *conn, bus_msg *msg);

// Copies the message and serves it on a detached thread; 0 when a worker runs, -1 when it could not
// be started (logged). The message is the caller's again on return.
int ls_msg_req_handler_thread(scm_conn *conn, bus_msg *msg);

// Thread body; `param` is the worker's request, which it owns.
void *ls_process_thread_req(void *param);

// --- gps_message_handler_reply.cpp: reply builders, any thread

// Answers `req`: a response, or notification 1010 to its sender. A VoIP request that was the last
// one using the receiver powers it down, unless the stored status is on.
int ls_send_response(scm_conn *conn, const bus_msg *req, const void *payload, uint32_t len,
                     int as_notification);

// The same for SAL: sends the record as a new request 19, whatever `req` was. The request that was
// the last one using the receiver powers it down, unless the stored status is on.
int ls_hal_send_req_msg(scm_conn *conn, const bus_msg *req, const void *payload, uint32_t len);

// Sends a u32 power mode on the service's own connection.
int ls_send_power_notification(uint32_t msg_id, const uint32_t *payload, uint32_t len,
                               uint8_t dst_serv_id);

// --- gps_message_handler_request.cpp: one handler per request, on its worker thread. Every handler
// replies by itself, also when its query failed.

void ls_hal_get_power_mode(scm_conn *conn, const bus_msg *msg);
void ls_hal_set_power_mode(scm_conn *conn, const bus_msg *msg);
void ls_hal_get_position(scm_conn *conn, const bus_msg *msg);
// Fills the reply of a position: the buffered one while it is young enough, else one query. `name`
// is the caller's, for the log.
void ls_take_position(const char *name, ls_position_reply *reply);

void ls_hal_get_time(scm_conn *conn, const bus_msg *msg);

void ls_hal_get_sat_info(scm_conn *conn, const bus_msg *msg);
void ls_hal_get_speed(scm_conn *conn, const bus_msg *msg);
void ls_hal_get_history_file_path(scm_conn *conn, const bus_msg *msg);
void ls_hal_exec_nmea_cmd(scm_conn *conn, const bus_msg *msg);
void ls_hal_exec_ubx_cmd(scm_conn *conn, const bus_msg *msg);

// Request 208: sends request 19 to SAL. 0; -1 when the parameters could not be had, and then sends
// nothing and leaves the request counted as using the receiver.
int ls_hal_get_lpp_params(scm_conn *conn, const bus_msg *msg);

// --- gps_message_handler_periodic.cpp: the registry of periodic updates. Any worker thread.

// One registration. Not on the wire.
struct ls_periodic_req {
    scm_conn *conn;       // where its messages go out
    uint32_t serv_id;     // the client; key of the registry, low 8 bits
    uint32_t msg_id;      // 1007 while being registered, then 1008
    uint32_t interval;    // seconds
    uint32_t num_updates; // notifications still to send
};

// Handlers of 1007, 1008 (sent by the service to itself, with a slot index) and 1009.
void ls_hal_register_periodic_update_request(scm_conn *conn, const bus_msg *msg);
void ls_hal_handle_periodic_loopback(scm_conn *conn, const bus_msg *msg);
void ls_hal_unregister_periodic_update_request(scm_conn *conn, const bus_msg *msg);

// Body of 1007: stores the registration, replies, sends the first notification. 0, or 1.
uint32_t gps_handle_periodic_update_request(scm_conn *conn, const bus_msg *msg,
                                            ls_periodic_req *req);

// Stores a new registration (msg_id 1007) in the highest free slot, or a running one (1008) in its
// own. 0 and the slot's index, or 1.
uint32_t gps_update_periodic_req_struct(const ls_periodic_req *req, uint8_t *slot_out);

// Sends one notification 1010 to the sender of `msg`.
void ls_hal_send_periodic_data(scm_conn *conn, const bus_msg *msg);

// Frees the slot of a client and deletes its timer. 0, or 1 when it has none.
uint32_t ls_delete_periodic_request(uint8_t serv_id);

// Shutdown: frees all slots and deletes their timers.
void ls_delete_all_periodic_requests();

// Writes the registry to the log.
void ls_dump_periodic_request_queue();

// Handler of a slot's timer signal: sends request 1008 to the service itself.
void ls_periodic_timer_signal_handler(int signal, siginfo_t *info, void *context);

#endif
