// lsctl stream --listen: readers on the loopback. One thread owns it; nothing in it blocks.
//
// A reader has a place and bounded room in both directions. One that does not read what is sent to
// it, or sends more than a request, loses its place: nobody else notices.
#ifndef LSCTL_STREAM_SERVER_H
#define LSCTL_STREAM_SERVER_H

#include <cstdint>
#include <list>
#include <optional>
#include <string>
#include <vector>

#include <poll.h>

#include "ls_descriptor.h"
#include "stream_gpsd.h"

constexpr size_t STREAM_PEERS = 16;
constexpr size_t STREAM_UNREAD_SIZE = 65536; // bytes kept for one reader, besides the kernel's

struct stream_peer {
    ls_descriptor socket;
    std::string in;  // not taken yet
    std::string out; // not sent yet
    bool gone = false;
    gpsd_session session;
    std::optional<stream_clock::time_point> poll_until; // a POLL waits for its answer
    explicit stream_peer(int fd) : socket(fd) {}
};

// Adds what is to be sent, and sends what can be. Marks a peer as gone that has too much unread.
void stream_send(stream_peer &peer, const std::string &text);

class stream_server {
  public:
    // Listens on 127.0.0.1, and on ::1 where there is one; port 0 = any free one. Empty, or a
    // sentence about what is wrong.
    std::string listen(uint16_t wanted_port);
    uint16_t port() const { return bound_port; }

    // What is to be polled, for serve(), which reads, writes and takes new readers.
    void watch(std::vector<pollfd> &fds) const;
    // `fds` begins with what watch() added and nobody came or went since. The peers that are new.
    std::vector<stream_peer *> serve(const pollfd *fds);
    // Closes those that are gone.
    void sweep();

    std::list<stream_peer> peers;

  private:
    std::vector<stream_peer *> accept_from(int listener);

    std::list<ls_descriptor> listeners;
    uint16_t bound_port = 0;
};

#endif
