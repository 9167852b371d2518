// A FILE that closes itself, and opening what others may have put into a directory.
// Every descriptor is close-on-exec: open with "e" in the mode of fopen.
#ifndef LS_FILE_H
#define LS_FILE_H

#include "ls_descriptor.h"

#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>

struct ls_file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
using ls_file = std::unique_ptr<FILE, ls_file_closer>;

// Opens a regular file, never through a link at its end, and without waiting for anybody: a FIFO in
// its place would hold the caller up for ever. `flags` as for open(2); what is created gets 0666
// less the umask. The descriptor, or -1 with errno: EINVAL when it is not a regular file.
inline int ls_open_regular(const char *path, int flags) noexcept {
    constexpr mode_t created = 0666;
    ls_descriptor file(open(path, flags | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, created));
    struct stat status = {};
    if (file.fd < 0 || (fstat(file.fd, &status) == 0 && S_ISREG(status.st_mode)))
        return file.release();
    errno = EINVAL;
    return -1;
}

// The same as a stream; `mode` as for fopen(3), fitting `flags`. Null with errno.
inline ls_file ls_open_regular_stream(const char *path, int flags, const char *mode) noexcept {
    ls_descriptor file(ls_open_regular(path, flags));
    ls_file stream(file.fd < 0 ? nullptr : fdopen(file.fd, mode));
    if (stream)
        file.release();
    return stream;
}

#endif
