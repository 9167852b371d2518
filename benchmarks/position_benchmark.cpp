// What a position costs a client, with the real processes.
//
// Over the serial line (board type 1, simulated terminal, 9600 baud): the wall time of requests
// 1003 and 1005 through the client library, divided by the time that the bytes of their exchanges
// take on the line, ten bits each. Reach: 1.03.
//
// Buffered (board type 2, log levels error and info): see position_buffered.cpp.
//
// Usage: position_benchmark [--brief | --line | --buffered]. Prints a table; exit status 1 when
// something did not run.
#include "bench_process.h"
#include "location_client.hpp"
#include "position_buffered.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace {

using std::chrono::seconds;

constexpr double baud = 9600;
constexpr double bits_per_byte = 10;
constexpr double start_patience_s = 30;

// The number in front of the first `words` in a text; -1 when it is not there.
double number_before(const std::string &text, const char *words) {
    const size_t end = text.find(words);
    if (end == std::string::npos || end == 0)
        return -1;
    const size_t start = text.find_last_not_of("0123456789", end - 1) + 1;
    return start == end ? -1 : strtod(text.c_str() + start, nullptr);
}

// Bytes that went over the line so far, both ways; negative when the terminal does not say.
double line_bytes(const std::string &dir) {
    const std::string status =
        bench_output_of(std::string(BENCH_SIMTERM) + " ctl " + dir + " status");
    const double to = number_before(status, " bytes to the receiver");
    const double from = number_before(status, " from it");
    return to < 0 || from < 0 ? -1 : to + from;
}

// The terminal configures its receiver first, which takes seconds.
location_client *open_client() {
    const double deadline = bench_now() + start_patience_s;
    location_client *client = nullptr;
    while (bench_now() < deadline) {
        gps_pos_data position = {};
        if (client == nullptr)
            location_client_open(0, &client);
        if (client != nullptr &&
            location_client_get_position(client, seconds(5), &position) == LOCATION_ANSWERED)
            return client;
        usleep(100'000);
    }
    location_client_close(client);
    return nullptr;
}

struct query {
    const char *name;
    bool (*ask)(location_client *client);
};

constexpr std::array queries = {
    query{"1003 position",
          [](location_client *client) {
              gps_pos_data position = {};
              return location_client_get_position(client, seconds(10), &position) ==
                     LOCATION_ANSWERED;
          }},
    query{"1005 satellites",
          [](location_client *client) {
              gps_sat_info info = {};
              return location_client_get_satellites(client, seconds(10), &info) ==
                     LOCATION_ANSWERED;
          }},
};

bool measure(const query &asked, location_client *client, const std::string &dir, int rounds) {
    std::vector<double> ratios;
    std::vector<double> bytes;
    std::vector<double> walls;
    for (int i = 0; i < rounds; ++i) {
        const double before = line_bytes(dir);
        const double start = bench_now();
        if (!asked.ask(client))
            return false;
        walls.push_back(bench_now() - start);
        bytes.push_back(line_bytes(dir) - before);
        ratios.push_back(walls.back() / (bytes.back() * bits_per_byte / baud));
        if (before < 0 || bytes.back() <= 0)
            return false;
    }
    const std::string name = std::string(asked.name) + ": ";
    bench_row((name + "bytes on the line, median").c_str(), bench_median(bytes), "bytes", "");
    bench_row((name + "wall time, median").c_str(), bench_median(walls) * 1e3, "ms", "");
    bench_row((name + "wall time over wire time, median").c_str(), bench_median(ratios), "",
              "at most 1.03");
    bench_row((name + "the same, least").c_str(), *std::min_element(ratios.begin(), ratios.end()),
              "", "");
    return true;
}

bool over_the_line(int rounds) {
    const bench_dir dir;
    setenv("MQUTILS_DIR", (dir.path + "/t/bus").c_str(), 1);
    const bench_process terminal(
        {BENCH_SIMTERM, "run", dir.path + "/t", "--daemon", BENCH_DAEMON, "--instant-fix"},
        dir.path, dir.path + "/simterm.out");
    location_client *client = open_client();
    bool good = client != nullptr;
    for (const query &asked : queries)
        good = good && measure(asked, client, dir.path + "/t", rounds);
    location_client_close(client);
    if (!good)
        fputs("the simulated terminal did not answer\n", stderr);
    return good;
}

} // namespace

int main(int argc, char **argv) {
    const std::string_view word = argc > 1 ? argv[1] : "";
    if (word == "--bare" && argc == 3)
        return bare_server(argv[2]);
    const bool brief = word == "--brief";
    double load = 0;
    if (getloadavg(&load, 1) == 1)
        bench_row("load average of the last minute", load, "", "");
    bool good = true;
    if (word != "--buffered")
        good = over_the_line(brief ? 1 : 15);
    if (word != "--line")
        good = buffered_position(brief) && good;
    return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
