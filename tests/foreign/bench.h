// The production daemon as a process between the foreign libraries: what it does is an ordered list
// of events, what it is sent comes straight from the test.
//
// Threads: one thread of the test uses this; the receiver's answers are made on the bench's own.
#ifndef BENCH_H
#define BENCH_H

#include "foreign.h"
#include "system_fixture.h"

#include <gtest/gtest.h>
#include <thread>

struct foreign_event {
    int kind, number, thread;
    std::string first, second;

    msg_hdr header() const; // of a send
    bool is_call(std::string_view function) const {
        return kind == EVENT_CALL && first == function;
    }
    bool is_call(std::string_view function, int argument) const {
        return is_call(function) && number == argument;
    }
    bool is_log(std::string_view part) const {
        return kind == EVENT_LOG && first.find(part) != std::string::npos;
    }
    bool is_send(uint8_t type, uint32_t id) const {
        return kind == EVENT_SEND && header().msg_type == type && header().msg_id == id;
    }
};

using event_test = std::function<bool(const foreign_event &)>;

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
    uint32_t deliver_command(const std::string &body, uint8_t from = 40) {
        return deliver(LS_EXEC_NMEA_CMD, from, payload_of(command(body)));
    }
    void answer_ta(const std::string &answer); // as the TA

    // The first event from `from` on that `wanted` accepts, waited for; its place, or -1 (a
    // failure).
    int await(const std::string &what, const event_test &wanted, int from = 0,
              milliseconds limit = PATIENCE);
    int await_call(const std::string &function, int from = 0) {
        return await(
            function, [&](const foreign_event &e) { return e.is_call(function); }, from);
    }
    int await_log(const std::string &part, int from = 0) {
        return await(
            part, [&](const foreign_event &e) { return e.is_log(part); }, from);
    }
    // The reply with this transaction: its payload.
    bytes reply(uint32_t transaction, int *place = nullptr);
    ls_engg_cmd engg_reply(uint32_t transaction) {
        return record_of<ls_engg_cmd>(reply(transaction));
    }
    ls_engg_cmd ask(const std::string &body) { return engg_reply(deliver_command(body)); }

    std::vector<foreign_event> events(int from = 0); // what there is now
    int count(const event_test &wanted, int from = 0);
    int now(); // the place of the next event

    static ls_engg_cmd command(const std::string &body);
    template <typename record>
    static record record_of(const bytes &payload) {
        return record_in<record>(bus_message{{}, payload});
    }
    // What the receiver says to a poll: a sentence for the position's, else the poll itself.
    static std::string echo(const std::string &command);

    scratch_dir dir;
    foreign_state *state = nullptr;
    // Silent, and late, in place of the echo. Read when a command comes.
    std::atomic<bool> ta_silent = false;
    std::atomic<int> ta_delay_ms = 0;

  private:
    void read_events();

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

#endif
