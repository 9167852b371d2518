// Bus messages: dispatch of what arrives, request workers, request handlers, reply builders.
//
// Road of a request: ls_hal_process_message (bus receive thread) -> ls_hal_process_request_msg ->
// ls_msg_req_handler_thread -> worker thread: ls_process_thread_req -> handler -> ls_send_response.
// Results are 0, or -1 for failure (logged), unless said otherwise.
#ifndef GPS_MESSAGE_HANDLER_H
#define GPS_MESSAGE_HANDLER_H

#include "ls_messages.h"
#include "mqutils.h"

#include <cstddef>
#include <cstdint>

// --- gps_message_handler.cpp: dispatch, on the bus library's receive thread

// The bus callback: gate, system-state vote, dispatch by type.
int ls_hal_process_message(scm_conn *conn, bus_msg *msg);
int ls_hal_process_response_msg(scm_conn *conn, bus_msg *msg);
int ls_hal_process_notification_msg(scm_conn *conn, bus_msg *msg);

// Tells SAL whether GNSS is available for LPP (1) or not (0).
void ls_hal_send_lpp_capabilites(scm_conn *conn, uint16_t capability);

// First 32-bit word of a payload. False when there is none: shorter, or no payload at all.
bool ls_payload_word(const bus_msg &msg, uint32_t *word);

// --- gps_message_handler_worker.cpp: request entry and worker threads

// Power check and start of a worker. -1 when the request is refused (no reply is sent then).
int ls_hal_process_request_msg(scm_conn *conn, bus_msg *msg);

// Copies the message and serves it on a detached thread. Returns when the copy is taken; 0 when a
// worker runs.
int ls_msg_req_handler_thread(scm_conn *conn, bus_msg *msg);

// Thread body; `param` is the hand-off record.
void *ls_process_thread_req(void *param);

// Workers that are running at this moment.
int ls_active_workers();

// --- gps_message_handler_reply.cpp: reply builders, any thread

// Answers `req`: a response, or notification 1010 to its sender. A VoIP request that was the last
// one using the receiver powers it down, unless the stored status is on.
int ls_send_response(scm_conn *conn, const bus_msg *req, const void *payload, uint32_t len,
                     int as_notification);

// Sends a u32 power mode on the service's own connection.
int ls_send_power_notification(uint32_t msg_id, const uint32_t *payload, uint32_t len,
                               uint8_t dst_serv_id);

// --- gps_message_handler_request.cpp: one handler per request, on its worker thread. Every handler
// replies by itself, also when its query failed.

void ls_hal_get_power_mode(scm_conn *conn, const bus_msg *msg);
void ls_hal_set_power_mode(scm_conn *conn, const bus_msg *msg);
void ls_hal_get_position(scm_conn *conn, const bus_msg *msg);
// Fills the position reply: the buffered position while it is young enough, else one query. `name`
// is the caller's, for the log.
void ls_take_position(const char *name, ls_position_reply *reply);

void ls_hal_get_time(scm_conn *conn, const bus_msg *msg);

#endif
