#include "gps_history.h"

#include "ls_file.h"
#include "ls_log.h"
#include "ls_paths.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

static constexpr char log_module[] = "gps_history";

std::mutex ls_history_file_lock;

namespace {

struct history_metadata {
    uint32_t wrap_offset;
    uint32_t write_offset;
};
static_assert(sizeof(history_metadata) == 8);

constexpr size_t COPY_CHUNK = size_t{64} * 1024;

// All under ls_history_file_lock.
int history_fd = -1; // -1 = closed
history_metadata metadata = {sizeof(history_metadata), sizeof(history_metadata)};
uint32_t metadata_size = sizeof(history_metadata);

// Opens the export and empties it; -1 and errno. It may be one more name of the ring's file.
int open_export() {
    ls_descriptor out(ls_open_regular(LS_PATH_HISTORY_EXPORT, O_RDWR | O_CREAT));
    struct stat ring = {};
    struct stat text = {};
    if (out.fd < 0 || fstat(history_fd, &ring) != 0 || fstat(out.fd, &text) != 0)
        return -1;
    if (ring.st_dev == text.st_dev && ring.st_ino == text.st_ino) {
        errno = EINVAL;
        return -1;
    }
    return ftruncate(out.fd, 0) == 0 ? out.release() : -1;
}

bool sync_file(const char *caller) {
    if (fdatasync(history_fd) == 0)
        return true;
    log_error("LH: %s, file write error: %d\n", caller, errno);
    return false;
}

// After a power loss a new file is there only if its directory has been synced, too. One that may
// not be read costs the name, not the daemon's start.
void sync_directory(const char *caller) {
    const ls_descriptor directory(open(LS_PATH_HISTORY_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.fd < 0 || fsync(directory.fd) != 0)
        log_error("LH: %s, directory sync error: %d\n", caller, errno);
}

// A header of another file, of a cut one or of none at all must not lead outside.
bool is_plausible(const history_metadata &header, int fd) {
    struct stat status = {};
    if (fstat(fd, &status) != 0)
        return false;
    const auto inside = [&](uint32_t offset) {
        return offset >= metadata_size && offset <= LS_HISTORY_FILE_SIZE &&
               offset <= static_cast<uint64_t>(status.st_size);
    };
    return inside(header.wrap_offset) && inside(header.write_offset);
}

// Appends to a line as far as it goes. The argument order is printf's.
__attribute__((format(printf, 2, 3))) void append(ls_history_line *line, const char *format, ...) {
    const size_t used = strlen(line->data());
    va_list args;
    va_start(args, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // checked at the callers
    vsnprintf(line->data() + used, line->size() - used, format, args);
#pragma GCC diagnostic pop
    va_end(args);
}

// Whether a line begins here, by the shape of its date alone: the clock may have been set since.
bool begins_line(std::string_view text) {
    return text.size() > 19 && text[4] == '-' && text[7] == '-' && text[10] == ' ' &&
           text[13] == ':' && text[16] == ':' && text[19] == ',';
}

// A power loss between a line and its header leaves a line that no header counts. The one that now
// replaces it from `start` to `end` may be shorter; then the rest of it is zeroed, which the export
// leaves out.
void clear_rest_of_unknown_line(off_t start, off_t end) {
    std::array<char, 2 *LS_HISTORY_LINE_SIZE> found = {};
    const ssize_t size = pread(history_fd, found.data(), found.size(), start);
    const std::string_view text(found.data(), size > 0 ? static_cast<size_t>(size) : 0);
    // Nothing lies behind the newest line of a file that has not wrapped, but one not counted.
    size_t unknown = text.size();
    if (metadata.wrap_offset != metadata_size) {
        // In the ring the oldest data lie there: the rest of a cut line, or a whole one with whole
        // ones behind it. Only a line that is not counted has cut the one behind it.
        unknown = text.find('\n') + 1; // 0 = no line end
        if (unknown == text.size() || !begins_line(text) || begins_line(text.substr(unknown)))
            return;
    }
    // More than a line can hold: no line, or those of a file whose header was made anew.
    if (unknown >= LS_HISTORY_LINE_SIZE)
        return;
    const off_t rest = start + static_cast<off_t>(unknown) - end;
    const ls_history_line zeros = {};
    if (rest > 0 && pwrite(history_fd, zeros.data(), static_cast<size_t>(rest), end) != rest)
        log_error("LH: %s, file write error: %d\n", "ls_write_to_file", errno);
}

// Copies the history's bytes from `from` to `to` (or to the end of the file). Bytes that no line
// has are left out. 0; 255 when something could not be written; -1 when it could not be read.
int copy_range(int out, off_t from, off_t to) {
    static std::array<char, COPY_CHUNK> chunk; // under the lock; too large for a worker's stack
    int result = 0;
    lseek(history_fd, from, SEEK_SET);
    while (from < to) {
        const size_t wanted = std::min<size_t>(chunk.size(), static_cast<size_t>(to - from));
        const ssize_t count = read(history_fd, chunk.data(), wanted);
        if (count < 0) {
            log_error("LH: %s, file read error: %d\n", "ls_hal_read_history_data", errno);
            return -1;
        }
        if (count == 0)
            break;
        from += count;
        char *end = std::remove(chunk.data(), chunk.data() + count, '\0');
        const auto size = static_cast<size_t>(end - chunk.data());
        if (size != 0 && write(out, chunk.data(), size) != static_cast<ssize_t>(size)) {
            log_error("LH: %s, file write error: %d\n", "ls_hal_read_history_data", errno);
            result = 255;
        }
    }
    return result;
}

} // namespace

void ls_history_file_open() {
    if (history_fd >= 0) {
        log_debug("LH: %s, file already open!\n", __func__);
        return;
    }
    history_fd = ls_open_regular(LS_PATH_HISTORY, O_RDWR);
    // Only a missing file is made: a moment without descriptors must not cost the lines.
    if (history_fd < 0 && errno == ENOENT)
        history_fd = ls_open_regular(LS_PATH_HISTORY, O_RDWR | O_CREAT);
    if (history_fd < 0)
        log_error("LH: %s, file open error: %d\n", __func__, errno);
}

void ls_history_file_close() {
    if (history_fd < 0) {
        log_debug("LH: %s, file already closed!\n", __func__);
        return;
    }
    ls_close(history_fd);
}

void ls_hal_metadata_default() {
    metadata_size = sizeof(history_metadata);
    metadata = {metadata_size, metadata_size};
    log_debug("LH: %s, metadata_size: %d\n", __func__, metadata_size);
}

int ls_hal_read_metadata_from_file() {
    metadata_size = sizeof(history_metadata);
    log_debug("LH: %s, metadata_size: %d\n", __func__, metadata_size);
    ls_history_file_open();
    history_metadata header = {};
    const bool whole = read(history_fd, &header, sizeof(header)) == sizeof(header);
    const bool plausible = whole && is_plausible(header, history_fd);
    if (whole && !plausible)
        log_error("LH: %s, offsets %u and %u are outside the file\n", __func__, header.wrap_offset,
                  header.write_offset);
    ls_history_file_close();
    if (!plausible)
        return -1;
    metadata = header;
    return 0;
}

int ls_hal_write_metadata_to_file() {
    log_debug("LH: %s\n", __func__);
    ls_history_file_open();
    lseek(history_fd, 0, SEEK_SET);
    const bool written = write(history_fd, &metadata, sizeof(metadata)) == sizeof(metadata);
    // A line is recorded when the header that counts it is on the disk, not a minute later.
    const bool safe = written && sync_file(__func__);
    if (safe && metadata.write_offset == metadata_size)
        sync_directory(__func__);
    ls_history_file_close();
    return safe ? 0 : -1;
}

void ls_position_to_string(const gps_pos_data *pos, ls_history_line *line) {
    const time_t now = time(nullptr);
    tm local = {};
    localtime_r(&now, &local);
    std::array<char, 24> date = {};
    strftime(date.data(), date.size(), "%Y-%m-%d %H:%M:%S", &local);
    log_debug("Formatted date & time : %s\n", date.data());

    append(line, "%s,", date.data());
    // A three-dimensional fix is written as 2D too: readers of the file count on it.
    if (pos->fix_type == GPS_FIX_2D || pos->fix_type == GPS_FIX_3D)
        append(line, "2D,");
    else if (pos->fix_type == GPS_FIX_NONE)
        append(line, "ER,");
    append(line, "%f", pos->latitude);
    append(line, "%c,", pos->lat_dir == '\0' ? 'X' : pos->lat_dir);
    append(line, "%f", pos->longitude);
    append(line, "%c,", pos->lon_dir == '\0' ? 'Y' : pos->lon_dir);
    if (pos->horizontal_accuracy >= 0)
        append(line, "+");
    append(line, "%02.02fm,", static_cast<double>(pos->horizontal_accuracy));
    append(line, "%02hhd\n", static_cast<signed char>(pos->num_satellites));
    // Numbers of any size may come from the receiver; what is cut off still ends its line.
    if (strlen(line->data()) == line->size() - 1)
        (*line)[line->size() - 2] = '\n';
    log_debug("LH: %s: %s\n", __func__, line->data());
}

int ls_write_to_file(const char *line) {
    log_debug("LH: %s\n", __func__);
    if (ls_hal_read_metadata_from_file() != 0) {
        log_error("LH: %s, read_metadata_from_file failed\n", __func__);
        return -1;
    }
    ls_history_file_open();
    if (history_fd < 0)
        return -1;
    const auto size = static_cast<uint32_t>(strlen(line));
    uint32_t start = metadata.write_offset;
    if (start + size > LS_HISTORY_FILE_SIZE) {
        start = metadata_size;
        metadata.wrap_offset = metadata_size + size;
    }
    const uint32_t end = start + size;
    clear_rest_of_unknown_line(start, end);
    lseek(history_fd, start, SEEK_SET);
    log_debug("LH: ls_history_file_size %d.\n", end);
    log_debug("LH: Writing in file %s\n", LS_PATH_HISTORY);
    if (write(history_fd, line, size) <= 0) {
        log_error("LH: %s, file write error: %d\n", __func__, errno);
        return -1;
    }
    const off_t position = lseek(history_fd, 0, SEEK_CUR);
    if (position != static_cast<off_t>(end)) {
        log_error("LH: %s, %d != %d\n", __func__, end, static_cast<int>(position));
        return -1;
    }
    // The header must not reach the flash before the line it points behind.
    if (!sync_file(__func__)) {
        ls_history_file_close();
        return -1;
    }
    if (metadata.wrap_offset > metadata_size)
        metadata.wrap_offset = end;
    metadata.write_offset = end;
    ls_history_file_close();
    return ls_hal_write_metadata_to_file();
}

int ls_hal_read_history_data() {
    log_debug("LH: ls_hal_read_history_data!\n");
    if (ls_hal_read_metadata_from_file() != 0) {
        log_error("LH: %s, read_metadata_from_file failed\n", __func__);
        return -1;
    }
    ls_history_file_open();
    if (history_fd < 0)
        return -1;
    const ls_descriptor out(open_export());
    if (out.fd < 0) {
        log_error("LH: %s, file open error: %d\n", __func__, errno);
        return -1;
    }
    const int older = copy_range(out.fd, metadata.wrap_offset, LS_HISTORY_FILE_SIZE);
    const int newer = older == -1 ? -1 : copy_range(out.fd, metadata_size, metadata.wrap_offset);
    ls_history_file_close();
    return newer == -1 ? -1 : std::max(older, newer);
}
