// Client side of the location service: typed requests over the terminal's message bus, for C11 and
// C++. location_client.hpp adds what C++20 programs are used to: std::chrono, spans, an owner.
//
// Threads: every function may be called from any thread, also several at once on one client, except
// location_client_close, which must be the last call on its client. Nothing here may be called from
// a signal handler. No exception leaves these functions.
// Time-outs: milliseconds, from 1 to one day. A request may take up to one second more than its
// time-out, because a full receive queue of the service holds the sender up that long.
// Records: replies are handed over as the wire records of ls_messages.h. On every result other than
// LOCATION_ANSWERED a record is all zero unless its function says otherwise.
#ifndef LOCATION_CLIENT_H
#define LOCATION_CLIENT_H

#include "ls_messages.h"

#ifdef __cplusplus
#define LOCATION_NOEXCEPT noexcept
extern "C" {
#else
#define LOCATION_NOEXCEPT
#endif
#pragma GCC visibility push(default)

// Values are never changed; later versions add some at the end.
enum location_result {
    LOCATION_ANSWERED = 0,         // the service answered: success
    LOCATION_FAILED = 1,           // the service answered: failure, or refused
    LOCATION_RECEIVER_TIMEOUT = 2, // the service answered: the receiver was silent
    LOCATION_GATE_CLOSED = 3,      // the service refuses every request: no GNSS on this terminal
    LOCATION_RECEIVER_OFF = 4,     // no reply comes while the receiver is switched off
    LOCATION_RECEIVER_BUSY = 5, // no reply in time, though the service is alive and the receiver on
    LOCATION_NO_REPLY = 6,      // no reply in time
    LOCATION_NO_BUS = 7,        // the bus directory is absent
    LOCATION_BUS_DENIED = 8, // not permitted: members of terminal-bus are, tools' of terminal-tools
    LOCATION_ID_TAKEN = 9,   // another process has the service id
    LOCATION_IDS_EXHAUSTED = 10, // all ids kept for tools are taken
    LOCATION_NO_DAEMON = 11,     // nobody has the id of the location service
    LOCATION_BUS_FULL = 12,      // the service does not take messages from its queue
    LOCATION_BUS_ERROR = 13,     // any other failure of the bus
    LOCATION_BAD_REPLY = 14,     // a reply that is not the record it should be
    LOCATION_BAD_ARGUMENT = 15,  // nothing was sent
    LOCATION_CANCELLED = 16,     // location_client_cancel was called
    LOCATION_NO_MEMORY = 17,     // nor threads, nor descriptors
    LOCATION_BUS_LOCKED = 18, // a dead process is in the place of the service id, its lock is held
    LOCATION_PENDING = 19,    // of a started request: it is not over yet
    LOCATION_TOO_MANY = 20,   // as many started requests as there may be are there
};
// Programs and the library must agree on what a function returns.
static_assert(sizeof(enum location_result) == 4, "compile without -fshort-enums");

// Service ids kept for tools; 0 at opening stands for the first free one.
#define LOCATION_CLIENT_TOOL_ID_FIRST 32
#define LOCATION_CLIENT_TOOL_ID_LAST 63

// Requests started and not yet taken, at once, of one client.
#define LOCATION_CLIENT_MAX_STARTED 8

// Requests of one client that are started and not yet taken.
#define LOCATION_CLIENT_MAX_STARTED 8

// Shortest interval of periodic updates that the service accepts, seconds.
#define LOCATION_CLIENT_MIN_INTERVAL_S UINT32_C(4)

// Bytes of an answer to a UBX frame that the service hands on; what is behind them is lost.
#define LOCATION_CLIENT_UBX_ANSWER_SIZE 80

// One connection to the bus.
struct location_client;

// One sentence without a full stop, in English; never null. Static text.
const char *location_client_error_text(enum location_result result) LOCATION_NOEXCEPT;

// Connects as service `serv_id`, or as the first free tool id for 0. The id of the location service
// itself is a bad argument. With LOCATION_ANSWERED *client is the new client, to be given back with
// location_client_close; otherwise it is null.
enum location_result location_client_open(uint8_t serv_id,
                                          struct location_client **client) LOCATION_NOEXCEPT;

// Leaves the bus and frees the client; null is ignored. Started requests end without a result, and
// their tickets and the descriptor are void; for one that a full queue holds up it waits. An open
// registration for periodic updates stays with the service: end it first.
void location_client_close(struct location_client *client) LOCATION_NOEXCEPT;

uint8_t location_client_serv_id(const struct location_client *client) LOCATION_NOEXCEPT;

// Power mode that the last LOCATION_RECEIVER_OFF was based on.
uint32_t location_client_power_seen(const struct location_client *client) LOCATION_NOEXCEPT;

// Ends all waits on this client, and all further ones at once, with LOCATION_CANCELLED, until
// resumed. Started requests are over, too, with that result.
void location_client_cancel(struct location_client *client) LOCATION_NOEXCEPT;
void location_client_resume(struct location_client *client) LOCATION_NOEXCEPT;

// Power mode (gps_power_mode) in force.
enum location_result location_client_get_power(struct location_client *client, int64_t timeout_ms,
                                               uint32_t *mode) LOCATION_NOEXCEPT;

// Changes the power mode. *in_force, when wanted, is the mode afterwards, with LOCATION_FAILED too,
// where it is asked with a second request in the time that is left; LOCATION_NO_REPLY when that had
// no answer. While the receiver is off only services 3, 6, 8 and 9 may switch it on; switching off
// what is off fails, switching on what is on does not.
enum location_result location_client_set_power(struct location_client *client, int64_t timeout_ms,
                                               uint32_t mode, uint32_t *in_force) LOCATION_NOEXCEPT;

// The queries below, the registration and the engineering commands get no reply while the receiver
// is off. When a reply is not there after 2 s, the client asks for the power mode too, and ends the
// wait with LOCATION_RECEIVER_OFF soon after that says so. It does not ask as service 2 (SAL) and 3
// (VoIP), behind whose answers the service may switch the receiver off, nor as service 9, for which
// it is always on: there, as with a shorter time-out, such a request ends with LOCATION_NO_REPLY.
enum location_result location_client_get_position(struct location_client *client,
                                                  int64_t timeout_ms,
                                                  struct gps_pos_data *position) LOCATION_NOEXCEPT;
enum location_result location_client_get_time(struct location_client *client, int64_t timeout_ms,
                                              struct gps_time_fields *utc,
                                              uint32_t *time_of_week) LOCATION_NOEXCEPT;
enum location_result location_client_get_satellites(struct location_client *client,
                                                    int64_t timeout_ms,
                                                    struct gps_sat_info *info) LOCATION_NOEXCEPT;
enum location_result location_client_get_speed(struct location_client *client, int64_t timeout_ms,
                                               struct gps_speed_data *speed) LOCATION_NOEXCEPT;

// `answer`, LS_ENGG_ANSWER_SIZE bytes, is the receiver's raw answer to an engineering command,
// zero-filled. All zero with LOCATION_ANSWERED means that the receiver said nothing: the service
// reports its time-out as success here.

// `body`: NMEA sentence without $, * and checksum, 1 to 79 printable ASCII characters.
enum location_result location_client_exec_nmea(struct location_client *client, int64_t timeout_ms,
                                               const char *body, uint8_t *answer) LOCATION_NOEXCEPT;

// `frame`: a whole UBX frame of `size` bytes from its sync bytes to its two checksum bytes, whose
// values do not matter (the service sets them). Its text form, see location_client_ubx_text, must
// fit. The answer holds LOCATION_CLIENT_UBX_ANSWER_SIZE bytes at most.
enum location_result location_client_exec_ubx(struct location_client *client, int64_t timeout_ms,
                                              const uint8_t *frame, size_t size,
                                              uint8_t *answer) LOCATION_NOEXCEPT;

// The text in which a frame travels: hexadecimal bytes between commas, two digits each, or as few
// as possible when it would not fit otherwise. `text` has LS_ENGG_CMD_SIZE bytes. Returns its
// length, at most 79; 0 = does not fit.
size_t location_client_ubx_text(const uint8_t *frame, size_t size, char *text) LOCATION_NOEXCEPT;

// Has the location history exported. The reply is filled with LOCATION_FAILED too, when it came:
// its status tells the reason; its path is NUL-terminated.
enum location_result location_client_get_history_path(
    struct location_client *client, int64_t timeout_ms,
    struct ls_history_path_reply *reply) LOCATION_NOEXCEPT;

// Tells the service that the history settings in the settings database have changed. It says
// nothing back: LOCATION_ANSWERED means that the service has the message.
enum location_result location_client_notify_history_settings(struct location_client *client)
    LOCATION_NOEXCEPT;

// Asks, as SAL, for the LPP location parameters; a bad argument from any other service id. The
// service tries three times and says nothing when it fails.
enum location_result location_client_get_lpp(struct location_client *client, int64_t timeout_ms,
                                             struct gps_lpp_location *lpp) LOCATION_NOEXCEPT;

// Registers for `num_updates` (1 or more) position updates, one at once and then one every
// `interval_s` seconds (4 or more). LOCATION_FAILED: this service id is registered already, or
// three others are.
enum location_result location_client_register_periodic(struct location_client *client,
                                                       int64_t timeout_ms, uint32_t num_updates,
                                                       uint32_t interval_s) LOCATION_NOEXCEPT;

// Ends the registration. LOCATION_FAILED: there was none. Served while the receiver is off as well.
enum location_result location_client_unregister_periodic(struct location_client *client,
                                                         int64_t timeout_ms) LOCATION_NOEXCEPT;

// Waits for the next position update and takes it from the queue. With LOCATION_ANSWERED the
// update's own status is still to be looked at. The queue holds 64; a newer update pushes out the
// oldest. A time-out of 0 only looks.
enum location_result location_client_next_update(struct location_client *client, int64_t timeout_ms,
                                                 struct ls_position_reply *update)
    LOCATION_NOEXCEPT;

// Updates pushed out of the queue, or dropped for their wrong size, since opening.
uint32_t location_client_lost_updates(const struct location_client *client) LOCATION_NOEXCEPT;

// --- Requests that do not wait, for programs with an event loop ---
//
// A request is started; when it is over, the descriptor becomes readable and the result can be
// taken. Arguments, results and times are those
// of the function of the same name that waits. The library carries each out on a thread of its own,
// with all signals blocked: nothing here takes time, whatever the service and its queue do. A
// ticket is not 0; it stands for its request until the result was taken or the request abandoned.

// The descriptor to poll for reading: readable as long as the result of a started request is there
// to be taken or an update is in the queue. It is the client's: not to be read, written or closed.
// The first call makes it; -1: there are no more descriptors.
int location_client_fd(struct location_client *client) LOCATION_NOEXCEPT;

// LOCATION_ANSWERED with a *ticket; otherwise 0 and LOCATION_TOO_MANY, LOCATION_NO_MEMORY or, for a
// time-out or command that is none, LOCATION_BAD_ARGUMENT. Whatever else fails is a result to be
// taken.
enum location_result location_client_start_power(struct location_client *client, int64_t timeout_ms,
                                                 uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_set_power(struct location_client *client,
                                                     int64_t timeout_ms, uint32_t mode,
                                                     uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_position(struct location_client *client,
                                                    int64_t timeout_ms,
                                                    uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_time(struct location_client *client, int64_t timeout_ms,
                                                uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_satellites(struct location_client *client,
                                                      int64_t timeout_ms,
                                                      uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_speed(struct location_client *client, int64_t timeout_ms,
                                                 uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_nmea(struct location_client *client, int64_t timeout_ms,
                                                const char *body,
                                                uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_ubx(struct location_client *client, int64_t timeout_ms,
                                               const uint8_t *frame, size_t size,
                                               uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_history_path(struct location_client *client,
                                                        int64_t timeout_ms,
                                                        uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_lpp(struct location_client *client, int64_t timeout_ms,
                                               uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_register_periodic(struct location_client *client,
                                                             int64_t timeout_ms,
                                                             uint32_t num_updates,
                                                             uint32_t interval_s,
                                                             uint32_t *ticket) LOCATION_NOEXCEPT;
enum location_result location_client_start_unregister_periodic(struct location_client *client,
                                                               int64_t timeout_ms,
                                                               uint32_t *ticket) LOCATION_NOEXCEPT;
// Over when the service has the message, or does not take it for a second.
enum location_result location_client_start_notify_history_settings(
    struct location_client *client, uint32_t *ticket) LOCATION_NOEXCEPT;

// The ticket of a request that is over, the earliest first; 0 = there is none.
uint32_t location_client_next_ticket(struct location_client *client) LOCATION_NOEXCEPT;

// LOCATION_PENDING while the request is under way. Otherwise what the function that waits would
// have returned, and the ticket is void. LOCATION_BAD_ARGUMENT: no such ticket, or one whose result
// is of another kind; it stays as it is.

// Of start_power and start_set_power; the latter's mode is there with LOCATION_FAILED, too.
enum location_result location_client_take_power(struct location_client *client, uint32_t ticket,
                                                uint32_t *mode) LOCATION_NOEXCEPT;
enum location_result location_client_take_position(struct location_client *client, uint32_t ticket,
                                                   struct gps_pos_data *position) LOCATION_NOEXCEPT;
enum location_result location_client_take_time(struct location_client *client, uint32_t ticket,
                                               struct gps_time_fields *utc,
                                               uint32_t *time_of_week) LOCATION_NOEXCEPT;
enum location_result location_client_take_satellites(struct location_client *client,
                                                     uint32_t ticket,
                                                     struct gps_sat_info *info) LOCATION_NOEXCEPT;
enum location_result location_client_take_speed(struct location_client *client, uint32_t ticket,
                                                struct gps_speed_data *speed) LOCATION_NOEXCEPT;
// Of start_nmea and start_ubx: LS_ENGG_ANSWER_SIZE bytes.
enum location_result location_client_take_answer(struct location_client *client, uint32_t ticket,
                                                 uint8_t *answer) LOCATION_NOEXCEPT;
enum location_result location_client_take_history_path(
    struct location_client *client, uint32_t ticket,
    struct ls_history_path_reply *reply) LOCATION_NOEXCEPT;
enum location_result location_client_take_lpp(struct location_client *client, uint32_t ticket,
                                              struct gps_lpp_location *lpp) LOCATION_NOEXCEPT;
// Of the registrations and the notification.
enum location_result location_client_take_done(struct location_client *client,
                                               uint32_t ticket) LOCATION_NOEXCEPT;

// Gives a started request up, over or not: nothing is left to take, and a reply that comes is not
// looked at. What was sent is not undone: a receiver may be switched, a registration be open.
void location_client_abandon(struct location_client *client, uint32_t ticket) LOCATION_NOEXCEPT;

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
