#include "line_pty.h"

#include "ls_descriptor.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <termios.h>
#include <unistd.h>

namespace sim {
namespace {

bool failed(line_pty &port, std::string &error, const std::string &step) {
    error = step + ": " + std::strerror(errno);
    line_pty_unplug(port);
    return false;
}

// Raw, and once opened and closed: only then does the master report a hang-up while nobody has the
// slave open, which is how line_pty_check knows.
bool prepare_slave(const std::string &path) {
    const ls_descriptor slave(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    termios attributes{};
    return slave.fd >= 0 && tcgetattr(slave.fd, &attributes) == 0 &&
           (cfmakeraw(&attributes), tcsetattr(slave.fd, TCSANOW, &attributes) == 0);
}

// Replaced by renaming, so the path never points nowhere in between.
bool point_link(const std::string &link, const std::string &target) {
    const std::string fresh = link + ".new";
    unlink(fresh.c_str());
    return symlink(target.c_str(), fresh.c_str()) == 0 && rename(fresh.c_str(), link.c_str()) == 0;
}

} // namespace

bool line_pty_plug(line_pty &port, const std::string &link, std::string &error) {
    line_pty_unplug(port);
    port.master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    std::array<char, 128> name{};
    if (port.master < 0 || grantpt(port.master) != 0 || unlockpt(port.master) != 0 ||
        ptsname_r(port.master, name.data(), name.size()) != 0)
        return failed(port, error, "creating a pseudo terminal");
    port.slave = name.data();
    port.notify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (port.notify < 0 ||
        inotify_add_watch(port.notify, port.slave.c_str(), IN_OPEN | IN_CLOSE) < 0)
        return failed(port, error, "watching " + port.slave);
    if (!prepare_slave(port.slave))
        return failed(port, error, "setting up " + port.slave);
    port.link = link;
    if (!point_link(link, port.slave))
        return failed(port, error, "creating the link " + link);
    line_pty_check(port);
    return true;
}

void line_pty_unplug(line_pty &port) {
    ls_close(port.master);
    ls_close(port.notify);
    if (!port.link.empty())
        unlink(port.link.c_str());
    port = line_pty{};
}

bool line_pty_check(line_pty &port) {
    std::array<char, 4096> events;
    while (port.notify >= 0 && read(port.notify, events.data(), events.size()) > 0) {
    }
    pollfd master{port.master, POLLIN, 0};
    port.open = port.master >= 0 && poll(&master, 1, 0) >= 0 && (master.revents & POLLHUP) == 0;
    return port.open;
}

std::vector<uint8_t> line_pty_read(line_pty &port) {
    std::vector<uint8_t> bytes;
    std::array<uint8_t, 4096> part;
    while (port.master >= 0) {
        const ssize_t count = read(port.master, part.data(), part.size());
        if (count <= 0)
            break;
        bytes.insert(bytes.end(), part.begin(), part.begin() + count);
    }
    return bytes;
}

bool line_pty_write(line_pty &port, std::span<const uint8_t> bytes) {
    return line_pty_check(port) &&
           write(port.master, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
}

} // namespace sim
