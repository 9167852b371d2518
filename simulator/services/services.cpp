#include "services.h"

#include "decode.h"
#include "ls_descriptor.h"
#include "ls_file.h"
#include "ls_messages.h"
#include "mqutils.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <span>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace sim {
namespace {

struct stand_in {
    uint8_t id;
    const char *name;
    bool open;
    scm_conn connection;
};

struct received {
    const stand_in *by;
    msg_hdr hdr;
    std::vector<uint8_t> payload;
};

// Set up and taken down on the thread of the loop; the receive threads of the bus only look
// themselves up.
std::array<stand_in, 4> services{{
    {LS_SERV_SAL, "SAL", false, {}},
    {LS_SERV_VOIP, "VoIP", false, {}},
    {LS_SERV_WS, "WS", false, {}},
    {LS_SERV_TA, "TA", false, {}},
}};

// From the receive threads to the loop.
std::mutex inbox_lock;       // guards inbox
std::vector<received> inbox; // in order of arrival
int inbox_event = -1;        // eventfd: something is in the inbox

// Thread of the loop only.
services_host host{};
ls_file log_file;
int bus_notify = -1;       // inotify on the bus directory: the daemon's socket appears; -1 = no TA
bool daemon_ready = false; // VoIP has been told the power status
uint32_t antenna_type = 0; // what the TA announces
ta ta_unit;
bool timer_added = false;

int on_message(scm_conn *connection, bus_msg *message) {
    for (const stand_in &service : services) {
        if (&service.connection == connection) {
            const auto *const payload = static_cast<const uint8_t *>(message->pld);
            const size_t length = payload == nullptr ? 0 : message->hdr.pld_len;
            const std::lock_guard guard(inbox_lock);
            inbox.push_back({&service, message->hdr, {payload, payload + length}});
            const uint64_t one = 1;
            [[maybe_unused]] const ssize_t told = write(inbox_event, &one, sizeof one);
        }
    }
    return 0;
}

stand_in &service_of(uint8_t id) {
    for (stand_in &service : services)
        if (service.id == id)
            return service;
    return services.front();
}

void write_down(const char *name, const std::string &text) {
    host.tell(name, text);
    if (log_file == nullptr)
        return;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    std::array<char, 32> when;
    std::strftime(when.data(), when.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    std::fprintf(log_file.get(), "%s.%03ldZ %-4s %s\n", when.data(), now.tv_nsec / 1000000, name,
                 text.c_str());
    std::fflush(log_file.get());
}

bool notify(uint8_t from, uint32_t id, std::span<const uint8_t> payload, std::string &error) {
    stand_in &service = service_of(from);
    if (!service.open) {
        error = std::string(service.name) + " is not on the bus here";
        return false;
    }
    msg_hdr hdr{};
    if (fill_notif_hdr(&service.connection, &hdr, static_cast<uint32_t>(payload.size()), id,
                       LS_OWN_SERV_ID) != 0 ||
        send_msg(&service.connection, &hdr, payload.data()) != 0) {
        error = std::string(service.name) + " could not send " + std::to_string(id) +
                " to the location service (is it on the bus?)";
        return false;
    }
    write_down(service.name, "sent notification " + std::to_string(id));
    return true;
}

void respond(uint8_t from, const msg_hdr &request, std::span<const uint8_t> payload) {
    stand_in &service = service_of(from);
    const bus_msg message{request, nullptr};
    msg_hdr hdr{};
    if (fill_response_hdr(&service.connection, &hdr, &message,
                          static_cast<uint32_t>(payload.size())) != 0 ||
        send_msg(&service.connection, &hdr, payload.empty() ? nullptr : payload.data()) != 0)
        write_down(service.name, "could not send response " + std::to_string(request.msg_id));
}

void announce_antenna() {
    std::string error;
    std::array<uint8_t, 4> payload;
    std::memcpy(payload.data(), &antenna_type, sizeof antenna_type);
    if (!notify(LS_SERV_TA, TA_NOTIFY_ANTENNA_TYPE, payload, error))
        write_down("TA", error);
}

// Moves the TA on: commands to the line, replies to the bus.
void step_ta() {
    const double now = host.now();
    for (const ta_reply &reply : ta_due_replies(ta_unit, host.faults(), now)) {
        std::array<uint8_t, sizeof reply.payload> payload;
        std::memcpy(payload.data(), &reply.payload, sizeof reply.payload);
        respond(LS_SERV_TA, reply.request, payload);
    }
    if (const auto command = ta_next_command(ta_unit, now); command.has_value())
        host.line_send(*command);
}

void handle(const received &message) {
    if (message.hdr.msg_id == SCM_RESPONSE_REGISTRATION)
        return;
    write_down(message.by->name, services_decode(message.hdr, message.payload));
    const bool request = message.hdr.msg_type == LS_MSG_REQUEST;
    if (message.by->id == LS_SERV_SAL && request &&
        message.hdr.msg_id == SAL_REQUEST_LPP_CAPABILITIES) {
        respond(LS_SERV_SAL, message.hdr, {});
    } else if (message.by->id == LS_SERV_VOIP && message.hdr.msg_id == LS_NOTIFY_POWER_MODE) {
        daemon_ready = true;
    } else if (message.by->id == LS_SERV_TA && request &&
               message.hdr.msg_id == TA_REQUEST_GPS_DATA) {
        std::string error;
        if (!ta_take_request(ta_unit, message.hdr, message.payload, error))
            write_down("TA", "refused: " + error);
        step_ta();
    }
}

void on_inbox() {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(inbox_event, &count, sizeof count);
    std::vector<received> messages;
    {
        const std::lock_guard guard(inbox_lock);
        messages.swap(inbox);
    }
    for (const received &message : messages)
        handle(message);
}

// A TA announces the antenna to every location service that comes up.
void on_bus_change() {
    alignas(inotify_event) std::array<char, 4096> buffer;
    bool came = false;
    ssize_t count = 0;
    while ((count = read(bus_notify, buffer.data(), buffer.size())) > 0) {
        for (size_t at = 0; at < static_cast<size_t>(count);) {
            inotify_event event;
            std::memcpy(&event, buffer.data() + at, sizeof event);
            came = came || (event.len != 0 &&
                            std::to_string(LS_OWN_SERV_ID) == buffer.data() + at + sizeof event);
            at += sizeof event + event.len;
        }
    }
    if (came)
        announce_antenna();
}

bool open_ta(const std::string &bus, std::string &error) {
    bus_notify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (bus_notify < 0 || inotify_add_watch(bus_notify, bus.c_str(), IN_CREATE | IN_MOVED_TO) < 0) {
        error = "watching " + bus + ": " + std::strerror(errno);
        return false;
    }
    host.watch(bus_notify, on_bus_change);
    if (!timer_added) {
        host.add_timer([] { return ta_next_event(ta_unit); }, step_ta);
        timer_added = true;
    }
    for (const std::string &command : ta_start_commands())
        host.line_send({reinterpret_cast<const uint8_t *>(command.data()), command.size()});
    return true;
}

} // namespace

bool services_open(const services_host &around, int board, int32_t antenna, const std::string &bus,
                   const std::string &log, std::string &error) {
    host = around;
    antenna_type = static_cast<uint32_t>(antenna);
    log_file.reset(std::fopen(log.c_str(), "ae"));
    if (log_file == nullptr) {
        error = "opening " + log + ": " + std::strerror(errno);
        return false;
    }
    inbox_event = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (inbox_event < 0) {
        error = std::string("creating an event: ") + std::strerror(errno);
        return false;
    }
    host.watch(inbox_event, on_inbox);
    for (stand_in &service : services) {
        if (service.id == LS_SERV_TA && board != 2)
            continue;
        service.connection = scm_conn{};
        service.connection.on_message = on_message;
        if (scm_conn_init(&service.connection, service.id) != 0) {
            error = std::string("registering ") + service.name + " as service " +
                    std::to_string(service.id) + " on the bus failed";
            return false;
        }
        service.open = true;
    }
    return board != 2 || open_ta(bus, error);
}

void services_close() {
    for (stand_in &service : services)
        if (std::exchange(service.open, false))
            scm_conn_exit(&service.connection);
    for (int *fd : {&inbox_event, &bus_notify}) {
        if (*fd >= 0) {
            host.forget(*fd);
            ls_close(*fd);
        }
    }
    log_file.reset();
    inbox.clear();
    ta_unit = ta{};
    timer_added = false;
}

bool services_are_open() {
    return inbox_event >= 0;
}

bool services_take_answer(std::span<const uint8_t> answer) {
    if (bus_notify < 0)
        return false;
    ta_take_answer(ta_unit, answer, host.faults(), host.now());
    step_ta();
    return true;
}

void services_forget_ready() {
    daemon_ready = false;
}
bool services_daemon_ready() {
    return daemon_ready;
}

bool services_announce_antenna(uint32_t type, std::string &error) {
    antenna_type = type;
    std::array<uint8_t, 4> payload;
    std::memcpy(payload.data(), &type, sizeof type);
    return notify(LS_SERV_TA, TA_NOTIFY_ANTENNA_TYPE, payload, error);
}

bool services_request_location(std::string &error) {
    const std::array<uint8_t, 24> payload{};
    return notify(LS_SERV_SAL, SAL_REQUEST_PROVIDE_GNSS_LOCATION_TO_CP, payload, error);
}

bool services_notify_cfun(uint8_t level, std::string &error) {
    const std::array<uint8_t, 1> payload{level};
    return notify(LS_SERV_SAL, SS_NOTIFY_CFUN_LEVEL, payload, error);
}

bool services_notify_history(std::string &error) {
    return notify(LS_SERV_WS, WS_NOTIFY_LOCATION_HISTORY_ACQUISTION_CONFIG_UPDATE, {}, error);
}

} // namespace sim
