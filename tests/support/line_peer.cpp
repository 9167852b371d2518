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
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 || pipe2(wake, O_CLOEXEC) != 0)
        std::abort();
    termios raw = {};
    tcgetattr(master, &raw);
    cfmakeraw(&raw);
    tcsetattr(master, TCSANOW, &raw);
    std::filesystem::create_directories("dev");
    std::filesystem::remove("dev/ttymxc2");
    std::filesystem::create_symlink(ptsname(master), "dev/ttymxc2");
    thread = std::thread([this] { serve(); });
}

line_peer::~line_peer() {
    if (::write(wake[1], "x", 1) != 1)
        std::abort();
    thread.join();
    if (!hung_up)
        close(master);
    close(wake[0]);
    close(wake[1]);
}

void line_peer::send(const std::string &bytes) {
    if (::write(master, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        std::abort();
}

std::vector<std::string> line_peer::commands() {
    const std::lock_guard guard(lock);
    return received;
}

void line_peer::serve() {
    std::string pending;
    while (true) {
        std::array<pollfd, 2> fds = {{{master, POLLIN, 0}, {wake[0], POLLIN, 0}}};
        poll(fds.data(), fds.size(), -1);
        if (fds[1].revents != 0)
            return;
        std::array<char, 1024> bytes;
        const ssize_t count = ::read(master, bytes.data(), bytes.size());
        if (count <= 0) {
            usleep(1000); // nobody has the other end open
            continue;
        }
        pending.append(bytes.data(), static_cast<size_t>(count));
        while (!pending.empty()) {
            size_t size = pending.size();
            if (pending[0] == '$') {
                const size_t end = pending.find('\n');
                if (end == std::string::npos)
                    break;
                size = end + 1;
            }
            const std::string command = pending.substr(0, size);
            pending.erase(0, size);
            {
                const std::lock_guard guard(lock);
                received.push_back(command);
            }
            const std::string reply = answer ? answer(command) : "";
            if (hung_up) {
                close(master);
                return;
            }
            if (!reply.empty())
                send(reply);
        }
    }
}
