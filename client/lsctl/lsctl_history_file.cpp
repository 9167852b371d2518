// lsctl history: files and progress.
#include "lsctl_history_file.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ls_clock.h"
#include "ls_descriptor.h"
#include "ls_file.h"

namespace {

using std::chrono::milliseconds;

constexpr size_t LARGE = size_t{256} * 1024; // bytes from which on progress is shown

// A writer shows in the file's time: a file that has been left alone for a while is complete. One
// that ends in the middle of a line, or is empty, is more likely that of a writer that was held up.
constexpr milliseconds SETTLED{50};
constexpr milliseconds SETTLED_ODDLY{1000};
constexpr milliseconds LOOK_AGAIN{10};

history_error failure(const std::string &what, int code) {
    return {code, what + ": " + std::strerror(code)};
}

bool same(const struct stat &a, const struct stat &b) {
    return a.st_size == b.st_size && a.st_ino == b.st_ino && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

bool is_settled(const struct stat &status, milliseconds long_enough) {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t age_ms = (int64_t{now.tv_sec} - status.st_mtim.tv_sec) * 1000 +
                           (now.tv_nsec - status.st_mtim.tv_nsec) / 1'000'000;
    // A clock that was set back says nothing about the age.
    return age_ms >= long_enough.count() || age_ms < 0;
}

enum class attempt : uint8_t { whole, again, failed };

attempt read_once(int fd, std::string *text) {
    struct stat before = {};
    struct stat after = {};
    if (fstat(fd, &before) != 0)
        return attempt::failed;
    if (S_ISREG(before.st_mode) && !is_settled(before, SETTLED))
        return attempt::again;
    text->clear();
    text->reserve(static_cast<size_t>(before.st_size));
    std::array<char, 65536> chunk;
    ssize_t count = 0;
    while ((count = read(fd, chunk.data(), chunk.size())) > 0)
        text->append(chunk.data(), static_cast<size_t>(count));
    if (count < 0 || fstat(fd, &after) != 0)
        return attempt::failed;
    if (!S_ISREG(after.st_mode))
        return attempt::whole;
    const bool odd = text->empty() || text->back() != '\n';
    return same(before, after) && text->size() == static_cast<size_t>(after.st_size) &&
                   (!odd || is_settled(after, SETTLED_ODDLY))
               ? attempt::whole
               : attempt::again;
}

// Writes by way of a stream, which takes the descriptor over. 0 or an errno.
int fill(ls_descriptor &file, const std::function<void(FILE *)> &write) {
    ls_file stream(fdopen(file.fd, "we"));
    if (stream == nullptr)
        return errno;
    file.release();
    errno = 0;
    write(stream.get());
    const int failed = std::ferror(stream.get()) == 0 ? 0 : errno != 0 ? errno : EIO;
    // What is still in the stream goes out with the closing, which tells whether it did.
    const int closed = std::fclose(stream.release()) == 0 ? 0 : errno;
    return failed != 0 ? failed : closed;
}

history_error write_in_place(int fd, const std::string &name,
                             const std::function<void(FILE *)> &write) {
    ls_descriptor file(fd);
    const int code = file.fd < 0 ? errno : fill(file, write);
    return code == 0 ? history_error() : failure(name, code);
}

bool is_special(const std::string &path) {
    struct stat status = {};
    return stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

} // namespace

history_error history_read(const std::string &path, milliseconds limit,
                           const std::function<bool()> &ended, std::string *text) {
    const int64_t deadline = ls_monotonic_ms() + limit.count();
    for (;;) {
        // Not blocked by a pipe that nobody writes to.
        const ls_descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (file.fd < 0)
            return failure(path, errno);
        switch (read_once(file.fd, text)) {
        case attempt::whole:
            return {};
        case attempt::failed:
            return failure(path, errno);
        case attempt::again:
            break;
        }
        if (ls_monotonic_ms() >= deadline || ended())
            return {EAGAIN, path + ": others have it written anew all the time"};
        std::this_thread::sleep_for(LOOK_AGAIN);
    }
}

history_error history_write(const std::string &path, const std::function<void(FILE *)> &write) {
    if (path.empty()) {
        // A stream of its own: that of the process is flushed with each line.
        return write_in_place(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3), "standard output", write);
    }
    if (is_special(path))
        return write_in_place(open(path.c_str(), O_WRONLY | O_CLOEXEC), path, write);
    // What stands under the name now stays there until there is something better.
    std::string part = path + ".XXXXXX";
    ls_descriptor file(mkostemp(part.data(), O_CLOEXEC));
    if (file.fd < 0)
        return failure(path, errno);
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(file.fd, 0666 & ~mask);
    int code = fill(file, write);
    if (code == 0 && std::rename(part.c_str(), path.c_str()) != 0)
        code = errno;
    if (code == 0)
        return {};
    unlink(part.c_str());
    return failure(path, code);
}

history_progress::history_progress(size_t size)
    : wanted(size >= LARGE && isatty(STDERR_FILENO) == 1) {}

history_progress::~history_progress() {
    if (shown >= 0)
        std::fputs("\r\033[K", stderr);
}

void history_progress::show(const char *what, double part) {
    const int percent = static_cast<int>(part * 100);
    if (wanted && percent != shown) {
        shown = percent;
        std::fprintf(stderr, "\r%s %3d %%\033[K", what, percent);
    }
}
