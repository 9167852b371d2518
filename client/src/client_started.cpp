// liblocation_client: requests that are started and taken, for programs with an event loop.
//
// Threads: each place for a request has one, which carries out what the functions that wait do in
// their caller's; all else is the caller's. A place is idle, started, running and over, in this
// order. What is abandoned before it is over makes its place idle when its thread is through.
#include "client_request.h"

#include <algorithm>

#include <sys/eventfd.h>

#include "ls_descriptor.h"
#include "ls_signals_blocked.h"

namespace {

constexpr size_t STACK_BYTES = size_t{256} * 1024; // as of the bus library's thread
constexpr int64_t ANY_TIMEOUT_MS = 1000;           // for what only sends, which has its own

void run(client_place &place, std::unique_lock<std::mutex> &held) {
    client_call call(place.owner, place.timeout.count());
    call.start = place.start;
    call.abandoned = &place.abandoned;
    place.stage = client_stage::running;
    held.unlock();
    const location_result result = place.task.run(call, place.task);
    held.lock();
    place.result = result;
}

void *run_place(void *context) {
    client_place &place = *static_cast<client_place *>(context);
    location_client &client = *place.owner;
    std::unique_lock held(client.lock);
    for (;;) {
        client.work.wait(held,
                         [&] { return place.stage == client_stage::started || client.closing; });
        if (client.closing)
            return nullptr;
        if (!place.abandoned)
            run(place, held);
        place.stage = place.abandoned ? client_stage::idle : client_stage::over;
        place.over_as = ++client.num_over;
        client_tell_ready(client);
    }
}

bool has_thread(location_client &client, client_place &place) {
    if (place.has_thread)
        return true;
    place.owner = &client;
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0)
        return false;
    pthread_attr_setstacksize(&attributes, STACK_BYTES);
    {
        const ls_signals_blocked scope;
        place.has_thread = pthread_create(&place.thread, &attributes, run_place, &place) == 0;
    }
    pthread_attr_destroy(&attributes);
    return place.has_thread;
}

location_result start(location_client *client, int64_t timeout_ms, uint32_t *ticket,
                      const client_task &task) {
    const client_call call(client, timeout_ms);
    if (ticket == nullptr)
        return LOCATION_BAD_ARGUMENT;
    *ticket = 0;
    if (!call.valid())
        return LOCATION_BAD_ARGUMENT;
    const std::lock_guard guard(client->lock);
    const auto place =
        std::find_if(client->places.begin(), client->places.end(),
                     [](const client_place &p) { return p.stage == client_stage::idle; });
    if (place == client->places.end())
        return LOCATION_TOO_MANY;
    if (!has_thread(*client, *place))
        return LOCATION_NO_MEMORY;
    client->last_ticket = std::max(client->last_ticket + 1, UINT32_C(1));
    *ticket = place->ticket = client->last_ticket;
    place->abandoned = false;
    place->start = call.start;
    place->timeout = call.timeout;
    place->task = task;
    place->stage = client_stage::started;
    client->work.notify_all();
    return LOCATION_ANSWERED;
}

// A request that has nothing to say but what it wants to know.
template <class record, location_result (*request)(const client_call &, record &) noexcept>
location_result start_query(location_client *client, int64_t timeout_ms, uint32_t *ticket) {
    return start(client, timeout_ms, ticket,
                 {.run =
                      [](const client_call &call, client_task &task) noexcept {
                          return request(call, *std::get_if<record>(&task.value));
                      },
                  .value = record{}});
}

location_result run_exec(const client_call &call, client_task &task) noexcept {
    return client_exec(call, task.msg_id, task.command, *std::get_if<ls_engg_cmd>(&task.value));
}

// The place of a ticket; with the lock held.
client_place *find_place(location_client &client, uint32_t ticket) {
    const auto place =
        std::find_if(client.places.begin(), client.places.end(), [ticket](const client_place &p) {
            return p.stage != client_stage::idle && !p.abandoned && p.ticket == ticket;
        });
    return place == client.places.end() ? nullptr : place;
}

template <class record>
location_result take(location_client *client, uint32_t ticket, record *out) {
    if (client == nullptr || out == nullptr)
        return LOCATION_BAD_ARGUMENT;
    *out = {};
    const std::lock_guard guard(client->lock);
    client_place *place = find_place(*client, ticket);
    const record *value = place == nullptr ? nullptr : std::get_if<record>(&place->task.value);
    if (value == nullptr)
        return LOCATION_BAD_ARGUMENT;
    if (place->stage != client_stage::over)
        return LOCATION_PENDING;
    *out = *value;
    place->stage = client_stage::idle;
    client_tell_ready(*client);
    return place->result;
}

} // namespace

void client_tell_ready(location_client &client) noexcept {
    const bool ready =
        client.num_updates != 0 ||
        std::any_of(client.places.begin(), client.places.end(),
                    [](const client_place &p) { return p.stage == client_stage::over; });
    if (client.ready_fd == -1 || ready == client.ready_said)
        return;
    client.ready_said = ready;
    eventfd_t value = 1;
    if (ready)
        eventfd_write(client.ready_fd, value);
    else
        eventfd_read(client.ready_fd, &value);
}

void client_end_started(location_client &client) noexcept {
    if (client.process != getpid()) {
        // A forked child has neither the threads nor a lock that anybody would give back.
        ls_close(client.ready_fd);
        return;
    }
    {
        const std::lock_guard guard(client.lock);
        client.closing = client.cancelled = true;
    }
    client.changed.notify_all();
    client.work.notify_all();
    for (client_place &place : client.places)
        if (place.has_thread)
            pthread_join(place.thread, nullptr);
    ls_close(client.ready_fd);
}

int location_client_fd(location_client *client) noexcept {
    if (client == nullptr)
        return -1;
    const std::lock_guard guard(client->lock);
    if (client->ready_fd == -1) {
        client->ready_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        client_tell_ready(*client);
    }
    return client->ready_fd;
}

uint32_t location_client_next_ticket(location_client *client) noexcept {
    if (client == nullptr)
        return 0;
    const std::lock_guard guard(client->lock);
    const client_place *next = nullptr;
    for (const client_place &place : client->places)
        if (place.stage == client_stage::over && (next == nullptr || place.over_as < next->over_as))
            next = &place;
    return next == nullptr ? 0 : next->ticket;
}

void location_client_abandon(location_client *client, uint32_t ticket) noexcept {
    if (client == nullptr)
        return;
    {
        const std::lock_guard guard(client->lock);
        client_place *place = find_place(*client, ticket);
        if (place == nullptr)
            return;
        if (place->stage == client_stage::over)
            place->stage = client_stage::idle;
        else
            place->abandoned = true;
        client_tell_ready(*client);
    }
    client->changed.notify_all();
}

location_result location_client_start_power(location_client *client, int64_t timeout_ms,
                                            uint32_t *ticket) noexcept {
    return start_query<uint32_t, client_get_power>(client, timeout_ms, ticket);
}

location_result location_client_start_set_power(location_client *client, int64_t timeout_ms,
                                                uint32_t mode, uint32_t *ticket) noexcept {
    return start(client, timeout_ms, ticket,
                 {.run =
                      [](const client_call &call, client_task &task) noexcept {
                          return client_set_power(call, task.power_mode,
                                                  *std::get_if<uint32_t>(&task.value));
                      },
                  .value = uint32_t{0},
                  .power_mode = mode});
}

location_result location_client_start_position(location_client *client, int64_t timeout_ms,
                                               uint32_t *ticket) noexcept {
    return start_query<gps_pos_data, client_get_position>(client, timeout_ms, ticket);
}

location_result location_client_start_time(location_client *client, int64_t timeout_ms,
                                           uint32_t *ticket) noexcept {
    return start_query<ls_time_reply, client_get_time>(client, timeout_ms, ticket);
}

location_result location_client_start_satellites(location_client *client, int64_t timeout_ms,
                                                 uint32_t *ticket) noexcept {
    return start_query<gps_sat_info, client_get_satellites>(client, timeout_ms, ticket);
}

location_result location_client_start_speed(location_client *client, int64_t timeout_ms,
                                            uint32_t *ticket) noexcept {
    return start_query<gps_speed_data, client_get_speed>(client, timeout_ms, ticket);
}

location_result location_client_start_nmea(location_client *client, int64_t timeout_ms,
                                           const char *body, uint32_t *ticket) noexcept {
    client_task task{.run = run_exec, .value = ls_engg_cmd{}, .msg_id = LS_EXEC_NMEA_CMD};
    return start(client_nmea_command(body, task.command) ? client : nullptr, timeout_ms, ticket,
                 task);
}

location_result location_client_start_ubx(location_client *client, int64_t timeout_ms,
                                          const uint8_t *frame, size_t size,
                                          uint32_t *ticket) noexcept {
    client_task task{.run = run_exec, .value = ls_engg_cmd{}, .msg_id = LS_EXEC_UBX_CMD};
    return start(client_ubx_command(frame, size, task.command) ? client : nullptr, timeout_ms,
                 ticket, task);
}

location_result location_client_start_history_path(location_client *client, int64_t timeout_ms,
                                                   uint32_t *ticket) noexcept {
    return start_query<ls_history_path_reply, client_get_history_path>(client, timeout_ms, ticket);
}

location_result location_client_start_lpp(location_client *client, int64_t timeout_ms,
                                          uint32_t *ticket) noexcept {
    return start_query<gps_lpp_location, client_get_lpp>(client, timeout_ms, ticket);
}

location_result location_client_start_register_periodic(location_client *client, int64_t timeout_ms,
                                                        uint32_t num_updates, uint32_t interval_s,
                                                        uint32_t *ticket) noexcept {
    return start(client, timeout_ms, ticket,
                 {.run =
                      [](const client_call &call, client_task &task) noexcept {
                          return client_register_periodic(call, task.wanted);
                      },
                  .wanted = {num_updates, interval_s}});
}

location_result location_client_start_unregister_periodic(location_client *client,
                                                          int64_t timeout_ms,
                                                          uint32_t *ticket) noexcept {
    return start(client, timeout_ms, ticket,
                 {.run = [](const client_call &call,
                            client_task &) noexcept { return client_unregister_periodic(call); }});
}

location_result location_client_start_notify_history_settings(location_client *client,
                                                              uint32_t *ticket) noexcept {
    return start(client, ANY_TIMEOUT_MS, ticket,
                 {.run =
                      [](const client_call &call, client_task &) noexcept {
                          return location_client_notify_history_settings(call.client);
                      }});
}

location_result location_client_take_power(location_client *client, uint32_t ticket,
                                           uint32_t *mode) noexcept {
    return take(client, ticket, mode);
}

location_result location_client_take_position(location_client *client, uint32_t ticket,
                                              gps_pos_data *position) noexcept {
    return take(client, ticket, position);
}

location_result location_client_take_time(location_client *client, uint32_t ticket,
                                          gps_time_fields *utc, uint32_t *time_of_week) noexcept {
    if (utc == nullptr || time_of_week == nullptr)
        return LOCATION_BAD_ARGUMENT;
    ls_time_reply reply{};
    const location_result result = take(client, ticket, &reply);
    *utc = reply.time;
    *time_of_week = reply.time_of_week;
    return result;
}

location_result location_client_take_satellites(location_client *client, uint32_t ticket,
                                                gps_sat_info *info) noexcept {
    return take(client, ticket, info);
}

location_result location_client_take_speed(location_client *client, uint32_t ticket,
                                           gps_speed_data *speed) noexcept {
    return take(client, ticket, speed);
}

location_result location_client_take_answer(location_client *client, uint32_t ticket,
                                            uint8_t *answer) noexcept {
    if (answer == nullptr)
        return LOCATION_BAD_ARGUMENT;
    ls_engg_cmd reply{};
    const location_result result = take(client, ticket, &reply);
    std::copy(std::begin(reply.answer), std::end(reply.answer), answer);
    return result;
}

location_result location_client_take_history_path(location_client *client, uint32_t ticket,
                                                  ls_history_path_reply *reply) noexcept {
    return take(client, ticket, reply);
}

location_result location_client_take_lpp(location_client *client, uint32_t ticket,
                                         gps_lpp_location *lpp) noexcept {
    return take(client, ticket, lpp);
}

location_result location_client_take_done(location_client *client, uint32_t ticket) noexcept {
    client_nothing nothing;
    return take(client, ticket, &nothing);
}
