// The receiver's end of a serial line in unit tests: a pty at ./dev/ttymxc2 and a thread that
// answers.
#ifndef LINE_PEER_H
#define LINE_PEER_H

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Wraps a body into a sentence with its checksum and line end, by its own arithmetic.
std::string nmea(const std::string &body);

class line_peer {
  public:
    // Given each command as it arrives (a whole sentence, or the bytes of one read), returns what
    // to write back; empty = silence.
    using responder = std::function<std::string(const std::string &command)>;

    // Opens the pty and links it to dev/ttymxc2 in the working directory.
    explicit line_peer(responder answer);
    ~line_peer();
    line_peer(const line_peer &) = delete;
    line_peer &operator=(const line_peer &) = delete;

    // For the responder: closes the pty behind this command. The daemon's reads and writes fail
    // then.
    void hang_up() { hung_up = true; }
    void send(const std::string &bytes) const;
    std::vector<std::string> commands();

  private:
    void serve(const std::stop_token &stop);

    responder answer;
    bool hung_up = false; // the serving thread's
    int master = -1;
    std::mutex lock;
    std::vector<std::string> received; // under lock
    std::jthread thread;
};

#endif
