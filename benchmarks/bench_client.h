// A client that asks one question over and over: the daemon's or the bare server's by a datagram,
// gpsd's over TCP. One thread a client.
#ifndef BENCH_CLIENT_H
#define BENCH_CLIENT_H

#include <array>
#include <cstdint>
#include <string>
#include <sys/un.h>

#include "mqutils.h"

// Where to ask: a socket on the bus, or a port of this machine.
struct bench_server {
    std::string name;
    std::string socket;    // path; empty = gpsd
    size_t reply_size = 0; // bytes of an answer, for the datagrams
    uint16_t port = 0;     // gpsd's
};

class bench_client {
  public:
    // `id` is the client's service id, below `bus`; gpsd asks for none.
    bench_client(const std::string &bus, uint8_t id, const bench_server &server);
    ~bench_client();
    bench_client(const bench_client &) = delete;
    bench_client &operator=(const bench_client &) = delete;

    // Asks for a position and waits for the answer, 60 s at most. False: there was none.
    bool ask();
    // Of the last answer of the daemon: its status is success.
    bool was_success() const;

  private:
    bool ask_datagram();
    bool ask_gpsd();
    void join_gpsd(uint16_t port);
    bool has_line(const char *start); // reads lines up to one that starts so

    int fd = -1;
    size_t wanted;
    sockaddr_un to = {};
    msg_hdr request = {};
    std::array<uint8_t, 8192> reply = {};
    size_t filled = 0; // bytes in `reply`, of gpsd's
};

// A bound datagram socket; what cannot be had is said on stderr.
int bench_bound_socket(const std::string &path);

#endif
