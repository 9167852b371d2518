// The sending half of a connection: one socket for each peer.
//
// Thread contract: any thread and any signal handler: no lock, no allocation, no locale. Callers
// hold a reference on the connection.
#ifndef MQUTILS_SEND_H
#define MQUTILS_SEND_H

#include "mqutils_connection.h"

namespace mqutils {

// Marks the calling thread as a receive thread of this process: its sends never wait.
void send_never_waits_here();

// Makes `socket` a sending one: buffer and wait. 0, or an errno value.
int send_prepare(const connection &conn, int socket);

// Sends one datagram to `hdr.dst_serv_id`. 0, or an errno value.
int send_datagram(connection &conn, const msg_hdr &hdr, const void *pld);

// Refuses what threads still have in hand: nothing of a closed connection is accepted any more.
void send_stop(const connection &conn);

// Waits, at most the send bound and on a receive thread not at all, until the peers have read and
// judged what was sent. False = something is unread.
bool send_linger(const connection &conn);

} // namespace mqutils

#endif
