// One command-and-answer exchange with the receiver, over the serial line or through the TA.
#include "gps_nmea_parser.h"
#include "gps_service.h"
#include "gps_uart.h"
#include "ls_log.h"
#include "ls_messages.h"
#include "ls_state.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

static constexpr char log_module[] = "gps_service";

namespace {

constexpr size_t UBX_OVERHEAD = 8; // sync, class, id, length, checksum

std::mutex uart_lock; // one write-and-read exchange at a time on the serial line

bool is_ubx(const char *cmd) {
    return static_cast<uint8_t>(cmd[0]) == 0xB5 && cmd[1] == 'b';
}

// Whole length of a UBX frame by its length field, which a client may have written.
uint32_t ubx_length(const char *cmd) {
    return static_cast<uint8_t>(cmd[5]) * 256u + static_cast<uint8_t>(cmd[4]) +
           static_cast<uint32_t>(UBX_OVERHEAD);
}

int32_t uart_exchange(const char *cmd, char *resp, uint32_t *len) {
    uint32_t cmd_length = 0;
    if (is_ubx(cmd)) {
        cmd_length = ubx_length(cmd);
        ls_hal_clear_rx_buffer();
        log_debug("UBX CMD cmd_length = %d", cmd_length);
    } else {
        cmd_length = static_cast<uint32_t>(strnlen(cmd, GPS_COMMAND_SIZE));
        log_debug("Non UBX CMD cmd_length = %d", cmd_length);
    }

    int result = 0;
    {
        const std::lock_guard guard(uart_lock);
        // What an earlier answer left on the line would answer this command, and this answer the
        // next.
        ls_hal_tty_discard();
        // A frame that claims to be longer than its buffer never reaches the line.
        const bool fits = cmd_length <= GPS_COMMAND_SIZE;
        if (!fits || ls_hal_tty_write(reinterpret_cast<const uint8_t *>(cmd),
                                      static_cast<int32_t>(cmd_length)) == 1) {
            log_error("ERROR: tty write failed \n");
            return 1;
        }
        int32_t count = GPS_UART_ANSWER_MAX;
        result = ls_hal_tty_read(reinterpret_cast<uint8_t *>(resp), &count);
        *len = static_cast<uint32_t>(count);
    }
    log_debug("%s: %d Bytes returned", "gps_get_data_req", *len);
    return result;
}

// Waits for the TA's answer. False: the wait time is over, and the answer will be a late one.
bool wait_for_ta() {
    timespec deadline = {};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += rffe_req_sem_wait_time;
    int result = 0;
    do {
        result = sem_timedwait(&ta_data_sem, &deadline);
    } while (result == -1 && errno == EINTR);

    // An answer that came in at the last moment, before the callback could see the flag, still
    // counts: its post must not be left for the next request.
    const std::lock_guard guard(ta_data_mutex);
    const bool answered = result == 0 || sem_trywait(&ta_data_sem) == 0;
    ta_req_timed_out_g = answered ? 0 : 1;
    return answered;
}

void log_ta_answer(const char *resp, uint32_t count) {
    log_debug("%s: %d bytes received data from TA gps", "gps_get_data_req", count);
    if (resp[0] == '$') {
        log_debug("received buffer = %s", resp);
        return;
    }
    log_debug("%d : Data received:", count);
    for (uint32_t i = 0; i < count; ++i)
        log_debug("0x%x", static_cast<uint8_t>(resp[i]));
}

int32_t ta_exchange(const char *cmd, char *resp, uint32_t *len) {
    if (antenna_type != LS_ANTENNA_TYPE_GNSS)
        return 1;
    auto *hdr = static_cast<msg_hdr *>(g_try_malloc0_n(1, sizeof(msg_hdr)));
    if (hdr == nullptr) {
        log_error("%s is a NULL POINTER!", "hdr");
        return -1;
    }
    resp[0] = resp[1] = '\0';

    gps_data_req_pld request;
    {
        // The bus callback may be storing a late answer at this moment.
        const std::lock_guard guard(ta_data_mutex);
        gps_data_req_pld &pld = ta_data_req_pld;
        memset(pld.command, 0, sizeof(pld.command));
        memset(pld.response, 0, sizeof(pld.response));
        if (cmd[0] == '$') {
            pld.cmd_len = static_cast<uint32_t>(strnlen(cmd, sizeof(pld.command) - 1));
            memcpy(pld.command, cmd, pld.cmd_len);
        } else {
            memcpy(pld.command, cmd, std::min<size_t>(*len, sizeof(pld.command)));
            pld.cmd_len = ubx_length(cmd);
        }
        request = pld;
    }

    scm_conn *conn = gps_p_g.load();
    fill_request_hdr(conn, hdr, sizeof(request), TA_REQUEST_GPS_DATA, LS_SERV_TA);
    const int sent = send_msg(conn, hdr, &request);
    g_free(hdr);
    if (sent < 0) {
        log_error("Error while sending message to service");
        return 1;
    }
    log_info("%s: waiting for response\n", "gps_get_data_req");
    if (!wait_for_ta()) {
        log_error("%s: semaphore timed out, did not receive GPS data from TA\n",
                  "gps_get_data_req");
        return 1;
    }

    gps_data_req_pld answer;
    {
        const std::lock_guard guard(ta_data_mutex);
        answer = ta_data_req_pld;
    }
    *len = answer.cmd_len;
    if (answer.cmd_len > sizeof(answer.response)) {
        log_error("%s: rffe module returned corrupt pointer: gps_data_req_pld.cmd_len = %d",
                  "gps_get_data_req", answer.cmd_len);
        return 1;
    }
    memcpy(resp, answer.response, answer.cmd_len);
    log_ta_answer(resp, answer.cmd_len);
    return 0;
}

} // namespace

int32_t gps_get_data_req(const char *cmd, char *resp, uint32_t *len) {
    switch (gps_board_type_g) {
    case 1:
        return uart_exchange(cmd, resp, len);
    case 2:
        return ta_exchange(cmd, resp, len);
    default:
        return 1;
    }
}

int32_t gps_poll_nmea(const char *body, char *resp, uint32_t *len) {
    char sentence[GPS_COMMAND_SIZE] = {};
    ls_hal_clear_rx_buffer();
    const uint32_t created = ls_hal_create_nmea_sentence(body, sentence);
    if (created != 0)
        return static_cast<int32_t>(created);
    return gps_get_data_req(sentence, resp, len);
}
