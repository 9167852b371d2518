// What the foreign platform libraries and the test around them share: a block of memory in which
// the test sets how the libraries behave and reads what they counted, and a socket that carries
// messages to the daemon and events back. The daemon's process inherits both at fixed numbers.
#ifndef FOREIGN_H
#define FOREIGN_H

#include <atomic>
#include <cstdint>

constexpr int FOREIGN_SOCKET = 98; // SOCK_SEQPACKET
constexpr int FOREIGN_MEMORY = 99; // holds a foreign_state

// Where a library does something of its own.
enum foreign_place : int { NOWHERE, IN_RTC_INIT_TIMERS, IN_SCM_CONN_INIT };

// Written by the test at any time, but for the last four: those are the libraries'.
struct foreign_state {
    std::atomic<int> board = 2, antenna = 4, power = 2;
    std::atomic<int> history = 0, history_interval = 1; // status; seconds
    std::atomic<int> own_signal = NOWHERE;      // where SIGRTMIN+5 is blocked and a thread takes it
    std::atomic<int> own_sigio = NOWHERE;       // where a handler for SIGIO is installed
    std::atomic<int> stack_rounds = 0;          // message, log line and record on the stack, nested
    std::atomic<int> callback_threads = 1;      // threads that call on_message
    std::atomic<int> init_ms = 0;               // how long calls take: scm_conn_init,
    std::atomic<int> send_ms = 0, store_ms = 0; // send_msg, db_set_gps_power_on_status
    std::atomic<int> deletion_ms = 0;           // rtc_del_timer
    std::atomic<int> deletion_waits = 0;        // rtc_del_timer waits for a running callback
    std::atomic<int> pid = 0;
    std::atomic<int> signals_taken = 0, sigio_taken = 0;
    std::atomic<uint64_t> born_mask[3] = {}; // signal N is bit N-1; of a thread born at that place
};

enum foreign_event_kind : int {
    EVENT_LOG,  // number = level; first = the line
    EVENT_SEND, // first = header, second = payload
    EVENT_CALL, // first = name of the function; number = its argument
};

// An event on the socket: this, then its two texts. A message to the daemon is header and payload.
struct foreign_event_head {
    int kind, number, thread;
    uint32_t first_size, second_size;
};

#endif
