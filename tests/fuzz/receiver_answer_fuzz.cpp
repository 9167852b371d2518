// What the receiver queries make of any answers, and its configuration and the history of them.
//
// Byte 0 chooses the query; the answers, in turn, follow between "|". A lower-case letter has them
// come through the TA; when they run out nobody answers, and a "!" at the start of an answer makes
// the TA claim more bytes than it sent. An upper-case letter has them come from the serial line.
#include "fuzz_target.h"

#include "fake_platform.h"
#include "gps_history.h"
#include "gps_message_handler.h"
#include "gps_power.h"
#include "gps_service.h"
#include "gps_uart.h"
#include "ls_paths.h"
#include "ls_state.h"

#include <cctype>
#include <fcntl.h>
#include <map>
#include <termios.h>

namespace {

fuzz_input answers; // what is left of them; the fuzzing thread's

void answer(const fake::sent_message &sent) {
    if (sent.hdr.msg_id != TA_REQUEST_GPS_DATA || answers.rest.empty())
        return;
    const std::string_view text = answers.until('|');
    const auto size = static_cast<uint32_t>(text.size());
    fake::deliver_ta_answer(text.substr(0, sizeof(gps_data_req_pld::response)),
                            text.starts_with('!') ? size * 2 : size);
}

template <typename record, auto query>
void ask() {
    record out = {};
    query(&out);
}

void ask_satellites() {
    gps_sat_info info = {};
    fuzz_expect(gps_get_sat_info(&info) != 0 ||
                    (info.num_sat_in_view <= GPS_SAT_SLOTS && info.num_sat_usable <= GPS_SAT_SLOTS),
                "satellites in view and in use have a slot");
}

template <auto execute>
void send_command(const char *command) {
    ls_engg_cmd record = {};
    strncpy(record.command, command, sizeof record.command - 1);
    execute(&record);
}

// One acquisition into an empty ring.
void record_history() {
    unlink(LS_PATH_HISTORY);
    ls_hal_init_gps_history();
    ls_history_periodic_timer_handler(nullptr);
    const std::string ring = scratch_dir::read(LS_PATH_HISTORY).substr(8);
    fuzz_expect(ring.size() < LS_HISTORY_LINE_SIZE && ring.find('\n') + 1 == ring.size(),
                "one line at most, and whole");
}

const std::map<int, void (*)()> queries = {
    {'p', ask<gps_pos_data, gps_get_pos>},
    {'t', ask<gps_time_fields, gps_get_time>},
    {'w', ask<int32_t, gps_get_tow>},
    {'s', ask_satellites},
    {'v', ask<gps_speed_data, gps_get_speed>},
    {'l', ask<gps_lpp_location, gps_get_lpp_paramas>},
    {'n', [] { send_command<gps_engg_exec_nmea>("GPGPQ,GGA"); }},
    {'u', [] { send_command<gps_engg_exec_ubx>("B5,62,0A,04,00,00,00,00"); }},
    {'c', [] { ls_hal_power_on_gps(); }},
    {'h', record_history},
};

// A pty at whose other end nobody reads.
int open_line() {
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    fuzz_expect(grantpt(master) == 0 && unlockpt(master) == 0, "there is a pty");
    std::filesystem::create_directories("dev");
    std::filesystem::create_directories("user/location");
    std::filesystem::create_symlink(ptsname(master), "dev/ttymxc2");
    fuzz_expect(ls_hal_uart_init() == 0, "the line opens");
    return master;
}

} // namespace

// The linker's --wrap sends these calls of the daemon here: the line gives the next answer at once.
extern "C" ssize_t __real_read(int fd, void *buffer, size_t size);
extern "C" ssize_t __wrap_read(int fd, void *buffer, size_t size);
ssize_t __wrap_read(int fd, void *buffer, size_t size) {
    if (isatty(fd) == 0)
        return __real_read(fd, buffer, size);
    return static_cast<ssize_t>(answers.until('|').copy(static_cast<char *>(buffer), size));
}

void fuzz(fuzz_input input) {
    static const int master = open_line();
    tcflush(master, TCIFLUSH); // what the last one asked
    answers = input;
    const int query = answers.number<uint8_t>();
    fake::reset();
    gps_board_type_g = isupper(query) != 0 ? 1 : 2;
    antenna_type = LS_ANTENNA_TYPE_GNSS;
    rffe_req_sem_wait_time = 0;
    loc_hist_offset_time = 0;
    gps_pos_buffer_time = 0; // each LPP query asks anew
    fake::on_send(answer);
    const auto found = queries.find(tolower(query));
    found == queries.end() ? queries.at('u')() : found->second();
}
