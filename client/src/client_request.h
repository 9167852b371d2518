// Inside of liblocation_client: the typed requests, as location_client.h tells of them, for a call
// that is valid; what they write to is never null. Threads: the caller's.
#ifndef CLIENT_REQUEST_H
#define CLIENT_REQUEST_H

#include "client_exchange.h"

// The command of an engineering request.
using client_command = std::array<char, LS_ENGG_CMD_SIZE>;

// False for a body that cannot be sent.
bool client_nmea_command(const char *body, client_command &command) noexcept;
// False for a frame that is none, or does not fit.
bool client_ubx_command(const uint8_t *frame, size_t size, client_command &command) noexcept;

location_result client_get_power(const client_call &call, uint32_t &mode) noexcept;
location_result client_set_power(const client_call &call, uint32_t mode,
                                 uint32_t &in_force) noexcept;
location_result client_get_position(const client_call &call, gps_pos_data &position) noexcept;
location_result client_get_time(const client_call &call, ls_time_reply &reply) noexcept;
location_result client_get_satellites(const client_call &call, gps_sat_info &info) noexcept;
location_result client_get_speed(const client_call &call, gps_speed_data &speed) noexcept;
// `msg_id`: LS_EXEC_NMEA_CMD or LS_EXEC_UBX_CMD.
location_result client_exec(const client_call &call, uint32_t msg_id, const client_command &command,
                            ls_engg_cmd &reply) noexcept;
location_result client_get_history_path(const client_call &call,
                                        ls_history_path_reply &reply) noexcept;
location_result client_get_lpp(const client_call &call, gps_lpp_location &lpp) noexcept;
location_result client_register_periodic(const client_call &call,
                                         const ls_register_periodic_req_pld_s &wanted) noexcept;
location_result client_unregister_periodic(const client_call &call) noexcept;

#endif
