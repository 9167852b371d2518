// A FILE that closes itself, and opening what others put into the daemon's directories.
#ifndef LS_FILE_H
#define LS_FILE_H

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

struct ls_file_closer {
    void operator()(FILE *file) const { fclose(file); }
};
using ls_file = std::unique_ptr<FILE, ls_file_closer>;

// Opens a regular file, never through a link at its end, and without waiting for anybody: a FIFO in
// its place would hold the caller up for ever. `flags` as for open(2); what is created gets 0666
// less the umask. The descriptor, close-on-exec, or -1 with errno: EINVAL when it is not a regular
// file.
inline int ls_open_regular(const char *path, int flags) {
    constexpr mode_t created = 0666;
    const int fd = open(path, flags | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, created);
    if (fd < 0)
        return -1;
    struct stat status = {};
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode))
        return fd;
    close(fd);
    errno = EINVAL;
    return -1;
}

// The same as a stream; `mode` as for fopen(3), fitting `flags`. Null with errno.
inline ls_file ls_open_regular_stream(const char *path, int flags, const char *mode) {
    const int fd = ls_open_regular(path, flags);
    if (fd < 0)
        return nullptr;
    ls_file file(fdopen(fd, mode));
    if (!file)
        close(fd);
    return file;
}

#endif
