// Client side of the location service: typed, blocking requests over the terminal's message bus.
//
// Threads: every function may be called from any thread, also several at once on one client, except
// location_client_close, which must be the last call on its client. Nothing here may be called from
// a signal handler. No exception leaves these functions.
// Time-outs: from 1 ms to one day. A request may take up to one second more than its time-out,
// because a full receive queue of the service holds the sender up that long.
// Records: replies are handed over as the wire records of ls_messages.h. On every result other than
// location_result::answered a record is all zero unless its function says otherwise.
#ifndef LOCATION_CLIENT_H
#define LOCATION_CLIENT_H

#include <array>
#include <chrono>
#include <cstdint>
#include <span>
#include <string_view>

#include "ls_messages.h"

#define LOCATION_CLIENT_API __attribute__((visibility("default")))

enum class location_result : uint8_t {
    answered,         // the service answered: success
    failed,           // the service answered: failure, or refused
    receiver_timeout, // the service answered: the receiver was silent
    gate_closed,      // the service refuses every request: no GNSS on this terminal
    receiver_off,     // no reply comes while the receiver is switched off
    receiver_busy,    // no reply in time, though the service is alive and the receiver on
    no_reply,         // no reply in time
    no_bus,           // the bus directory is absent
    bus_denied,       // not permitted: members of terminal-bus are, tools' of terminal-tools, too
    id_taken,         // another process has the service id
    ids_exhausted,    // all ids kept for tools are taken
    no_daemon,        // nobody has the id of the location service
    bus_full,         // the service does not take messages from its queue
    bus_error,        // any other failure of the bus
    bad_reply,        // a reply that is not the record it should be
    bad_argument,     // nothing was sent
    cancelled,        // location_client_cancel was called
    no_memory,
    bus_locked, // a dead process is in the place of the service id, and its lock is held
};

// Service ids kept for tools; 0 at opening stands for the first free one.
constexpr uint8_t LOCATION_CLIENT_TOOL_ID_FIRST = 32;
constexpr uint8_t LOCATION_CLIENT_TOOL_ID_LAST = 63;

// Shortest interval of periodic updates that the service accepts, seconds.
constexpr uint32_t LOCATION_CLIENT_MIN_INTERVAL_S = 4;

// One connection to the bus.
struct location_client;

// One sentence without a full stop, in English; never null. Static text.
LOCATION_CLIENT_API const char *location_client_error_text(location_result result) noexcept;

// Connects as service `serv_id`, or as the first free tool id for 0. The id of the location service
// itself is a bad argument. On `answered` *client is the new client, to be given back with
// location_client_close; otherwise it is null.
LOCATION_CLIENT_API location_result location_client_open(uint8_t serv_id,
                                                         location_client **client) noexcept;

// Leaves the bus and frees the client; null is ignored. An open registration for periodic updates
// stays with the service: end it first.
LOCATION_CLIENT_API void location_client_close(location_client *client) noexcept;

LOCATION_CLIENT_API uint8_t location_client_serv_id(const location_client *client) noexcept;

// Power mode that the last `receiver_off` was based on.
LOCATION_CLIENT_API uint32_t location_client_power_seen(const location_client *client) noexcept;

// Ends all waits on this client, and all further ones at once, with `cancelled`, until resumed.
LOCATION_CLIENT_API void location_client_cancel(location_client *client) noexcept;
LOCATION_CLIENT_API void location_client_resume(location_client *client) noexcept;

// Power mode (gps_power_mode) in force.
LOCATION_CLIENT_API location_result location_client_get_power(location_client *client,
                                                              std::chrono::milliseconds timeout,
                                                              uint32_t *mode) noexcept;

// Changes the power mode. *in_force, when wanted, is the mode afterwards, on `failed` too, where it
// is asked with a second request in the time that is left; `no_reply` when that had no answer.
// While the receiver is off only services 3, 6, 8 and 9 may switch it on; switching off what is off
// fails, switching on what is on does not.
LOCATION_CLIENT_API location_result location_client_set_power(location_client *client,
                                                              std::chrono::milliseconds timeout,
                                                              uint32_t mode,
                                                              uint32_t *in_force) noexcept;

// The queries below, the registration and the engineering commands get no reply while the receiver
// is off. When a reply is not there after 2 s, the client asks for the power mode too, and ends the
// wait with `receiver_off` soon after that says so. It does not ask as service 2 (SAL) and 3
// (VoIP), behind whose answers the service may switch the receiver off, nor as service 9, for which
// it is always on: there, as with a shorter time-out, such a request ends with `no_reply`.
LOCATION_CLIENT_API location_result location_client_get_position(location_client *client,
                                                                 std::chrono::milliseconds timeout,
                                                                 gps_pos_data *position) noexcept;
LOCATION_CLIENT_API location_result location_client_get_time(location_client *client,
                                                             std::chrono::milliseconds timeout,
                                                             gps_time_fields *utc,
                                                             uint32_t *time_of_week) noexcept;
LOCATION_CLIENT_API location_result location_client_get_satellites(
    location_client *client, std::chrono::milliseconds timeout, gps_sat_info *info) noexcept;
LOCATION_CLIENT_API location_result location_client_get_speed(location_client *client,
                                                              std::chrono::milliseconds timeout,
                                                              gps_speed_data *speed) noexcept;

// The receiver's raw answer to an engineering command, zero-filled. All zero with `answered` means
// that the receiver said nothing: the service reports its time-out as success here.
using location_client_answer = std::array<uint8_t, LS_ENGG_ANSWER_SIZE>;

// `body`: NMEA sentence without $, * and checksum, 1 to 79 printable ASCII characters.
LOCATION_CLIENT_API location_result
location_client_exec_nmea(location_client *client, std::chrono::milliseconds timeout,
                          std::string_view body, location_client_answer *answer) noexcept;

// `frame`: a whole UBX frame from its sync bytes to its two checksum bytes, whose values do not
// matter (the service sets them). Its text form, see location_client_ubx_text, must fit. The answer
// holds 80 bytes at most.
LOCATION_CLIENT_API location_result
location_client_exec_ubx(location_client *client, std::chrono::milliseconds timeout,
                         std::span<const uint8_t> frame, location_client_answer *answer) noexcept;

// Bytes of an answer to a UBX frame that the service hands on; what is behind them is lost.
constexpr size_t LOCATION_CLIENT_UBX_ANSWER_SIZE = 80;

// The text in which a frame travels: hexadecimal bytes between commas, two digits each, or as few
// as possible when it would not fit otherwise. Returns its length, at most 79; 0 = does not fit.
LOCATION_CLIENT_API size_t location_client_ubx_text(
    std::span<const uint8_t> frame, std::array<char, LS_ENGG_CMD_SIZE> *text) noexcept;

// Has the location history exported. The reply is filled with `failed` too, when it came: its
// status tells the reason; its path is NUL-terminated.
LOCATION_CLIENT_API location_result
location_client_get_history_path(location_client *client, std::chrono::milliseconds timeout,
                                 ls_history_path_reply *reply) noexcept;

// Tells the service that the history settings in the settings database have changed. It says
// nothing back: `answered` means that the service has the message.
LOCATION_CLIENT_API location_result
location_client_notify_history_settings(location_client *client) noexcept;

// Asks, as SAL, for the LPP location parameters; a bad argument from any other service id. The
// service tries three times and says nothing when it fails.
LOCATION_CLIENT_API location_result location_client_get_lpp(location_client *client,
                                                            std::chrono::milliseconds timeout,
                                                            gps_lpp_location *lpp) noexcept;

// Registers for `num_updates` (1 or more) position updates, one at once and then one every
// `interval_s` seconds (4 or more). `failed`: this service id is registered already, or three
// others are.
LOCATION_CLIENT_API location_result
location_client_register_periodic(location_client *client, std::chrono::milliseconds timeout,
                                  uint32_t num_updates, uint32_t interval_s) noexcept;

// Ends the registration. `failed`: there was none. Served while the receiver is off as well.
LOCATION_CLIENT_API location_result location_client_unregister_periodic(
    location_client *client, std::chrono::milliseconds timeout) noexcept;

// Waits for the next position update and takes it from the queue. With `answered` the update's own
// status is still to be looked at. The queue holds 64; a newer update pushes out the oldest.
// A time-out of 0 only looks.
LOCATION_CLIENT_API location_result location_client_next_update(location_client *client,
                                                                std::chrono::milliseconds timeout,
                                                                ls_position_reply *update) noexcept;

// Updates pushed out of the queue, or dropped for their wrong size, since opening.
LOCATION_CLIENT_API uint32_t location_client_lost_updates(const location_client *client) noexcept;

#endif
