// One command-and-answer exchange with the receiver, over the serial line or through the TA.
#include "gps_nmea_parser.h"
#include "gps_service.h"
#include "gps_uart.h"
#include "ls_log.h"
#include "ls_messages.h"
#include "ls_send.h"
#include "ls_state.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>

static constexpr char log_module[] = "gps_service";
static constexpr char name[] = "gps_get_data_req"; // in log lines

namespace {

constexpr size_t UBX_HEADER_SIZE = 6;
constexpr size_t UBX_OVERHEAD = 8; // sync, class, id, length, checksum
constexpr uint8_t UBX_CLASS_ACK = 0x05;

std::mutex ta_exchange_lock; // one exchange through the TA at a time, from request to answer

bool is_ubx(gps_bytes bytes) {
    return bytes.size() >= UBX_HEADER_SIZE && bytes[0] == 0xB5 && bytes[1] == 0x62;
}

// Whole length of a UBX frame by its length field, which a client may have written.
uint32_t ubx_length(gps_bytes frame) {
    return frame.size() < UBX_HEADER_SIZE
               ? 0
               : frame[5] * 256u + frame[4] + static_cast<uint32_t>(UBX_OVERHEAD);
}

std::string_view as_text(gps_bytes bytes) {
    const std::string_view all(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    return all.substr(0, all.find('\0'));
}

// Whether an answer is one to this command, as far as its head tells. For deciding about what may
// still come; what becomes of the answer is for the query to judge.
bool is_answer_to(gps_bytes command, const gps_answer &answer) {
    const gps_bytes got(reinterpret_cast<const uint8_t *>(answer.text), answer.length);
    if (is_ubx(command))
        return is_ubx(got) &&
               (got[2] == UBX_CLASS_ACK || (got[2] == command[2] && got[3] == command[3]));
    std::string_view text = as_text(got);
    text.remove_prefix(std::min(text.find('$'), text.size()));
    const std::string_view asked = as_text(command);
    constexpr std::string_view pubx = "$PUBX,00"; // the message's number is part of its type
    constexpr std::string_view poll = "$GPGPQ,";  // the type asked for follows
    constexpr size_t talker_size = 3;             // with the "$"
    constexpr size_t type_size = 3;
    if (asked.starts_with("$PUBX,"))
        return text.starts_with(asked.substr(0, pubx.size()));
    if (asked.starts_with(poll) && text.size() >= talker_size + type_size)
        return text.substr(talker_size, type_size) == asked.substr(poll.size(), type_size);
    return !text.empty();
}

int32_t uart_exchange(gps_bytes command, gps_answer *answer) {
    ls_hal_uart_wait_configured();
    uint32_t cmd_length = 0;
    if (is_ubx(command)) {
        cmd_length = ubx_length(command);
        ls_hal_clear_rx_buffer();
        log_debug("UBX CMD cmd_length = %d", cmd_length);
    } else {
        cmd_length = static_cast<uint32_t>(as_text(command).size());
        log_debug("Non UBX CMD cmd_length = %d", cmd_length);
    }

    int result = 0;
    {
        const std::lock_guard guard(ls_uart_lock);
        ls_hal_tty_discard_doubtful();
        // A frame that claims to be longer than its buffer never reaches the line.
        const bool fits = cmd_length <= command.size();
        if (!fits || ls_hal_tty_write(command.data(), static_cast<int32_t>(cmd_length)) == 1) {
            log_error("ERROR: tty write failed \n");
            return 1;
        }
        int32_t count = GPS_UART_ANSWER_MAX;
        result = ls_hal_tty_read(reinterpret_cast<uint8_t *>(answer->text), &count);
        answer->length = static_cast<uint32_t>(std::max(count, 0));
        if (result == 0 && !is_answer_to(command, *answer))
            ls_hal_tty_doubt();
    }
    log_debug("%s: %d Bytes returned", name, answer->length);
    return result;
}

// An answer that nobody waited for raised the semaphore: it must not be taken for the next one.
// Under ta_exchange_lock.
void forget_stray_answers() {
    while (sem_trywait(&ta_data_sem) == 0) {
    }
}

// The exchange buffer made ready for a command; what goes to the TA is a copy of it.
gps_data_req_pld prepare_ta_request(gps_bytes command, bool is_text, uint32_t cmd_len) {
    // The bus callback may be storing a late answer at this moment.
    const std::lock_guard guard(ta_data_mutex);
    forget_stray_answers();
    gps_data_req_pld &pld = ta_data_req_pld;
    memset(pld.command, 0, sizeof(pld.command));
    memset(pld.response, 0, sizeof(pld.response));
    const size_t bytes = is_text ? cmd_len : command.size();
    memcpy(pld.command, command.data(), std::min(bytes, sizeof(pld.command)));
    pld.cmd_len = cmd_len;
    return pld;
}

// Waits for the TA's answer. False: the wait time is over, and the answer will be a late one.
bool wait_for_ta() {
    // Not the wall clock: the first fix of a terminal with a flat clock sets it by decades.
    timespec deadline = {};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += rffe_req_sem_wait_time;
    int result = 0;
    do {
        result = sem_clockwait(&ta_data_sem, CLOCK_MONOTONIC, &deadline);
    } while (result == -1 && errno == EINTR);

    // An answer that came in at the last moment, before the callback could see the flag, still
    // counts: its post must not be left for the next request.
    const std::lock_guard guard(ta_data_mutex);
    const bool answered = result == 0 || sem_trywait(&ta_data_sem) == 0;
    // When the answer is lost for good, the next request's answer is taken for this one's, and that
    // request fails in its turn: until a restart each fails that is not answered twice.
    ta_req_timed_out_g = answered ? 0 : 1;
    return answered;
}

void log_ta_answer(const gps_answer &answer) {
    log_debug("%s: %d bytes received data from TA gps", name, answer.length);
    if (answer.text[0] == '$') {
        log_debug("received buffer = %s", answer.text);
        return;
    }
    log_debug("%d : Data received:", answer.length);
    for (uint32_t i = 0; i < answer.length; ++i)
        log_debug("0x%x", static_cast<uint8_t>(answer.text[i]));
}

int32_t ta_exchange(gps_bytes command, gps_answer *answer) {
    if (antenna_type != LS_ANTENNA_TYPE_GNSS)
        return 1;
    const bool is_text = command[0] == '$';
    const uint32_t cmd_len =
        is_text ? static_cast<uint32_t>(as_text(command).size()) : ubx_length(command);
    if (cmd_len > sizeof(gps_data_req_pld::command)) {
        // The TA would not answer it, and a lost answer costs more than this one request.
        log_error("%s: a command of %u bytes is not sent\n", name, cmd_len);
        return 1;
    }

    const std::lock_guard exchange(ta_exchange_lock);
    answer->text[0] = answer->text[1] = '\0';
    const gps_data_req_pld request = prepare_ta_request(command, is_text, cmd_len);
    scm_conn *conn = gps_p_g.load();
    const ls_sent sent = ls_send(conn, &request, [&](msg_hdr *hdr) {
        fill_request_hdr(conn, hdr, sizeof(request), TA_REQUEST_GPS_DATA, LS_SERV_TA);
    });
    if (sent == ls_sent::no_header) {
        log_error("%s is a NULL POINTER!", "hdr");
        return -1;
    }
    if (sent == ls_sent::no) {
        log_error("Error while sending message to service");
        return 1;
    }
    log_info("%s: waiting for response\n", name);
    if (!wait_for_ta()) {
        log_error("%s: semaphore timed out, did not receive GPS data from TA\n", name);
        return 1;
    }

    gps_data_req_pld response;
    {
        const std::lock_guard guard(ta_data_mutex);
        response = ta_data_req_pld;
    }
    answer->length = response.cmd_len;
    if (response.cmd_len > sizeof(response.response)) {
        log_error("%s: rffe module returned corrupt pointer: gps_data_req_pld.cmd_len = %d", name,
                  response.cmd_len);
        return 1;
    }
    memcpy(answer->text, response.response, response.cmd_len);
    log_ta_answer(*answer);
    return 0;
}

} // namespace

int32_t gps_get_data_req(gps_bytes command, gps_answer *answer) {
    switch (gps_board_type_g) {
    case 1:
        return uart_exchange(command, answer);
    case 2:
        return ta_exchange(command, answer);
    default:
        return 1;
    }
}

uint32_t gps_build_poll(const char *body, gps_sentence *sentence) {
    ls_hal_clear_rx_buffer();
    return ls_hal_create_nmea_sentence(body, sentence->data());
}

int32_t gps_poll_nmea(const char *body, gps_answer *answer) {
    gps_sentence sentence = {};
    if (const uint32_t created = gps_build_poll(body, &sentence); created != 0)
        return static_cast<int32_t>(created);
    return gps_get_data_req(gps_sentence_bytes(sentence), answer);
}
