// The lines of the bus library: see mqutils_log.h.

#include "mqutils_log.h"

#include "ls_descriptor.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

namespace mqutils {
namespace {

constexpr sockaddr_un system_log{AF_UNIX, "/dev/log"};

using line_text = std::array<char, 256>;

// What snprintf() said, as the number of characters that are there.
template <size_t Size>
size_t printed(const std::array<char, Size> &text, int wanted) {
    return wanted < 0 ? 0 : std::min(static_cast<size_t>(wanted), text.size() - 1);
}

bool to_system_log(log_target &target, const char *line) {
    constexpr std::array<const char *, 12> months{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    if (target.socket < 0)
        target.socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    std::array<char, std::tuple_size_v<line_text> + 64> datagram{};
    const int wanted =
        std::snprintf(datagram.data(), datagram.size(), "<%d>%s %2d %02d:%02d:%02d %.32s[%d]: %s",
                      LOG_DAEMON | LOG_WARNING, months.at(static_cast<size_t>(local.tm_mon)),
                      local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                      program_invocation_short_name, static_cast<int>(getpid()), line);
    // Unconnected on purpose: it finds the log daemon again after a restart by itself.
    return sendto(target.socket, datagram.data(), printed(datagram, wanted),
                  MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&system_log),
                  sizeof system_log) >= 0;
}

// `line` has room for its newline in the place of the NUL.
bool to_stderr(line_text &line, size_t length) {
    pollfd target{STDERR_FILENO, POLLOUT, 0}; // a pipe that nobody reads is full for ever
    if (poll(&target, 1, 0) != 1 || target.revents != POLLOUT)
        return false;
    line[length] = '\n';
    // One write, so that lines of several services do not mix.
    return write(STDERR_FILENO, line.data(), length + 1) >= 0;
}

} // namespace

bool log_line(log_target &target, const char *format, ...) {
    line_text line{};
    va_list arguments;
    va_start(arguments, format);
    const size_t length =
        printed(line, std::vsnprintf(line.data(), line.size(), format, arguments));
    va_end(arguments);
    const bool logged = to_system_log(target, line.data());
    return (target.to_stderr && to_stderr(line, length)) || logged;
}

void log_close(log_target &target) {
    ls_close(target.socket);
}

} // namespace mqutils
