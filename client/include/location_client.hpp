// location_client.h for C++20: the same functions with std::chrono time-outs, spans and string
// views, and an owner that closes its client. All inline; the library exports C functions alone.
#ifndef LOCATION_CLIENT_HPP
#define LOCATION_CLIENT_HPP

#if __cplusplus < 202002L
#error "location_client.hpp is C++20; location_client.h does with less"
#endif

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "location_client.h"

struct location_client_closer {
    void operator()(location_client *client) const noexcept { location_client_close(client); }
};
// Closes the client at the end of its scope.
using location_client_owner = std::unique_ptr<location_client, location_client_closer>;

// As location_client_open; `client` is empty unless the result is LOCATION_ANSWERED.
inline location_result location_client_open(uint8_t serv_id,
                                            location_client_owner &client) noexcept {
    location_client *opened = nullptr;
    const location_result result = location_client_open(serv_id, &opened);
    client.reset(opened);
    return result;
}

// The receiver's raw answer to an engineering command, zero-filled.
using location_client_answer = std::array<uint8_t, LS_ENGG_ANSWER_SIZE>;

// A body with a NUL behind it; empty, which is refused, when it is too long or has one in it.
inline std::array<char, LS_ENGG_CMD_SIZE> location_client_text(std::string_view body) noexcept {
    std::array<char, LS_ENGG_CMD_SIZE> text{};
    if (body.size() < text.size() && body.find('\0') == body.npos)
        body.copy(text.data(), body.size());
    return text;
}

inline location_result location_client_get_power(location_client *client,
                                                 std::chrono::milliseconds timeout,
                                                 uint32_t *mode) noexcept {
    return location_client_get_power(client, int64_t{timeout.count()}, mode);
}

inline location_result location_client_set_power(location_client *client,
                                                 std::chrono::milliseconds timeout, uint32_t mode,
                                                 uint32_t *in_force) noexcept {
    return location_client_set_power(client, int64_t{timeout.count()}, mode, in_force);
}

inline location_result location_client_get_position(location_client *client,
                                                    std::chrono::milliseconds timeout,
                                                    gps_pos_data *position) noexcept {
    return location_client_get_position(client, int64_t{timeout.count()}, position);
}

inline location_result location_client_get_time(location_client *client,
                                                std::chrono::milliseconds timeout,
                                                gps_time_fields *utc,
                                                uint32_t *time_of_week) noexcept {
    return location_client_get_time(client, int64_t{timeout.count()}, utc, time_of_week);
}

inline location_result location_client_get_satellites(location_client *client,
                                                      std::chrono::milliseconds timeout,
                                                      gps_sat_info *info) noexcept {
    return location_client_get_satellites(client, int64_t{timeout.count()}, info);
}

inline location_result location_client_get_speed(location_client *client,
                                                 std::chrono::milliseconds timeout,
                                                 gps_speed_data *speed) noexcept {
    return location_client_get_speed(client, int64_t{timeout.count()}, speed);
}

inline location_result location_client_exec_nmea(location_client *client,
                                                 std::chrono::milliseconds timeout,
                                                 std::string_view body,
                                                 location_client_answer *answer) noexcept {
    return location_client_exec_nmea(client, int64_t{timeout.count()},
                                     location_client_text(body).data(),
                                     answer == nullptr ? nullptr : answer->data());
}

inline location_result location_client_exec_ubx(location_client *client,
                                                std::chrono::milliseconds timeout,
                                                std::span<const uint8_t> frame,
                                                location_client_answer *answer) noexcept {
    return location_client_exec_ubx(client, int64_t{timeout.count()}, frame.data(), frame.size(),
                                    answer == nullptr ? nullptr : answer->data());
}

inline size_t location_client_ubx_text(std::span<const uint8_t> frame,
                                       std::array<char, LS_ENGG_CMD_SIZE> *text) noexcept {
    return location_client_ubx_text(frame.data(), frame.size(),
                                    text == nullptr ? nullptr : text->data());
}

inline location_result location_client_get_history_path(location_client *client,
                                                        std::chrono::milliseconds timeout,
                                                        ls_history_path_reply *reply) noexcept {
    return location_client_get_history_path(client, int64_t{timeout.count()}, reply);
}

inline location_result location_client_get_lpp(location_client *client,
                                               std::chrono::milliseconds timeout,
                                               gps_lpp_location *lpp) noexcept {
    return location_client_get_lpp(client, int64_t{timeout.count()}, lpp);
}

inline location_result location_client_register_periodic(location_client *client,
                                                         std::chrono::milliseconds timeout,
                                                         uint32_t num_updates,
                                                         uint32_t interval_s) noexcept {
    return location_client_register_periodic(client, int64_t{timeout.count()}, num_updates,
                                             interval_s);
}

inline location_result location_client_unregister_periodic(
    location_client *client, std::chrono::milliseconds timeout) noexcept {
    return location_client_unregister_periodic(client, int64_t{timeout.count()});
}

inline location_result location_client_next_update(location_client *client,
                                                   std::chrono::milliseconds timeout,
                                                   ls_position_reply *update) noexcept {
    return location_client_next_update(client, int64_t{timeout.count()}, update);
}

// --- Requests that do not wait ---

inline location_result location_client_start_power(location_client *client,
                                                   std::chrono::milliseconds timeout,
                                                   uint32_t *ticket) noexcept {
    return location_client_start_power(client, int64_t{timeout.count()}, ticket);
}

inline location_result location_client_start_set_power(location_client *client,
                                                       std::chrono::milliseconds timeout,
                                                       uint32_t mode, uint32_t *ticket) noexcept {
    return location_client_start_set_power(client, int64_t{timeout.count()}, mode, ticket);
}

inline location_result location_client_start_position(location_client *client,
                                                      std::chrono::milliseconds timeout,
                                                      uint32_t *ticket) noexcept {
    return location_client_start_position(client, int64_t{timeout.count()}, ticket);
}

inline location_result location_client_start_time(location_client *client,
                                                  std::chrono::milliseconds timeout,
                                                  uint32_t *ticket) noexcept {
    return location_client_start_time(client, int64_t{timeout.count()}, ticket);
}

inline location_result location_client_start_satellites(location_client *client,
                                                        std::chrono::milliseconds timeout,
                                                        uint32_t *ticket) noexcept {
    return location_client_start_satellites(client, int64_t{timeout.count()}, ticket);
}

inline location_result location_client_start_speed(location_client *client,
                                                   std::chrono::milliseconds timeout,
                                                   uint32_t *ticket) noexcept {
    return location_client_start_speed(client, int64_t{timeout.count()}, ticket);
}

inline location_result location_client_start_nmea(location_client *client,
                                                  std::chrono::milliseconds timeout,
                                                  std::string_view body,
                                                  uint32_t *ticket) noexcept {
    return location_client_start_nmea(client, int64_t{timeout.count()},
                                      location_client_text(body).data(), ticket);
}

inline location_result location_client_start_ubx(location_client *client,
                                                 std::chrono::milliseconds timeout,
                                                 std::span<const uint8_t> frame,
                                                 uint32_t *ticket) noexcept {
    return location_client_start_ubx(client, int64_t{timeout.count()}, frame.data(), frame.size(),
                                     ticket);
}

inline location_result location_client_start_history_path(location_client *client,
                                                          std::chrono::milliseconds timeout,
                                                          uint32_t *ticket) noexcept {
    return location_client_start_history_path(client, int64_t{timeout.count()}, ticket);
}

inline location_result location_client_start_lpp(location_client *client,
                                                 std::chrono::milliseconds timeout,
                                                 uint32_t *ticket) noexcept {
    return location_client_start_lpp(client, int64_t{timeout.count()}, ticket);
}

inline location_result location_client_start_register_periodic(location_client *client,
                                                               std::chrono::milliseconds timeout,
                                                               uint32_t num_updates,
                                                               uint32_t interval_s,
                                                               uint32_t *ticket) noexcept {
    return location_client_start_register_periodic(client, int64_t{timeout.count()}, num_updates,
                                                   interval_s, ticket);
}

inline location_result location_client_start_unregister_periodic(location_client *client,
                                                                 std::chrono::milliseconds timeout,
                                                                 uint32_t *ticket) noexcept {
    return location_client_start_unregister_periodic(client, int64_t{timeout.count()}, ticket);
}

inline location_result location_client_take_answer(location_client *client, uint32_t ticket,
                                                   location_client_answer *answer) noexcept {
    return location_client_take_answer(client, ticket,
                                       answer == nullptr ? nullptr : answer->data());
}

#endif
