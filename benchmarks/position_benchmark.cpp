// The buffered position of board type 2: the daemon on the real platform libraries beside a bare
// server (bare_server.cpp) and gpsd. Each figure is a line of JSON; figures.py makes tables of
// them.
//
// position_benchmark buffered LOG TURNS SECONDS [GPSD-PORT]
//     Servers in turns, with 1, 8 and 64 clients that each ask without a pause for so many seconds.
//     A line for each turn of each server: time of an answer, median and 99th percentile, and
//     answers a second. LOG: error, nothing is logged; file or syslog, level info, five lines a
//     request, into a file or to a thread of this process that reads them as a log daemon would.
//     With syslog there is one more server: the bare one that sends five lines, too.
//
// position_benchmark ask daemon|bare LOG COUNT COMMAND...
//     Starts the server by this command, asks it so often, one after the other, and ends it: for
//     tools that count instructions. "%bare" in the command stands for the bare server's socket,
//     "%log" for the log daemon's.
// position_benchmark ask gpsd COUNT PORT
//     The same of a gpsd that runs already.
//
// Exit status 1 when something did not answer.
#include "bench_board2.h"
#include "bench_client.h"
#include "bench_process.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t bare_reply_size = 100;
constexpr double start_patience_s = 30;
constexpr double counted_patience_s = 120; // under valgrind or an emulator

struct turn_result {
    std::vector<double> times; // of each answer, seconds
    double duration = 0;
    bool good = true;
};

turn_result ask_for(const std::string &bus, const bench_server &server, int clients,
                    double seconds) {
    std::vector<turn_result> of_clients(static_cast<size_t>(clients));
    std::vector<std::thread> threads;
    threads.reserve(of_clients.size());
    std::atomic<int> connected{0};
    std::atomic<double> start{0};
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, i] {
            turn_result &own = of_clients[static_cast<size_t>(i)];
            bench_client client(bus, static_cast<uint8_t>(bench_first_client + i), server);
            own.good = client.ask(); // not counted: the first finds its way
            ++connected;
            while (start == 0)
                usleep(1000);
            while (own.good && bench_now() < start + seconds) {
                const double asked = bench_now();
                own.good = client.ask();
                own.times.push_back(bench_now() - asked);
            }
        });
    }
    while (connected < clients)
        usleep(1000);
    start = bench_now();
    for (std::thread &thread : threads)
        thread.join();
    turn_result all;
    all.duration = bench_now() - start;
    for (const turn_result &own : of_clients) {
        all.times.insert(all.times.end(), own.times.begin(), own.times.end());
        all.good = all.good && own.good;
    }
    std::sort(all.times.begin(), all.times.end());
    return all;
}

double quantile_us(const std::vector<double> &sorted, double part) {
    const auto last = static_cast<double>(sorted.size() - 1);
    return sorted[static_cast<size_t>(last * part)] * 1e6;
}

bool run_turn(const std::string &bus, const bench_server &server, int clients, double seconds) {
    const turn_result result = ask_for(bus, server, clients, seconds);
    if (!result.good || result.times.empty()) {
        fprintf(stderr, "%s did not answer\n", server.name.c_str());
        return false;
    }
    printf("{\"server\": \"%s\", \"clients\": %d, \"p50_us\": %.3f, \"p99_us\": %.3f, "
           "\"per_second\": %.1f}\n",
           server.name.c_str(), clients, quantile_us(result.times, 0.5),
           quantile_us(result.times, 0.99),
           static_cast<double>(result.times.size()) / result.duration);
    return true;
}

bool wait_for_socket(const std::string &path) {
    const double deadline = bench_now() + counted_patience_s;
    while (access(path.c_str(), F_OK) != 0) {
        if (bench_now() > deadline)
            return false;
        usleep(10'000);
    }
    return true;
}

bool buffered(const bench_log_setting &log, int turns, double seconds, uint16_t gpsd_port) {
    const bench_dir dir;
    bench_board2 board(dir.path, log);
    const std::string bare = board.bus + "/bare";
    const std::string logging = board.bus + "/logging";
    const bool sends_lines = log.name == "syslog";
    const bench_process daemon({BENCH_DAEMON}, dir.path, dir.path + "/log/daemon.out");
    const bench_process bare_server({BENCH_BARE_SERVER, bare}, dir.path, dir.path + "/bare.out");
    const bench_process logging_server({BENCH_BARE_SERVER, logging, board.log_socket}, dir.path,
                                       dir.path + "/logging.out");
    if (!board.is_ready() || !board.wait_for_position(start_patience_s) || !wait_for_socket(bare) ||
        !wait_for_socket(logging)) {
        fputs("the daemon of board type 2 or the bare server did not start\n", stderr);
        return false;
    }
    std::vector<bench_server> servers = {
        {"daemon", board.daemon, bench_position_size, 0},
        {"bare", bare, bare_reply_size, 0},
    };
    if (sends_lines)
        servers.push_back({"logging", logging, bare_reply_size, 0});
    if (gpsd_port != 0)
        servers.push_back({"gpsd", "", 0, gpsd_port});
    for (const int clients : {1, 8, 64})
        for (int turn = 0; turn < turns; ++turn)
            for (const bench_server &server : servers)
                if (!run_turn(board.bus, server, clients, seconds))
                    return false;
    if (sends_lines && board.lines == 0) {
        fputs("nothing reached the log daemon\n", stderr);
        return false;
    }
    return true;
}

bool ask_times(const std::string &bus, const bench_server &server, int count) {
    bench_client client(bus, bench_first_client, server);
    for (int i = 0; i < count; ++i)
        if (!client.ask())
            return false;
    return true;
}

bool ask_started(bool is_daemon, const bench_log_setting &log, int count,
                 std::vector<std::string> command) {
    const bench_dir dir;
    const bench_board2 board(dir.path, log);
    const std::string bare = board.bus + "/bare";
    const bench_server server = is_daemon
                                    ? bench_server{"daemon", board.daemon, bench_position_size, 0}
                                    : bench_server{"bare", bare, bare_reply_size, 0};
    for (std::string &word : command)
        word = word == "%bare" ? bare : word == "%log" ? board.log_socket : word;
    const char *wrong = board.is_ready() ? nullptr : "the board is not ready";
    {
        const bench_process started(command, dir.path, dir.path + "/log/server.out");
        if (wrong == nullptr && !wait_for_socket(server.socket))
            wrong = "the server did not start";
        if (wrong == nullptr && is_daemon && !board.wait_for_position(counted_patience_s))
            wrong = "the daemon has no position";
        if (wrong == nullptr && !ask_times(board.bus, server, count))
            wrong = "the server did not answer";
    }
    if (wrong != nullptr)
        fprintf(stderr, "%s\n%s", wrong,
                bench_output_of("cat " + dir.path + "/log/server.out").c_str());
    return wrong == nullptr;
}

const bench_log_setting *log_setting_of(const std::string &name) {
    for (const bench_log_setting &log : bench_log_settings)
        if (log.name == name)
            return &log;
    return nullptr;
}

int usage() {
    fputs("usage: position_benchmark buffered error|file|syslog TURNS SECONDS [GPSD-PORT]\n"
          "       position_benchmark ask daemon|bare LOG COUNT COMMAND...\n"
          "       position_benchmark ask gpsd COUNT PORT\n",
          stderr);
    return 2;
}

} // namespace

int main(int argc, char **argv) {
    const std::vector<std::string> words(argv + 1, argv + argc);
    if (words.size() < 4)
        return usage();
    const auto number = [&](size_t i) { return atoi(words[i].c_str()); };
    const bench_log_setting *log = log_setting_of(words[words[0] == "ask" ? 2 : 1]);
    bool good = false;
    if (words[0] == "ask" && words[1] == "gpsd") {
        good = ask_times("", {"gpsd", "", 0, static_cast<uint16_t>(number(3))}, number(2));
    } else if (words[0] == "buffered" && words.size() <= 5 && log != nullptr) {
        const auto port = static_cast<uint16_t>(words.size() == 5 ? number(4) : 0);
        good = buffered(*log, number(2), strtod(words[3].c_str(), nullptr), port);
    } else if (words[0] == "ask" && words.size() >= 5 && log != nullptr &&
               (words[1] == "daemon" || words[1] == "bare")) {
        good = ask_started(words[1] == "daemon", *log, number(3), {words.begin() + 4, words.end()});
    } else {
        return usage();
    }
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
