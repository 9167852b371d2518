// What a daemon of board type 2 needs around it to answer from its buffer: a directory, settings, a
// log daemon, and a TA that answers the one query that fills the buffer.
#ifndef BENCH_BOARD2_H
#define BENCH_BOARD2_H

#include "mqutils.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <thread>

struct bench_log_setting {
    std::string_view name;
    const char *level, *target;
};

inline constexpr std::array bench_log_settings = {
    bench_log_setting{"error", "error", "syslog"}, // nothing is logged for a request
    bench_log_setting{"file", "info", "file"},
    bench_log_setting{"syslog", "info", "syslog"}, // the default
};

class bench_board2 {
  public:
    // In the directory `root`, which exists; this process's environment leads to it from then on.
    bench_board2(const std::string &root, const bench_log_setting &log);
    ~bench_board2();
    bench_board2(const bench_board2 &) = delete;
    bench_board2 &operator=(const bench_board2 &) = delete;

    bool is_ready() const { return ready; }
    // Waits for the daemon's first answer with success: the query that fills the buffer, whose
    // position never grows old. False: none in `patience_s`.
    bool wait_for_position(double patience_s) const;

    const std::string bus;          // directory of the sockets
    const std::string daemon;       // the daemon's
    const std::string log_socket;   // the log daemon's
    std::atomic<uint64_t> lines{0}; // that reached it

  private:
    void read_log();

    bool ready;
    scm_conn ta = {};
    int log_fd;
    std::thread log_reader;
};

inline constexpr uint8_t bench_first_client = 64; // service id; the others follow

// Bytes of the daemon's answer, with its header.
extern const size_t bench_position_size;

#endif
