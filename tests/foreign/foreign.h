// What the foreign platform and the test around it share: a block of memory in which the test sets
// how the platform behaves and reads what it counted, and a socket that carries messages to the
// daemon and events back. The daemon's process inherits both at fixed numbers.
#ifndef FOREIGN_H
#define FOREIGN_H

#include <atomic>
#include <cstdint>

// SOCK_SEQPACKET. To the daemon: header and payload of a message. Back: a thread's id, a line of
// text and its NUL, and with "send" the message.
constexpr int FOREIGN_SOCKET = 98;
constexpr int FOREIGN_MEMORY = 99; // holds a foreign_state
constexpr size_t FOREIGN_PACKET_SIZE = size_t{128} * 1024;

// Where a library does something of its own.
enum foreign_place : int { NOWHERE, IN_RTC_INIT_TIMERS, IN_SCM_CONN_INIT };

// Written by the test at any time, but for the last three: those are the libraries'. The test reads
// the names here: a line declares fields of one type, and nothing is initialised.
struct foreign_state {
    std::atomic<int> board, history; // board type; status of the history settings
    // Where SIGRTMIN+5 is blocked and a thread takes it, and a handler for SIGIO is installed.
    std::atomic<int> own_signals;
    std::atomic<int> stack_frames;      // on the stack in each call, of a message's size
    std::atomic<int> callback_threads;  // threads that call on_message
    std::atomic<int> init_ms;           // how long calls take: scm_conn_init,
    std::atomic<int> send_ms, store_ms; // send_msg, db_set_gps_power_on_status
    std::atomic<int> deletion_ms;       // rtc_del_timer
    std::atomic<int> reinit_ms;         // rtc_reinit
    std::atomic<int> deletion_waits;    // rtc_del_timer waits for a running callback
    std::atomic<int> signals_taken, sigio_taken;
    std::atomic<uint64_t> born_mask[3]; // signal N is bit N-1; of a thread born at that place
};

#endif
