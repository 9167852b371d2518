/* The message bus of the terminal: header, connection and the six calls a service makes.
 *
 * Wire: one message is the 20-byte header and, behind it, the payload; together at most 65536
 * bytes. All header fields are little-endian. Every int result is 0 for success and -1 for failure;
 * errno then says why. After success errno is what it was before.
 *
 * The bus is a directory in which service N owns the socket file "N", or the one that "N" leads to
 * when it is a symbolic link of the directory's owner. Who may write to the socket's directory may
 * own the id (and needs to read it, too). Sockets have mode 0660: who is in the socket's group,
 * which is its directory's where that has the set-group-id bit, may send. A sender is believed when
 * the user the kernel names owns the socket of the service it claims to be. A file "policy" of the
 * directory's owner says what else must be true of a message: see docs/bus.md. All other messages,
 * and whatever is malformed, are dropped with a warning in the log, at most five lines a second.
 * What a peer leaves unread takes room from what it is sent, not from what others are.
 * A child forked by a service shares the socket: while it lives, the id has a live owner.
 *
 * Environment, read by every scm_conn_init (ignored in set-user-id programs):
 *   MQUTILS_DIR              the directory; default /run/terminal-bus
 *   MQUTILS_SEND_TIMEOUT_MS  how long a send waits for a full peer: 10 to 10000, default 1000
 *   MQUTILS_LOG              "stderr": the warnings go to stderr, too, besides the system log
 */
#ifndef MQUTILS_H
#define MQUTILS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct msg_hdr {      /* 20 bytes, little-endian, the same on every machine */
    uint8_t msg_type; /* 0 request, 1 response, 2 notification */
    uint8_t reserved0;
    uint8_t src_serv_id;
    uint8_t dst_serv_id;
    uint32_t msg_id;
    uint32_t txn_id;
    uint32_t pld_len; /* bytes; 0 = no payload */
    uint32_t reserved1;
};
static_assert(sizeof(struct msg_hdr) == 20, "goes on the bus as it stands");
static_assert(offsetof(struct msg_hdr, msg_id) == 4, "msg_hdr");
static_assert(offsetof(struct msg_hdr, txn_id) == 8, "msg_hdr");
static_assert(offsetof(struct msg_hdr, pld_len) == 12, "msg_hdr");

struct bus_msg { /* what the callback receives; valid only while the callback runs */
    struct msg_hdr hdr;
    void *pld; /* aligned for any type; null when pld_len is 0 */
};
static_assert(sizeof(void *) != 4 || offsetof(struct bus_msg, pld) == 20, "the terminal's bus_msg");

struct scm_conn;

/* Called for every message that arrives, one at a time, in arrival order, on the library's receive
 * thread (all signals blocked, 256 KiB of stack). The first is the registration response: message
 * 407, msg_type 1, from service 0, which is the bus itself. Senders wait while this runs and their
 * messages fill a short queue: return soon. What it returns is for the service's own use. */
typedef int (*scm_msg_cb)(struct scm_conn *conn, struct bus_msg *msg);

struct scm_conn {              /* 80 bytes on the 32-bit terminal: callback at offset 76 */
    unsigned char library[76]; /* the library's own; zero before scm_conn_init */
    scm_msg_cb on_message;     /* set by the service before scm_conn_init */
};
/* Programs bring the record, the library may be the terminal's own. */
static_assert(sizeof(void *) != 4 || sizeof(struct scm_conn) == 80, "the terminal's scm_conn");
static_assert(sizeof(void *) != 4 || offsetof(struct scm_conn, on_message) == 76, "scm_conn");

/* Registers service `serv_id` (1 to 255) on the bus and starts delivery; the first callback may run
 * before this returns. The record must stay where it is until scm_conn_exit; afterwards it may be
 * used again. Not callable from a signal handler. A socket whose owner is gone is replaced.
 *   EADDRINUSE  the id has a live owner (or the file of that name is not this user's)
 *   EISCONN     the record is in use
 *   EINVAL      no record, no callback, or id 0
 *   ENOENT, ENOTDIR, ENAMETOOLONG, EACCES, EROFS: no such directory, or no right to own an id
 *   EPERM       the process runs with a real user other than its effective one
 *   ENOTSOCK    a file that is no socket is in the way
 *   EBUSY       a dead owner's socket is to be replaced, and the directory stayed locked by another
 *               process for a fifth of a second
 *   EBADMSG     the policy is the directory owner's and not to be believed: the log says why
 *   EMFILE, ENFILE, ENOMEM, EAGAIN: out of descriptors, connections (64), memory or threads */
int scm_conn_init(struct scm_conn *conn, uint8_t serv_id);

/* Ends delivery and gives the service id back. When it returns (and was not called from
 * on_message), no callback runs any more. Called from on_message, it ends delivery when that
 * callback returns; the record is free at once. Otherwise it first waits until what was sent has
 * been read, at most as long as a send would; messages not yet delivered to this service are
 * lost. Sends that other threads have under way fail, or have succeeded. Not callable from a signal
 * handler. In a child forked by the service it only closes the child's descriptors.
 *   EAGAIN      ended all the same, but something sent is still unread. It is believed when it is
 *               read: the socket file stays, without an owner, until somebody takes the id
 *   ENOTCONN    not registered (any more), EINVAL no record */
int scm_conn_exit(struct scm_conn *conn);

/* Fill a header for one send; they write `hdr` only, and all of it. Requests and notifications get
 * the next transaction id of the connection, counted from a random one; a response gets message id
 * and transaction id of its request and goes to where that came from. A response whose id this
 * connection did not give out is not delivered: the previous owner of the service id may have
 * asked. `req` may be the bus_msg that holds `hdr`. From any thread and from a signal handler.
 *   ENOTCONN    not registered (any more), EINVAL an argument is missing; `hdr` is unchanged */
int fill_request_hdr(struct scm_conn *conn, struct msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id,
                     uint8_t dst_serv_id);
int fill_notif_hdr(struct scm_conn *conn, struct msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id,
                   uint8_t dst_serv_id);
int fill_response_hdr(struct scm_conn *conn, struct msg_hdr *hdr, const struct bus_msg *req,
                      uint32_t pld_len);

/* Sends header and payload (`hdr->pld_len` bytes; `pld` may be null when that is 0) as one message.
 * From any thread and from a signal handler (a handler keeps errno for the code it interrupts when
 * this fails). A peer whose queue is full is waited for, at most MQUTILS_SEND_TIMEOUT_MS whatever
 * signals arrive; from a receive thread of the library not at all. 0 = in the queue of the peer.
 *   EAGAIN        the peer's queue stayed full
 *   ENOENT        no such service
 *   ECONNREFUSED  the service is gone, or leaving
 *   ENOTCONN      this end is not registered (any more)
 *   EMSGSIZE      header and payload together exceed 65536 bytes
 *   EINVAL        an argument is missing, or `hdr->src_serv_id` is not this connection's
 *   EACCES        no right to enter the directory, or not in the group of the peer's socket */
int send_msg(struct scm_conn *conn, const struct msg_hdr *hdr, const void *pld);

#ifdef __cplusplus
}
#endif

#endif
