// What the receiver queries make of any answers.
//
// Byte 0 chooses the query; the answers, in turn, follow between "|". They come through the TA, so
// no pty is between; when they run out nobody answers. A "!" at the start of an answer makes the TA
// claim more bytes than it sent.
#include "fuzz_target.h"

#include "fake_platform.h"
#include "gps_message_handler.h"
#include "gps_service.h"
#include "ls_state.h"

#include <algorithm>
#include <string_view>

namespace {

std::string_view answers; // what is left of them; the fuzzing thread's

void answer(const fake::sent_message &sent) {
    if (sent.hdr.msg_id != TA_REQUEST_GPS_DATA || answers.empty())
        return;
    const std::string_view text = answers.substr(0, answers.find('|'));
    answers.remove_prefix(std::min(answers.size(), text.size() + 1));

    auto exchange = sent.as<gps_data_req_pld>();
    exchange.cmd_len = static_cast<uint32_t>(text.size());
    text.copy(reinterpret_cast<char *>(exchange.response), sizeof exchange.response);
    if (text.starts_with('!'))
        exchange.cmd_len *= 2;
    std::vector<uint8_t> payload(sizeof exchange);
    memcpy(payload.data(), &exchange, sizeof exchange);
    bus_msg msg = fake::make_message(1, TA_REQUEST_GPS_DATA, LS_SERV_TA, payload);
    ls_hal_process_message(fake::connection(), &msg);
}

void query_satellites() {
    gps_sat_info info = {};
    if (gps_get_sat_info(&info) != 0)
        return;
    fuzz_expect(info.num_sat_in_view <= GPS_SAT_SLOTS, "satellites in view have a slot");
    fuzz_expect(info.num_sat_usable <= GPS_SAT_SLOTS, "satellites in use have a slot");
}

void query_engineering(const char *command, int32_t (*execute)(ls_engg_cmd *)) {
    ls_engg_cmd record = {};
    strncpy(record.command, command, sizeof record.command - 1);
    execute(&record);
}

void run_query(uint8_t which) {
    gps_pos_data position = {};
    gps_time_fields time = {};
    gps_speed_data speed = {};
    gps_lpp_location location = {};
    int32_t tow = 0;
    switch (which) {
    case 'p':
        gps_get_pos(&position);
        break;
    case 't':
        gps_get_time(&time);
        break;
    case 'w':
        gps_get_tow(&tow);
        break;
    case 's':
        query_satellites();
        break;
    case 'v':
        gps_get_speed(&speed);
        break;
    case 'l':
        gps_get_lpp_paramas(&location);
        break;
    case 'n':
        query_engineering("GPGPQ,GGA", gps_engg_exec_nmea);
        break;
    default:
        query_engineering("B5,62,0A,04,00,00,00,00", gps_engg_exec_ubx);
        break;
    }
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0)
        return 0;
    fake::reset();
    gps_board_type_g = 2;
    antenna_type = LS_ANTENNA_TYPE_GNSS;
    rffe_req_sem_wait_time = 0;
    gps_pos_buffer_time = 0; // each LPP query asks anew
    answers = {reinterpret_cast<const char *>(data) + 1, size - 1};
    fake::on_send(answer);
    run_query(data[0]);
    return 0;
}
