// The static location: its file, and the watch that reports a change as a signal.
#include "gps_main.h"
#include "ls_file.h"
#include "ls_log.h"
#include "ls_paths.h"
#include "ls_state.h"

#include <fcntl.h>
#include <string_view>

static constexpr char log_module[] = "gps_main";

namespace {

constexpr size_t STATUS_SIZE = 21; // bytes of the file that decide about on and off

using location_text = std::array<char, LS_STUB_LOCATION_SIZE>;

// Byte by byte: workers may be reading it.
void store_location_text(const location_text &text) {
    for (size_t i = 0; i < text.size(); ++i)
        ls_stub_location_buf[i].store(text[i], std::memory_order_relaxed);
}

} // namespace

int ls_read_stub_location() {
    location_text text = {};
    store_location_text(text);
    const ls_file file = ls_open_regular_stream(LS_PATH_STUB_LOCATION, O_RDWR, "r+");
    if (!file) {
        log_error("%s file open failed\n", LS_PATH_STUB_LOCATION);
        return -1;
    }
    std::array<char, STATUS_SIZE> status = {};
    const size_t size = fread(status.data(), 1, status.size(), file.get());
    if (std::string_view(status.data(), size).find("= ON") == std::string_view::npos) {
        log_info("static location is OFF");
        stub_location_on_g = 0;
        return 0;
    }
    log_info("static location is ON");
    stub_location_on_g = 1;
    const size_t read = fread(text.data(), 1, text.size(), file.get());
    if (read != 0)
        store_location_text(text);
    return 0;
}

int ls_watch_stub_location_dir(int signal) {
    // Stays open for the life of the process: closing it would end the watch.
    const int fd = open(LS_PATH_STUB_LOCATION_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        log_error("%s directory open failed \n", LS_PATH_STUB_LOCATION_DIR);
        return -1;
    }
    if (fcntl(fd, F_SETSIG, signal) == -1) {
        log_error("Assign alternate signal failed\n");
        return -1;
    }
    if (fcntl(fd, F_NOTIFY, DN_MODIFY | DN_MULTISHOT) == -1) {
        log_error("Enabling file modify signal failed\n");
        return -1;
    }
    return 0;
}
