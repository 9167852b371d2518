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
#include <map>
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

template <typename record, auto query>
void ask() {
    record out = {};
    query(&out);
}

void ask_satellites() {
    gps_sat_info info = {};
    if (gps_get_sat_info(&info) != 0)
        return;
    fuzz_expect(info.num_sat_in_view <= GPS_SAT_SLOTS, "satellites in view have a slot");
    fuzz_expect(info.num_sat_usable <= GPS_SAT_SLOTS, "satellites in use have a slot");
}

template <auto execute>
void send_command(const char *command) {
    ls_engg_cmd record = {};
    strncpy(record.command, command, sizeof record.command - 1);
    execute(&record);
}

const std::map<uint8_t, void (*)()> queries = {
    {'p', ask<gps_pos_data, gps_get_pos>},
    {'t', ask<gps_time_fields, gps_get_time>},
    {'w', ask<int32_t, gps_get_tow>},
    {'s', ask_satellites},
    {'v', ask<gps_speed_data, gps_get_speed>},
    {'l', ask<gps_lpp_location, gps_get_lpp_paramas>},
    {'n', [] { send_command<gps_engg_exec_nmea>("GPGPQ,GGA"); }},
    {'u', [] { send_command<gps_engg_exec_ubx>("B5,62,0A,04,00,00,00,00"); }},
};

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
    queries.contains(data[0]) ? queries.at(data[0])() : queries.at('u')();
    return 0;
}
