// What a log call costs that goes to the system log, its default: libzukhal at level info, and a
// thread of this process that reads as a log daemon does, one datagram at a time, and waits again
// before the next is sent. Beside it, in turns, a datagram of as many bytes to the same socket,
// which no line can cost less than: most of it is waking the reader.
#include "bench_sides.h"
#include "ls_log.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

static constexpr char log_module[] = "benchmark";

namespace {

std::atomic<uint64_t> lines_read{0};
std::atomic<ssize_t> line_size{0}; // of the last one

struct log_socket {
    int reader;
    int sender; // connected
};
log_socket sockets; // set by main

void read_lines() {
    std::array<char, 8192> line;
    ssize_t size = 0;
    while ((size = recv(sockets.reader, line.data(), line.size(), 0)) > 0) {
        line_size = size;
        ++lines_read;
    }
}

// Seconds that it took; the reader has the line and waits for the next one when this is back.
template <typename Send>
double sent_and_read(Send send_line) {
    const uint64_t before = lines_read;
    const double taken = bench_seconds(send_line);
    while (lines_read == before)
        std::this_thread::yield();
    usleep(20);
    return taken;
}

void log_to_syslog(benchmark::State &state) {
    bench_sides times;
    const auto log_line = [] {
        log_info("%s: Sending buffered position data", "ls_hal_get_position");
    };
    sent_and_read(log_line);
    const std::string same(static_cast<size_t>(line_size.load()), 'x');
    for ([[maybe_unused]] auto _ : state) {
        times.reference.push_back(
            sent_and_read([&] { send(sockets.sender, same.data(), same.size(), MSG_NOSIGNAL); }));
        times.own.push_back(sent_and_read(log_line));
        state.SetIterationTime(times.own.back());
    }
    times.report(state);
}
BENCHMARK(log_to_syslog)->UseManualTime()->MinTime(0.1);

bool open_sockets(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const auto *generic = reinterpret_cast<const sockaddr *>(&address);
    sockets = {socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0),
               socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    return bind(sockets.reader, generic, sizeof address) == 0 &&
           connect(sockets.sender, generic, sizeof address) == 0;
}

} // namespace

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    std::string dir = (std::filesystem::temp_directory_path() / "ls-bench-XXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr || !open_sockets(dir + "/syslog")) {
        perror("scratch directory");
        return EXIT_FAILURE;
    }
    const std::string conf = dir + "/terminal.conf";
    std::ofstream(conf) << "[board]\ntype=1\n[log]\nlevel=info\ntarget=syslog\nsocket=" << dir
                        << "/syslog\n";
    setenv("ZUKHAL_CONF", conf.c_str(), 1);
    std::thread reader(read_lines);
    benchmark::RunSpecifiedBenchmarks();
    shutdown(sockets.reader, SHUT_RDWR);
    reader.join();
    std::filesystem::remove_all(dir);
    return EXIT_SUCCESS;
}
