// The receiving half of a connection: one thread that reads, judges and delivers.
#ifndef MQUTILS_RECEIVE_H
#define MQUTILS_RECEIVE_H

#include "mqutils_connection.h"

namespace mqutils {

// Makes the socket one that tells who sends, and reads the policy. To be called before it is bound.
// 0, or an errno value.
int receive_prepare(connection &conn);

// Gives back what receive_prepare made, whatever it returned, when no thread was started.
void receive_abandon(connection &conn);

// Starts the thread of an open connection; it gives the connection's second reference back when it
// ends. 0, or an errno value: then that reference is still the caller's.
int receive_start(connection &conn);

// Lets the thread end as soon as a running callback has returned. Does not wait.
void receive_stop(connection &conn);

// Whether the caller is the receive thread of this connection.
bool receive_is_this_thread(const connection &conn);

} // namespace mqutils

#endif
