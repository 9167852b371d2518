// In every fuzz target: the way in. And nothing waits for a disk or a while, and nothing reaches
// the machine's log.
#include "fuzz_target.h"
#include "ls_export.h"

#include <cerrno>
#include <ctime>
#include <sys/socket.h>

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const scratch_dir dir;
    fuzz({{reinterpret_cast<const char *>(data), size}});
    return 0;
}

LS_EXPORT int fsync(int) {
    return 0;
}
LS_EXPORT int fdatasync(int) {
    return 0;
}
LS_EXPORT int nanosleep(const timespec *, timespec *) {
    return 0;
}
// The libraries' way to the log; the bus has another one.
LS_EXPORT ssize_t sendto(int, const void *, size_t, int, const sockaddr *, socklen_t) {
    errno = ENOENT;
    return -1;
}
