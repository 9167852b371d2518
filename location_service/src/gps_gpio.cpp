#include "gps_gpio.h"

#include "ls_descriptor.h"
#include "ls_log.h"
#include "ls_paths.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

static constexpr char log_module[] = "gps_gpio";

namespace {

using path_buffer = std::array<char, 100>;

path_buffer line_path(int gpio, const char *file) {
    path_buffer path = {};
    snprintf(path.data(), path.size(), LS_PATH_GPIO "/gpio%d/%s", gpio, file);
    return path;
}

// The kernel's answer does not count: it refuses, for one, to export a line twice.
void write_text(int fd, const char *text) {
    [[maybe_unused]] const ssize_t written = write(fd, text, strlen(text));
}

int open_line_file(const path_buffer &path) {
    const int fd = open(path.data(), O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        log_error("Unable to open %s file\n", path.data());
    return fd;
}

// Opens the export or unexport file and writes the line's number.
int write_number(const char *path, int gpio, ls_log_text failed) {
    const ls_descriptor file(open(path, O_WRONLY | O_CLOEXEC));
    if (file.fd < 0) {
        log_text(LS_LOG_ERROR, failed, "");
        return -1;
    }
    std::array<char, 16> text = {};
    snprintf(text.data(), text.size(), "%d", gpio);
    write_text(file.fd, text.data());
    return 0;
}

} // namespace

int u_gpio_check_file(int gpio) {
    if (access(line_path(gpio, "direction").data(), F_OK) == 0)
        return 1;
    log_error("%s: GPIO file doesn't exist", __func__);
    return 0;
}

int u_gpio_export(int gpio) {
    return write_number(LS_PATH_GPIO "/export", gpio, "Unable to open gpio export file\n");
}

int u_gpio_unexport(int gpio) {
    return write_number(LS_PATH_GPIO "/unexport", gpio, "Unable to open gpio unexport file\n");
}

int u_gpio_set_direction(int gpio, int direction) {
    const bool valid = direction == 0 || direction == 1;
    {
        const ls_descriptor file(open_line_file(line_path(gpio, "direction")));
        if (file.fd < 0)
            return -1;
        if (valid)
            write_text(file.fd, direction == 1 ? "out" : "in");
    }
    if (!valid)
        log_error("Invalid direction value\n");
    return valid ? 0 : -1;
}

int u_gpio_set_value(int gpio, int value) {
    const bool valid = value == 0 || value == 1;
    {
        const ls_descriptor file(open_line_file(line_path(gpio, "value")));
        if (file.fd < 0)
            return -1;
        if (valid)
            write_text(file.fd, value == 1 ? "1" : "0");
    }
    if (!valid)
        log_error("Invalid GPIO value\n");
    return valid ? 0 : -1;
}
