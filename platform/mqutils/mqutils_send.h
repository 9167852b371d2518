// The sending half of a connection.
//
// Thread contract: any thread and any signal handler: no lock, no allocation, no locale. Callers
// hold a reference on the connection.
#ifndef MQUTILS_SEND_H
#define MQUTILS_SEND_H

#include "mqutils_connection.h"

namespace mqutils {

// Marks the calling thread as a receive thread of this process: its sends never wait.
void send_never_waits_here();

// Makes the socket a sending one: buffer and wait. 0, or an errno value.
int send_prepare(const connection &conn);

// Sends one datagram to `hdr.dst_serv_id`. 0, or an errno value.
int send_datagram(connection &conn, const msg_hdr &hdr, const void *pld);

// Waits, at most the send bound, until the peers have read and judged what was sent.
void send_linger(const connection &conn);

} // namespace mqutils

#endif
