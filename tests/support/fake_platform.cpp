#include "fake_platform.h"

#include "gps_main.h"
#include "gps_message_handler.h"
#include "ls_state.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <thread>

namespace {

// All but the votes under `lock`.
std::mutex lock;
std::condition_variable changed;
std::vector<std::pair<int, std::string>> lines; // level and text
std::vector<fake::sent_message> messages;
std::function<void(const fake::sent_message &)> send_action;
std::atomic<int> votes_taken, votes_given_back;

} // namespace

namespace fake {

void reset() {
    reset_log();
    const std::lock_guard guard(lock);
    messages.clear();
    send_action = nullptr;
    votes_taken = votes_given_back = 0;
    database() = {};
    timers.clear();

    mt_gps_status = 2;
    gps_current_power_mode_g = 2;
    gps_board_type_g = 1;
    antenna_type = stub_location_on_g = pending_req_count = ta_req_timed_out_g = 0;
    for (std::atomic<char> &c : ls_stub_location_buf)
        c = '\0';
    gps_cfun_level_g = 0;
    rffe_req_sem_wait_time = 15;
    gps_pos_buffer_time = 5.0;
    loc_hist_offset_time = 120.0;
    ta_data_req_pld = {};
    gps_p_g = connection();
    [[maybe_unused]] static const bool initialised = sem_init(&ta_data_sem, 0, 0) == 0;
    while (sem_trywait(&ta_data_sem) == 0) {
    }
}

void reset_log() {
    const std::lock_guard guard(lock);
    lines.clear();
}

size_t count_logged(int level, std::string_view part) {
    const std::lock_guard guard(lock);
    return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [&](const auto &line) {
        return line.first == level && line.second.find(part) != std::string::npos;
    }));
}

std::vector<sent_message> wait_for_sent(size_t n) {
    std::unique_lock guard(lock);
    changed.wait_for(guard, std::chrono::seconds(5), [n] { return messages.size() >= n; });
    return messages;
}

void on_send(std::function<void(const sent_message &)> action) {
    const std::lock_guard guard(lock);
    send_action = std::move(action);
}

votes system_state_votes() {
    return {votes_taken, votes_given_back};
}

bool wait_for_votes_returned() {
    while (ls_activities() != 0)
        std::this_thread::yield();
    return votes_taken > 0 && votes_taken <= votes_given_back;
}

bus_msg make_message(uint8_t type, uint32_t id, uint8_t from, bytes &payload) {
    const auto size = static_cast<uint32_t>(payload.size());
    return {{type, 0, from, 8, id, 77, size, 0}, size == 0 ? nullptr : payload.data()};
}

int deliver(uint8_t type, uint32_t id, uint8_t from, bytes payload) {
    bus_msg msg = make_message(type, id, from, payload);
    const int result = ls_hal_process_message(connection(), &msg);
    payload.assign(payload.size(), 0xFF);
    return result;
}

void deliver_ta_answer(std::string_view answer, uint32_t cmd_len) {
    gps_data_req_pld pld = {};
    answer.copy(reinterpret_cast<char *>(pld.response), sizeof(pld.response));
    pld.cmd_len = cmd_len;
    const auto *raw = reinterpret_cast<const uint8_t *>(&pld);
    deliver(1, 1416, 12, {raw, raw + sizeof(pld)});
}

} // namespace fake

// --- libmqutils

int scm_conn_init(scm_conn *, uint8_t) {
    return fake::database().registration_result;
}

int scm_conn_exit(scm_conn *) {
    return 0;
}

int fill_request_hdr(scm_conn *, msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id,
                     uint8_t dst_serv_id) {
    *hdr = {0, 0, 8, dst_serv_id, msg_id, 1, pld_len, 0};
    return 0;
}

int fill_notif_hdr(scm_conn *c, msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id,
                   uint8_t dst_serv_id) {
    fill_request_hdr(c, hdr, pld_len, msg_id, dst_serv_id);
    hdr->msg_type = 2;
    return 0;
}

int fill_response_hdr(scm_conn *, msg_hdr *hdr, const bus_msg *req, uint32_t pld_len) {
    *hdr = {1, 0, 8, req->hdr.src_serv_id, req->hdr.msg_id, req->hdr.txn_id, pld_len, 0};
    return 0;
}

int send_msg(scm_conn *, const msg_hdr *hdr, const void *pld) {
    const auto *raw = static_cast<const uint8_t *>(pld);
    const fake::sent_message message = {.hdr = *hdr, .payload = {raw, raw + hdr->pld_len}};
    std::unique_lock guard(lock);
    messages.push_back(message);
    const auto action = send_action;
    guard.unlock();
    changed.notify_all();
    if (action)
        action(message);
    return 0;
}

// --- libdbhandler

int db_read_gps_power_on_status(int32_t *status) {
    *status = fake::database().power_on_status;
    return 0;
}

int db_set_gps_power_on_status(int32_t status) {
    fake::database().power_on_status = status;
    ++fake::database().power_on_writes;
    return fake::database().power_on_write_result;
}

int db_read_location_history_settings(location_history_settings *settings) {
    *settings = fake::database().history;
    return 0;
}

// --- libzukhal

void zuk_log_tmplt(int level, const char *format, const char *, int line, ...) {
    char text[2048];
    va_list args;
    va_start(args, line);
    vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    const std::lock_guard guard(lock);
    lines.emplace_back(level, text);
}

int rtc_start_timer(uint32_t interval_s, int (*)(void *), int *) {
    fake::timers.push_back(interval_s);
    return static_cast<int>(fake::timers.size());
}

int rtc_del_timer(int timer_id) {
    fake::timers.at(static_cast<size_t>(timer_id) - 1) = 0;
    return 0;
}

int pm_system_state_enable(int state_id) {
    votes_given_back += state_id == LS_SYSTEM_STATE_ID;
    return 1;
}

int pm_system_state_disable(int state_id) {
    votes_taken += state_id == LS_SYSTEM_STATE_ID;
    return 1;
}
