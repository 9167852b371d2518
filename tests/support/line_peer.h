// The receiver's end of a serial line in unit tests: a pty at ./dev/ttymxc2 and a thread that
// answers.
#ifndef LINE_PEER_H
#define LINE_PEER_H

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <mutex>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Wraps a body into a sentence with its checksum and line end, by its own arithmetic.
inline std::string nmea(const std::string &body) {
    unsigned sum = 0;
    for (const char c : body)
        sum ^= static_cast<unsigned char>(c);
    std::array<char, 8> tail = {};
    snprintf(tail.data(), tail.size(), "*%02X\r\n", sum);
    return "$" + body + tail.data();
}

inline bool is_frame(const std::string &command) {
    return command[0] == '\xB5';
}

// The receiver's answer to a frame: its acknowledge or its refusal.
inline std::string ubx_acknowledge(const std::string &frame, bool positive) {
    std::string ack = {'\xB5', 'b', 5, static_cast<char>(positive), 2, 0, frame[2], frame[3]};
    unsigned a = 0, b = 0;
    for (size_t i = 2; i < 8; ++i) {
        a += static_cast<unsigned char>(ack[i]);
        b += a;
    }
    return ack + static_cast<char>(a) + static_cast<char>(b);
}

// Cannot be copied: it has a lock.
class line_peer {
  public:
    // Given each command as it arrives (a whole sentence, or the bytes of one read), returns what
    // to write back; empty = silence.
    using responder = std::function<std::string(const std::string &command)>;

    // Opens the pty and links it to dev/ttymxc2 in the working directory.
    explicit line_peer(responder answer_with) : answer(std::move(answer_with)) {
        if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
            std::abort();
        std::filesystem::create_directories("dev");
        std::filesystem::remove("dev/ttymxc2");
        std::filesystem::create_symlink(ptsname(master), "dev/ttymxc2");
        thread = std::jthread([this](const std::stop_token &stop) { serve(stop); });
    }
    ~line_peer() {
        thread.request_stop();
        thread.join();
        close(master);
    }

    void send(const std::string &text) const {
        if (::write(master, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
            std::abort();
    }
    // Sends unasked; returns when it lies on the line before the daemon.
    void send_unasked(const std::string &text) const {
        send(text);
        const int fd = open("dev/ttymxc2", O_RDWR | O_NOCTTY | O_CLOEXEC);
        for (int count = 0, i = 0; count < static_cast<int>(text.size()) && i < 5000; ++i) {
            usleep(1000);
            ioctl(fd, FIONREAD, &count);
        }
        close(fd);
    }
    std::vector<std::string> commands() {
        const std::lock_guard guard(lock);
        return received;
    }

  private:
    void serve(const std::stop_token &stop) {
        std::string pending;
        while (!stop.stop_requested()) {
            pollfd line = {master, POLLIN, 0};
            poll(&line, 1, 10);
            if ((line.revents & POLLIN) == 0) {
                usleep(1000); // nobody has the other end open
                continue;
            }
            std::array<char, 1024> arrived;
            const ssize_t count = ::read(master, arrived.data(), arrived.size());
            pending.append(arrived.data(), count > 0 ? static_cast<size_t>(count) : 0);
            while (!pending.empty()) {
                const size_t end = pending[0] == '$' ? pending.find('\n') : pending.size() - 1;
                if (end == std::string::npos)
                    break;
                const std::string command = pending.substr(0, end + 1);
                pending.erase(0, end + 1);
                std::unique_lock guard(lock);
                received.push_back(command);
                guard.unlock();
                send(answer ? answer(command) : "");
            }
        }
    }

    responder answer;
    int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    std::mutex lock;
    std::vector<std::string> received; // under lock
    std::jthread thread;
};

#endif
