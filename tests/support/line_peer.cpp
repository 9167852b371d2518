#include "line_peer.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

std::string nmea(const std::string &body) {
    unsigned sum = 0;
    for (const char c : body)
        sum ^= static_cast<unsigned char>(c);
    std::array<char, 8> tail = {};
    snprintf(tail.data(), tail.size(), "*%02X\r\n", sum);
    return "$" + body + tail.data();
}

line_peer::line_peer(responder answer_with) : answer(std::move(answer_with)) {
    master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0)
        std::abort();
    termios raw = {};
    tcgetattr(master, &raw);
    cfmakeraw(&raw);
    tcsetattr(master, TCSANOW, &raw);
    std::filesystem::create_directories("dev");
    std::filesystem::remove("dev/ttymxc2");
    std::filesystem::create_symlink(ptsname(master), "dev/ttymxc2");
    thread = std::jthread([this](const std::stop_token &stop) { serve(stop); });
}

line_peer::~line_peer() {
    thread.request_stop();
    thread.join();
    if (!hung_up)
        close(master);
}

void line_peer::send(const std::string &bytes) const {
    if (::write(master, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        std::abort();
}

std::vector<std::string> line_peer::commands() {
    const std::lock_guard guard(lock);
    return received;
}

void line_peer::serve(const std::stop_token &stop) {
    std::string pending;
    while (!stop.stop_requested()) {
        pollfd line = {master, POLLIN, 0};
        poll(&line, 1, 10);
        std::array<char, 1024> bytes;
        const ssize_t count =
            (line.revents & POLLIN) != 0 ? ::read(master, bytes.data(), bytes.size()) : 0;
        if (count <= 0) {
            usleep(1000); // nobody has the other end open
            continue;
        }
        pending.append(bytes.data(), static_cast<size_t>(count));
        while (!pending.empty()) {
            const size_t end = pending[0] == '$' ? pending.find('\n') : pending.size() - 1;
            if (end == std::string::npos)
                break;
            const std::string command = pending.substr(0, end + 1);
            pending.erase(0, end + 1);
            {
                const std::lock_guard guard(lock);
                received.push_back(command);
            }
            const std::string reply = answer ? answer(command) : "";
            if (hung_up) {
                close(master);
                return;
            }
            send(reply);
        }
    }
}
