// Periodic position updates: at most three registrations, one a client service. Each has a timer
// whose signal sends the loop-back request 1008; the worker that gets it sends one notification
// 1010.
#include "gps_main.h"
#include "gps_message_handler.h"
#include "gps_timer.h"
#include "ls_log.h"
#include "ls_state.h"

#include <array>
#include <cstring>

static constexpr char log_module[] = "gps_message_handler";

namespace {

constexpr uint32_t SHORTEST_INTERVAL_S = 4;
constexpr uint8_t NO_SLOT = 0xFF;

struct registry_slot {
    ls_periodic_req req;   // under registry_lock
    uint32_t in_use;       // under registry_lock; 1 = occupied
    uint64_t registration; // under registry_lock; tells it from the client's earlier ones
    std::atomic<timer_t>
        timer_id; // written under registry_lock, read by the signal handler; 0 = none
    std::atomic<scm_conn *> conn; // of req, for the signal handler
};

// Taken by workers only, never in the signal handler.
std::mutex registry_lock;
std::array<registry_slot, LS_PERIODIC_SLOTS> ls_periodic_req_queue;
uint64_t registrations; // under registry_lock; made so far

// Whether two service ids mean the same service: only the low 8 bits count.
bool same_service(uint32_t a, uint32_t b) {
    return static_cast<uint8_t>(a) == static_cast<uint8_t>(b);
}

// The functions up to count_down run under registry_lock.

uint32_t store(const ls_periodic_req *req, uint8_t *slot_out) {
    uint8_t highest_free = NO_SLOT;
    for (size_t i = 0; i < ls_periodic_req_queue.size(); ++i) {
        registry_slot &slot = ls_periodic_req_queue[i];
        if (slot.in_use != 1) {
            highest_free = static_cast<uint8_t>(i);
            continue;
        }
        if (!same_service(slot.req.serv_id, req->serv_id))
            continue;
        if (req->msg_id != LS_REQUEST_REGISTER_PERIODIC_UPDATE_LB)
            return 1; // registered already
        slot.req = *req;
        slot.conn = req->conn;
        *slot_out = static_cast<uint8_t>(i);
        return 0;
    }
    if (req->msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE_LB)
        return 1; // not registered any more
    if (highest_free == NO_SLOT) {
        log_error("Periodic update register request queue full\n");
        return 1;
    }
    registry_slot &slot = ls_periodic_req_queue[highest_free];
    slot.req = *req;
    slot.conn = req->conn;
    slot.registration = ++registrations;
    slot.in_use = 1;
    *slot_out = highest_free;
    return 0;
}

void free_slot(size_t index) {
    registry_slot &slot = ls_periodic_req_queue[index];
    log_debug("!!!Deleting request at %d position !!!\n", static_cast<int>(index));
    delete_timer(slot.timer_id);
    slot.timer_id = timer_t{};
    slot.in_use = 0;
    slot.req = {};
    slot.conn = nullptr;
}

// Creates and starts the timer of a slot. False: neither it nor its start could be had (logged).
bool start_slot_timer(size_t index) {
    registry_slot &slot = ls_periodic_req_queue[index];
    if (create_timer(&slot.timer_id, ls_periodic_timer_signal_handler,
                     LS_PERIODIC_SIGNAL_OFFSET + static_cast<int>(index)) != 0) {
        log_error("Timer creation for periodic GPS updates failed");
        return false;
    }
    return start_timer(slot.timer_id, slot.req.interval) == 0;
}

// One notification to be sent, and what it counts for.
struct due_notification {
    uint64_t registration; // 0: none that still exists
    uint32_t left;         // notifications behind this one
    bool has_timer;        // as far as it needs one
};

// Counts one notification down in the client's slot and sees to it that more to come have a timer.
// A client whose registration has gone meanwhile still gets this notification.
due_notification count_down(ls_periodic_req *req) {
    req->msg_id = LS_REQUEST_REGISTER_PERIODIC_UPDATE_LB;
    --req->num_updates;
    uint8_t index = 0;
    if (store(req, &index) != 0)
        return {.registration = 0, .left = req->num_updates, .has_timer = true};
    const registry_slot &slot = ls_periodic_req_queue[index];
    const bool needs_timer = req->num_updates != 0 && slot.timer_id == timer_t{};
    return {.registration = slot.registration,
            .left = req->num_updates,
            .has_timer = !needs_timer || start_slot_timer(index)};
}

// The last notification is out. The client may have ended the registration meanwhile, and made a
// new one: that is not this one's to end.
void end_registration(uint64_t registration) {
    log_debug("#### Num Updates = 0 deleting request...####\n");
    const std::lock_guard guard(registry_lock);
    for (size_t i = 0; i < ls_periodic_req_queue.size(); ++i) {
        const registry_slot &slot = ls_periodic_req_queue[i];
        if (slot.in_use == 1 && slot.registration == registration)
            free_slot(i);
    }
}

// Sends the notification, and ends a registration whose last one it was. 0; 1 without a timer.
uint32_t notify(scm_conn *conn, const bus_msg *msg, const due_notification &due) {
    if (!due.has_timer)
        return 1;
    log_debug("Sending periodic data\n");
    ls_hal_send_periodic_data(conn, msg);
    if (due.left == 0)
        end_registration(due.registration);
    return 0;
}

} // namespace

uint32_t gps_update_periodic_req_struct(const ls_periodic_req *req, uint8_t *slot_out) {
    if (req == nullptr || slot_out == nullptr) {
        log_error("%s: red or id found NULL \n", __func__);
        return 1;
    }
    const std::lock_guard guard(registry_lock);
    return store(req, slot_out);
}

uint32_t gps_handle_periodic_update_request(scm_conn *conn, const bus_msg *msg,
                                            ls_periodic_req *req) {
    uint8_t slot = 0;
    const bool valid = req->num_updates != 0 && req->interval >= SHORTEST_INTERVAL_S &&
                       gps_update_periodic_req_struct(req, &slot) == 0;
    const ls_periodic_reply reply = {.result = valid ? 1u : 0u};
    if (valid)
        log_debug("Sending valid to client of size %lu\n",
                  static_cast<unsigned long>(sizeof(reply)));
    ls_send_response(conn, msg, &reply, sizeof(reply), 0);
    if (!valid) {
        log_error("%s: response code invalid", __func__);
        return 1;
    }
    due_notification due = {};
    {
        const std::lock_guard guard(registry_lock);
        due = count_down(req);
    }
    return notify(conn, msg, due);
}

void ls_hal_register_periodic_update_request(scm_conn *conn, const bus_msg *msg) {
    ls_register_periodic_req_pld_s wanted;
    if (!ls_payload_record(*msg, &wanted)) {
        log_error("%s is a NULL POINTER!", "(ls_register_periodic_req_pld_s *)msg->pld");
        return;
    }
    ls_periodic_req req = {.conn = conn,
                           .serv_id = msg->hdr.src_serv_id,
                           .msg_id = msg->hdr.msg_id,
                           .interval = wanted.interval,
                           .num_updates = wanted.num_updates};
    gps_handle_periodic_update_request(conn, msg, &req);
}

void ls_hal_handle_periodic_loopback(scm_conn *conn, const bus_msg *msg) {
    uint32_t index = 0;
    if (!ls_payload_word(*msg, &index) || index >= ls_periodic_req_queue.size()) {
        log_error("%s: no such slot", __func__);
        return;
    }
    bus_msg to_client = *msg;
    due_notification due = {};
    {
        const std::lock_guard guard(registry_lock);
        const registry_slot &slot = ls_periodic_req_queue[index];
        ls_periodic_req req = slot.req;
        // The last notification is on its way already; an expiry that overtook it adds none.
        if (slot.in_use == 1 && req.num_updates == 0)
            return;
        to_client.hdr.src_serv_id = static_cast<uint8_t>(req.serv_id);
        due = count_down(&req);
    }
    notify(conn, &to_client, due);
}

void ls_hal_unregister_periodic_update_request(scm_conn *conn, const bus_msg *msg) {
    const bool removed = ls_delete_periodic_request(msg->hdr.src_serv_id) == 0;
    if (!removed)
        log_error("%s: response code invalid", __func__);
    const ls_periodic_reply reply = {.result = removed ? 1u : 0u};
    ls_send_response(conn, msg, &reply, sizeof(reply), 0);
}

void ls_hal_send_periodic_data(scm_conn *conn, const bus_msg *msg) {
    log_debug("In %s function %d line\n", __func__, __LINE__);
    ls_position_reply notification;
    ls_take_position(__func__, &notification);
    ls_send_response(conn, msg, &notification, sizeof(notification), 1);
}

// Signal context, on the signal thread. Touches only the atomics of a slot.
void ls_periodic_timer_signal_handler(int, siginfo_t *info, void *) {
    const ls_signal_scope scope;
    const ls_activity activity;
    if (ls_is_stopping())
        return;
    for (uint32_t i = 0; i < ls_periodic_req_queue.size(); ++i) {
        registry_slot &slot = ls_periodic_req_queue[i];
        if (info->si_value.sival_ptr != &slot.timer_id)
            continue;
        scm_conn *conn = slot.conn;
        if (slot.timer_id == timer_t{} || conn == nullptr)
            return; // the expiry of a timer that has been deleted since
        msg_hdr hdr = {};
        fill_request_hdr(conn, &hdr, sizeof(i), LS_REQUEST_REGISTER_PERIODIC_UPDATE_LB,
                         LS_OWN_SERV_ID);
        auto *payload = static_cast<uint8_t *>(g_try_malloc0(sizeof(i)));
        if (payload == nullptr) {
            log_error("%s is a NULL POINTER!", "msg.pld");
            return;
        }
        memcpy(payload, &i, sizeof(i));
        if (send_msg(conn, &hdr, payload) == -1)
            log_error("Error while sending loopback message");
        g_free(payload);
        return;
    }
}

uint32_t ls_delete_periodic_request(uint8_t serv_id) {
    const std::lock_guard guard(registry_lock);
    for (size_t i = 0; i < ls_periodic_req_queue.size(); ++i) {
        const registry_slot &slot = ls_periodic_req_queue[i];
        if (slot.in_use == 1 && same_service(slot.req.serv_id, serv_id)) {
            free_slot(i);
            return 0;
        }
    }
    return 1;
}

void ls_delete_all_periodic_requests() {
    const std::lock_guard guard(registry_lock);
    for (registry_slot &slot : ls_periodic_req_queue) {
        if (slot.in_use == 1) {
            slot.in_use = 0;
            delete_timer(slot.timer_id);
        }
    }
}

namespace {

void dump_rule() {
    log_debug("\n********************************************************\n");
}

} // namespace

void ls_dump_periodic_request_queue() {
    dump_rule();
    {
        const std::lock_guard guard(registry_lock);
        for (size_t i = 0; i < ls_periodic_req_queue.size(); ++i) {
            const registry_slot &slot = ls_periodic_req_queue[i];
            if (slot.in_use == 1) {
                log_debug("%d Location in Queue is Occupied\n", static_cast<int>(i));
                log_debug("%d\t%d\t%d\n", static_cast<uint8_t>(slot.req.serv_id),
                          slot.req.num_updates, slot.req.interval);
            } else {
                log_debug("%d Location in Queue is Free\n", static_cast<int>(i));
            }
        }
    }
    dump_rule();
}
