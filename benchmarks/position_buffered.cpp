// The buffered position of board type 2: the daemon on the real platform libraries, and a TA in
// this process that answers the one query that fills the buffer. Once with the log at level error,
// and twice at level info, its default: into a file, and to a syslog socket that a thread of this
// process reads as a log daemon would, one datagram at a time.
//
// Measured by the same bare client (one datagram out, one back) on the daemon and, in turns, on a
// bare server: it receives a datagram, starts a detached thread with a small stack, and sends 100
// bytes back from it. Reach: at level error at most 1.25 of the bare median round trip with one
// client and at least 0.8 of the bare throughput with eight, at level info 1.35 and 0.75. The round
// trip with syslog misses it: each datagram wakes the reader, and on two processors a bare server
// that only sends five of them before its reply takes 1.6 of the bare round trip itself.
#include "position_buffered.h"

#include "bench_process.h"
#include "dbhandler_admin.h"
#include "gps_data.h"
#include "ls_messages.h"
#include "mqutils.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <pthread.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr size_t bare_stack = size_t{64} * 1024; // the daemon's workers have the same
constexpr size_t bare_reply_size = 100;
constexpr uint8_t first_client_id = 64;
constexpr int clients = 8;
constexpr double start_patience_s = 30;

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    return address;
}

const sockaddr *generic(const sockaddr_un &address) {
    return reinterpret_cast<const sockaddr *>(&address);
}

int bound_socket(const std::string &path) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un own = address_of(path);
    unlink(path.c_str());
    if (bind(fd, generic(own), sizeof own) != 0)
        perror(path.c_str());
    return fd;
}

// --- the bare server

struct bare_request {
    int fd;
    sockaddr_un from;
    socklen_t from_size;
};

void *bare_worker(void *param) {
    auto *request = static_cast<bare_request *>(param);
    const std::array<uint8_t, bare_reply_size> reply = {};
    sendto(request->fd, reply.data(), reply.size(), 0, generic(request->from), request->from_size);
    delete request;
    return nullptr;
}

// --- the TA: answers of one moment, as the receiver behind it would give them

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

// --- the log daemon

struct log_setting {
    const char *name;
    const char *level, *target;
    const char *trip_reach, *rate_reach;
};

constexpr std::array log_settings = {
    log_setting{"error", "error", "file", "at most 1.25", "at least 0.8"},
    log_setting{"info, file", "info", "file", "at most 1.35", "at least 0.75"},
    log_setting{"info, syslog", "info", "syslog", "at most 1.35", "at least 0.75"},
};

class log_daemon {
  public:
    explicit log_daemon(const std::string &path)
        : fd(bound_socket(path)), reader([this] {
              std::array<char, 8192> line;
              while (recv(fd, line.data(), line.size(), 0) > 0)
                  ++lines;
          }) {}
    ~log_daemon() {
        shutdown(fd, SHUT_RDWR); // wakes the reader
        reader.join();
        close(fd);
    }
    log_daemon(const log_daemon &) = delete;
    log_daemon &operator=(const log_daemon &) = delete;

    std::atomic<uint64_t> lines{0};

  private:
    int fd;
    std::thread reader;
};

// --- the client

// One request at a time on a socket of its own. It is not connected: the daemon answers from
// another socket than the one it is asked at. Replies are told apart by their size alone.
class bare_client {
  public:
    bare_client(const std::string &bus, uint8_t id, const std::string &server, size_t reply_size)
        : fd(bound_socket(bus + "/" + std::to_string(id))), to(address_of(server)),
          wanted(static_cast<ssize_t>(reply_size)) {
        const timeval patience{20, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        request.src_serv_id = id;
        request.dst_serv_id = LS_OWN_SERV_ID;
        request.msg_id = LS_REQUEST_GET_POSITION;
    }
    ~bare_client() { close(fd); }
    bare_client(const bare_client &) = delete;
    bare_client &operator=(const bare_client &) = delete;

    bool ask() {
        ++request.txn_id;
        if (sendto(fd, &request, sizeof request, 0, generic(to), sizeof to) != sizeof request)
            return false;
        return recv(fd, reply.data(), reply.size(), 0) == wanted;
    }
    bool was_success() const {
        uint32_t status = 0;
        memcpy(&status, reply.data() + sizeof(msg_hdr), sizeof status);
        return status == LS_STATUS_OK;
    }

  private:
    int fd;
    sockaddr_un to;
    ssize_t wanted;
    msg_hdr request = {};
    std::array<uint8_t, 256> reply = {};
};

// The two servers under comparison; one figure a turn.
struct side {
    std::string socket;
    size_t reply_size;
    std::vector<double> round_trips; // seconds, each the median of a turn
    std::vector<double> throughputs; // replies per second
};

bool round_trips(side &server, const std::string &bus, int count) {
    bare_client client(bus, first_client_id, server.socket, server.reply_size);
    std::vector<double> trips;
    for (int i = 0; i < count; ++i) {
        const double start = bench_now();
        if (!client.ask())
            return false;
        trips.push_back(bench_now() - start);
    }
    server.round_trips.push_back(bench_median(trips));
    return true;
}

bool throughput(side &server, const std::string &bus, double duration) {
    std::atomic<uint64_t> replies{0};
    std::atomic<bool> good{true};
    const double start = bench_now();
    std::vector<std::thread> threads;
    threads.reserve(clients);
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, i] {
            bare_client client(bus, static_cast<uint8_t>(first_client_id + i), server.socket,
                               server.reply_size);
            while (good && bench_now() < start + duration) {
                if (!client.ask())
                    good = false;
                ++replies;
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    server.throughputs.push_back(static_cast<double>(replies) / (bench_now() - start));
    return good;
}

// A directory for a daemon of board type 2 whose buffered position never grows old.
bool prepare(const std::string &root, const log_setting &log) {
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
    return db_set_gps_power_on_status(GPS_POWER_ON) == 0 &&
           db_set_ta_power_on_status(LS_ANTENNA_TYPE_GNSS) == 0;
}

// The first success is the query that fills the buffer.
bool wait_for_position(const std::string &bus) {
    const double deadline = bench_now() + start_patience_s;
    while (bench_now() < deadline) {
        if (std::filesystem::exists(bus + "/bare") &&
            std::filesystem::exists(bus + "/" + std::to_string(LS_OWN_SERV_ID))) {
            bare_client client(bus, first_client_id, bus + "/" + std::to_string(LS_OWN_SERV_ID),
                               sizeof(msg_hdr) + sizeof(ls_position_reply));
            if (client.ask() && client.was_success())
                return true;
        }
        usleep(50'000);
    }
    return false;
}

// Turn by turn, because the speed of a machine that does other work drifts.
double median_ratio(const std::vector<double> &values, const std::vector<double> &bare) {
    std::vector<double> ratios;
    for (size_t i = 0; i < values.size(); ++i)
        ratios.push_back(values[i] / bare[i]);
    return bench_median(ratios);
}

void print(const side &daemon, const side &bare, const log_setting &log) {
    const auto row = [&log](const char *what, double value, const char *unit, const char *reach) {
        bench_row(("buffered, log " + std::string(log.name) + ": " + what).c_str(), value, unit,
                  reach);
    };
    row("round trip, median", bench_median(daemon.round_trips) * 1e6, "us", "");
    row("the same, bare server", bench_median(bare.round_trips) * 1e6, "us", "");
    row("round trip over bare", median_ratio(daemon.round_trips, bare.round_trips), "",
        log.trip_reach);
    row("eight clients, median", bench_median(daemon.throughputs), "replies/s", "");
    row("the same, bare server", bench_median(bare.throughputs), "replies/s", "");
    row("throughput over bare", median_ratio(daemon.throughputs, bare.throughputs), "",
        log.rate_reach);
}

bool measure(const log_setting &log, const std::string &root, bool brief) {
    const std::string bus = root + "/bus";
    scm_conn ta = {};
    ta.on_message = answer_as_ta;
    if (!prepare(root, log) || scm_conn_init(&ta, LS_SERV_TA) != 0) {
        fputs("the terminal directory could not be prepared\n", stderr);
        return false;
    }
    const log_daemon syslog(root + "/syslog");
    bool good = false;
    {
        const bench_process daemon({BENCH_DAEMON}, root, root + "/log/daemon.out");
        const bench_process bare({"/proc/self/exe", "--bare", bus + "/bare"}, root,
                                 root + "/log/bare.out");
        side the_daemon = {bus + "/" + std::to_string(LS_OWN_SERV_ID),
                           sizeof(msg_hdr) + sizeof(ls_position_reply),
                           {},
                           {}};
        side the_bare = {bus + "/bare", bare_reply_size, {}, {}};
        good = wait_for_position(bus);
        for (int turn = 0; good && turn < (brief ? 1 : 20); ++turn) {
            for (side *server : {&the_daemon, &the_bare})
                good = good && round_trips(*server, bus, brief ? 50 : 500);
            for (side *server : {&the_daemon, &the_bare})
                good = good && throughput(*server, bus, brief ? 0.1 : 0.25);
        }
        if (good)
            print(the_daemon, the_bare, log);
    }
    scm_conn_exit(&ta);
    if (log.target == std::string_view("syslog") && syslog.lines == 0)
        good = false;
    if (!good)
        fputs("the daemon of board type 2, the log or the bare server did not answer\n", stderr);
    return good;
}

} // namespace

int bare_server(const char *path) {
    const int fd = bound_socket(path);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attributes, bare_stack);
    std::array<uint8_t, 256> datagram;
    while (true) {
        auto *request = new bare_request{.fd = fd, .from = {}, .from_size = sizeof(sockaddr_un)};
        pthread_t thread{};
        if (recvfrom(fd, datagram.data(), datagram.size(), 0,
                     reinterpret_cast<sockaddr *>(&request->from), &request->from_size) < 0 ||
            pthread_create(&thread, &attributes, bare_worker, request) != 0) {
            perror("bare server");
            return EXIT_FAILURE;
        }
    }
}

bool buffered_position(bool brief) {
    const bench_dir dir; // one for all: the settings library may keep its file open
    bool good = true;
    for (const log_setting &log : log_settings)
        good = measure(log, dir.path, brief) && good;
    return good;
}
