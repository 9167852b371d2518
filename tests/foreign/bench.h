// The production daemon as a process on the foreign platform: what it does is an ordered list of
// events, what it is sent comes straight from the test.
//
// Threads: one thread of the test uses this; the receiver's answers are made on the bench's own.
#ifndef BENCH_H
#define BENCH_H

#include "foreign.h"
#include "system_fixture.h"

#include <gtest/gtest.h>
#include <thread>

struct foreign_event {
    int thread;
    // "call FUNCTION", "log LEVEL TEXT" or "send TYPE MESSAGE to SERVICE in TRANSACTION"
    std::string line;
    bus_message sent; // of a send
};

// Patterns are regular expressions that are looked for in an event's line.
class bench : public testing::Test {
  protected:
    bench();
    ~bench() override;

    void launch(); // starts the daemon in the test's directory
    void start();  // and waits until it runs its main loop
    bool lives() const { return !socket_ended; }
    // SIGTERM; exit status, 128 + N after signal N, -1 = did not end. All events are there then.
    int end();

    // Sends one message to the daemon; its transaction id.
    uint32_t deliver(uint32_t id, uint8_t from, const bytes &payload = {},
                     uint8_t type = LS_MSG_REQUEST);
    uint32_t deliver_command(const std::string &body, uint8_t from = 40);
    void answer_ta(const std::string &poll); // as the TA

    // The first event of this pattern from `from` on, waited for; its place, or -1 (a failure).
    int await(const std::string &pattern, int from = 0);
    // The reply with this transaction: its payload.
    bytes reply(uint32_t transaction, int *place = nullptr);
    // The receiver's answer in the reply to a command; empty = it failed.
    std::string answer(uint32_t transaction, int *place = nullptr);
    std::string ask(const std::string &body) { return answer(deliver_command(body)); }

    std::vector<foreign_event> events(int from = 0); // what there is now
    int count(const std::string &pattern, int from = 0);
    int now(); // the place of the next event

    scratch_dir dir;
    foreign_state *state = nullptr;
    // Silent, and late. Read when a command comes.
    std::atomic<bool> ta_silent = false;
    std::atomic<int> ta_delay_ms = 0;

  private:
    void read_events();
    void pass_on(const bus_message &message) const;

    std::optional<background> daemon;
    int memory = -1, ours = -1, theirs = -1;
    std::atomic<bool> socket_ended = false;
    std::atomic<uint32_t> transactions = 1000;
    std::mutex lock;
    std::condition_variable arrived;
    std::vector<foreign_event> seen;   // under lock
    std::vector<std::jthread> answers; // the reader's
    std::jthread reader;               // last: it goes first
};

constexpr char TO_TA[] = "^send 0 1416 ";
constexpr char ALARM[] = "^send 2 810 ";

#endif
