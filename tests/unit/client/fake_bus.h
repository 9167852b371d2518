// libmqutils for the unit tests: records what is sent and plays the location service.
//
// A test sets `fake.service`; it is called inside send_msg and answers, or not, with the functions
// below, which call the client's callback on the calling thread.
#ifndef FAKE_BUS_H
#define FAKE_BUS_H

#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "ls_messages.h"
#include "mqutils.h"

using bytes = std::vector<uint8_t>;

struct sent_message {
    msg_hdr hdr;
    bytes payload;
};
using play = std::function<void(const sent_message &)>;

struct fake_bus {
    std::map<int, int> init_errno; // by service id; -1 = every other id
    int send_errno = 0;
    play service;

    std::mutex lock;
    std::vector<sent_message> sent;
    std::mutex delivery;      // one message at a time; guards conn
    scm_conn *conn = nullptr; // null while nobody is connected
    uint8_t serv_id = 0;
};

extern fake_bus fake;

void fake_reset();
std::vector<sent_message> fake_sent(uint32_t msg_id);

// Messages from the location service.
void fake_reply(const msg_hdr &request, const bytes &payload);
void fake_send(ls_msg_type type, uint32_t msg_id, const bytes &payload);
void fake_deliver(msg_hdr hdr, bytes payload); // with the length of this payload

// A service that answers everything so; to a command with that command in it.
play always(bytes reply);

// `size` bytes: the given ones, zeros, and `tail` from offset `at`.
bytes padded(bytes head, size_t size, const bytes &tail = {}, size_t at = 0);

#endif
