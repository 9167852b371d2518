/* The message bus of the terminal: header, connection and the six calls a service makes.
 *
 * Wire: one message is the 20-byte header and, behind it, the payload. All header fields are
 * little-endian. Error reporting: every int result is 0 for success and -1 for failure.
 */
#ifndef MQUTILS_H
#define MQUTILS_H

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

struct bus_msg { /* what the callback receives; valid only while the callback runs */
    struct msg_hdr hdr;
    void *pld;
};

struct scm_conn;

/* Called for every message that arrives, one at a time, in arrival order, on the library's receive
 * thread (all signals blocked). Whatever it returns is for the service's own use. */
typedef int (*scm_msg_cb)(struct scm_conn *conn, struct bus_msg *msg);

struct scm_conn {              /* 80 bytes on the 32-bit terminal: callback at offset 76 */
    unsigned char library[76]; /* the library's own; zero before scm_conn_init */
    scm_msg_cb on_message;     /* set by the service before scm_conn_init */
};

/* Registers the service on the bus and starts delivery. The record must stay where it is until
 * scm_conn_exit. -1: no bus, the id has a live owner, or the record was in use; errno says why. */
int scm_conn_init(struct scm_conn *conn, uint8_t serv_id);

/* Ends delivery and gives the service id back. When it returns (and was not called from
 * on_message), no callback runs any more. */
int scm_conn_exit(struct scm_conn *conn);

/* Fill a zeroed header for one send. They only write `hdr`; 0, or -1 for a missing argument. */
int fill_request_hdr(struct scm_conn *conn, struct msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id,
                     uint8_t dst_serv_id);
int fill_notif_hdr(struct scm_conn *conn, struct msg_hdr *hdr, uint32_t pld_len, uint32_t msg_id,
                   uint8_t dst_serv_id);
int fill_response_hdr(struct scm_conn *conn, struct msg_hdr *hdr, const struct bus_msg *req,
                      uint32_t pld_len);

/* Sends header and payload (`hdr->pld_len` bytes; `pld` may be null when that is 0) as one message.
 * Callable from any thread and from a signal handler. -1 = not sent; errno says why. */
int send_msg(struct scm_conn *conn, const struct msg_hdr *hdr, const void *pld);

#ifdef __cplusplus
}
#endif

#endif
