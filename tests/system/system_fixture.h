// What a system test is made of: a simulated terminal with the daemon in it, lsctl, and raw ends of
// the bus. Every process is a child that dies with the test, every wait has a deadline.
//
// Threads: one thread of the test uses these; bus_client may be used by one thread each.
#ifndef SYSTEM_FIXTURE_H
#define SYSTEM_FIXTURE_H

#include "ls_messages.h"
#include "mqutils.h"
#include "scratch_dir.h"

#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::seconds;
using namespace std::chrono_literals;

using words = std::vector<std::string>;
using bytes = std::vector<uint8_t>;

// Far above what anything takes on a busy machine with sanitizers.
constexpr milliseconds PATIENCE = 30s;

// Looks every few milliseconds until `done` says so; false after `limit`.
bool wait_until(const std::function<bool()> &done, milliseconds limit = PATIENCE);

// How often `what` is in `text`.
size_t count_of(std::string_view what, std::string_view text);

struct process_result {
    int status = -1; // exit status; 128 + N after signal N; -1 = killed at its deadline
    std::string out;
    std::string err;
};

// A program in the background; killed when this goes away before its end.
class background {
  public:
    // Runs in directory `where`, with its two outputs in files of the working directory, a
    // scratch_dir.
    explicit background(const words &command, const std::string &where = ".");
    ~background();
    background(const background &) = delete;
    background &operator=(const background &) = delete;

    void signal(int number) const { kill(pid, number); }
    std::string out() const { return scratch_dir::read(files + ".out"); }
    std::string err() const { return scratch_dir::read(files + ".err"); }
    process_result wait(milliseconds limit = PATIENCE);

  private:
    pid_t pid = -1;    // -1 = has ended
    std::string files; // of its outputs, without .out and .err
};

process_result run(const words &command);
process_result lsctl(words arguments); // on the bus of the terminal that was brought up last

// The simulated terminal "t" in a scratch directory, with the daemon in it.
class terminal {
  public:
    // `options`: of simterm run; without a --baud the line takes no time. Returns when the daemon
    // has its signal handlers. The test owns the ids of TA, SAL, VoIP and WS, unless it wants the
    // terminal's stand-ins for them.
    explicit terminal(const words &options = {}, bool stand_ins = false);
    ~terminal(); // shows the end of the logs when the test has failed
    terminal(const terminal &) = delete;
    terminal &operator=(const terminal &) = delete;

    const std::filesystem::path &dir() const { return root; }
    std::string file(const std::string &name) const { return scratch_dir::read(root / name); }
    std::string log() const { return file("log/terminal.log"); }
    pid_t daemon() const; // the last one started; -1 = none
    // Waits for the end of a daemon that was told to end: "exit status 0" or "signal 15 (...)".
    std::string daemon_end();
    void ctl(words request); // fails the test when refused
    // The static location: " ON", or "OFF" with a blank less, and 22 characters of place.
    void write_static_location(bool on, const std::string &place = "7007.939,N,01131.000,E") const;
    // SIGTERM to the daemon by way of the terminal; its exit status: 0 when all ended in order.
    int stop();
    void restart_daemon(); // returns when the new one is up

  private:
    void wait_until_up();

    scratch_dir scratch;
    std::filesystem::path root;
    std::optional<background> simterm;
};

// Whether process `pid` has a handler for SIGRTMIN+1, the last one the daemon installs.
bool handles_signals(pid_t pid);

struct bus_message {
    msg_hdr hdr;
    bytes payload;
};

// A service on the bus of the terminal that was brought up last; keeps what it receives.
class bus_client {
  public:
    explicit bus_client(uint8_t serv_id); // fails the test when the id cannot be had
    ~bus_client();
    bus_client(const bus_client &) = delete;
    bus_client &operator=(const bus_client &) = delete;

    // Sends to the daemon. The transaction id; 0 = not sent.
    uint32_t send(uint32_t msg_id, std::span<const uint8_t> payload = {},
                  uint8_t msg_type = LS_MSG_REQUEST);
    // Takes the oldest message that `wanted` accepts.
    std::optional<bus_message> take(const std::function<bool(const bus_message &)> &wanted,
                                    milliseconds limit = PATIENCE);
    std::optional<bus_message> take(uint32_t msg_id, milliseconds limit = PATIENCE);
    // Sends a request and waits for the response with its transaction id.
    std::optional<bus_message> ask(uint32_t msg_id, std::span<const uint8_t> payload = {});

  private:
    static int on_message(scm_conn *conn, bus_msg *msg);

    struct connection {
        scm_conn conn; // first: the library hands this back
        bus_client *owner;
    };
    connection link = {};
    std::mutex lock;
    std::condition_variable arrived;
    std::deque<bus_message> inbox; // under lock, oldest first
};

// A record as the payload that carries it, and back; too short a payload is a zeroed record.
template <typename record>
bytes payload_of(const record &value) {
    bytes out(sizeof(value));
    std::memcpy(out.data(), &value, sizeof(value));
    return out;
}
template <typename record>
record record_in(const std::optional<bus_message> &message) {
    record value = {};
    if (message && message->payload.size() == sizeof(value))
        std::memcpy(&value, message->payload.data(), sizeof(value));
    return value;
}

#endif
