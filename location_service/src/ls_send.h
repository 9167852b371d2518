// The four steps of every send but those from a signal handler and of the alarm, which have their
// header on the stack: a zeroed header from the heap, filled, sent with its payload, and freed.
#ifndef LS_SEND_H
#define LS_SEND_H

#include "mqutils.h"

#include <glib.h>

enum class ls_sent {
    yes,
    no_header, // out of memory; nothing was sent
    no,
};

enum class ls_failed_header { freed, kept };

// `fill` gets the header and fills it with one of the library's calls. `payload` as the header
// says.
template <typename Fill>
ls_sent ls_send(scm_conn *conn, const void *payload, Fill fill,
                ls_failed_header when_failed = ls_failed_header::freed) {
    auto *hdr = static_cast<msg_hdr *>(g_try_malloc0_n(1, sizeof(msg_hdr)));
    if (hdr == nullptr)
        return ls_sent::no_header;
    fill(hdr);
    const bool sent = send_msg(conn, hdr, payload) != -1;
    if (sent || when_failed == ls_failed_header::freed)
        g_free(hdr);
    return sent ? ls_sent::yes : ls_sent::no;
}

#endif
