#include "bench_board2.h"

#include "bench_client.h"
#include "bench_process.h"
#include "dbhandler_admin.h"
#include "gps_data.h"
#include "ls_messages.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <unistd.h>

const size_t bench_position_size = sizeof(msg_hdr) + sizeof(ls_position_reply);

namespace {

constexpr int write_attempts = 30;

// Answers of one moment, as the receiver behind the TA would give them.
int answer_as_ta(scm_conn *conn, bus_msg *msg) {
    if (msg->hdr.msg_id != TA_REQUEST_GPS_DATA || msg->hdr.pld_len != sizeof(gps_data_req_pld))
        return 0;
    struct poll_answer {
        std::string_view type;
        std::string_view sentence;
    };
    constexpr std::array answers = {
        poll_answer{"GGA", "$GPGGA,082710.00,5130.00000,N,00007.50000,W,1,08,1.01,35.9,M,47.0,M,,"
                           "*73\r\n"},
        poll_answer{"GSA", "$GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1*39\r\n"},
        poll_answer{"ZDA", "$GPZDA,082710.00,16,09,2002,00,00*64\r\n"},
    };
    gps_data_req_pld exchange = {};
    memcpy(&exchange, msg->pld, sizeof exchange);
    const std::string_view command(
        reinterpret_cast<const char *>(exchange.command),
        strnlen(reinterpret_cast<const char *>(exchange.command), sizeof exchange.command));
    for (const poll_answer &answer : answers) {
        if (command.find(answer.type) == std::string_view::npos)
            continue;
        answer.sentence.copy(reinterpret_cast<char *>(exchange.response), sizeof exchange.response);
        exchange.cmd_len = static_cast<uint32_t>(answer.sentence.size());
    }
    msg_hdr hdr = {};
    fill_response_hdr(conn, &hdr, msg, sizeof exchange);
    return send_msg(conn, &hdr, &exchange);
}

bool prepare(const std::string &root, const bench_log_setting &log) {
    for (const char *name : {"/bus", "/user/location", "/user/stub_location", "/log"})
        std::filesystem::create_directories(root + name);
    std::ofstream(root + "/user/gps_control_prm.txt") << "GPS_GET_POS_BUFFER_TIME 1000000\n";
    std::ofstream(root + "/terminal.conf")
        << "[board]\ntype=2\n[log]\nlevel=" << log.level << "\ntarget=" << log.target
        << "\nfile=" << root << "/log/terminal.log\nsocket=" << root
        << "/syslog\n[power]\ndirectory=" << root << "/no_wake_locks\n";
    setenv("MQUTILS_DIR", (root + "/bus").c_str(), 1);
    setenv("DBHANDLER_FILE", (root + "/settings.db").c_str(), 1);
    setenv("ZUKHAL_CONF", (root + "/terminal.conf").c_str(), 1);
    // A write waits a second at most, and a busy disk takes longer.
    for (int attempt = 0; attempt < write_attempts; ++attempt)
        if (db_set_gps_power_on_status(GPS_POWER_ON) == 0 &&
            db_set_ta_power_on_status(LS_ANTENNA_TYPE_GNSS) == 0)
            return true;
    fputs("the settings could not be written\n", stderr);
    return false;
}

} // namespace

bench_board2::bench_board2(const std::string &root, const bench_log_setting &log)
    : bus(root + "/bus"), daemon(bus + "/" + std::to_string(LS_OWN_SERV_ID)),
      log_socket(root + "/syslog"), ready(prepare(root, log)),
      log_fd(bench_bound_socket(log_socket)), log_reader([this] { read_log(); }) {
    ta.on_message = answer_as_ta;
    if (ready && scm_conn_init(&ta, LS_SERV_TA) != 0)
        ready = false;
}

bench_board2::~bench_board2() {
    if (ready)
        scm_conn_exit(&ta);
    shutdown(log_fd, SHUT_RDWR); // wakes the reader
    log_reader.join();
    close(log_fd);
}

// As a log daemon does, one datagram at a time.
void bench_board2::read_log() {
    std::array<char, 8192> line;
    while (recv(log_fd, line.data(), line.size(), 0) > 0)
        ++lines;
}

bool bench_board2::wait_for_position(double patience_s) const {
    const bench_server server{"daemon", daemon, bench_position_size, 0};
    const double deadline = bench_now() + patience_s;
    while (bench_now() < deadline) {
        if (std::filesystem::exists(daemon)) {
            bench_client client(bus, bench_first_client, server);
            if (client.ask() && client.was_success())
                return true;
        }
        usleep(50'000);
    }
    return false;
}
