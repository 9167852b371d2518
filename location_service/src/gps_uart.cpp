#include "gps_uart.h"

#include "ls_descriptor.h"
#include "ls_log.h"
#include "ls_messages.h"
#include "ls_paths.h"
#include "ls_state.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <new>
#include <termios.h>
#include <unistd.h>

static constexpr char log_module[] = "gps_uart";

std::mutex ls_uart_lock;

namespace {

constexpr size_t RX_BUFFER_SIZE = 400;
constexpr cc_t READ_TIMEOUT_DS = 30; // tenths of a second
constexpr std::chrono::seconds CONFIGURATION_PATIENCE(3);

// The line's descriptor. A user keeps it open for as long as its read or write takes.
using line_user = std::shared_ptr<const ls_descriptor>;

std::mutex line_lock; // guards line_slot()

// Null after a failed open and after close. Never destroyed: a user may outlive main.
line_user &line_slot() {
    alignas(line_user) static std::array<std::byte, sizeof(line_user)> place;
    static auto *const slot = new (place.data()) line_user;
    return *slot;
}

line_user use_line() {
    const std::lock_guard guard(line_lock);
    return line_slot();
}

void set_line(line_user line) {
    const std::lock_guard guard(line_lock);
    line_slot().swap(line);
}

std::atomic<bool> line_in_doubt;

std::mutex configuration_lock; // guards is_being_configured
std::condition_variable configuration_over;
bool is_being_configured = false;

// Receive scratch buffer, under rx_buffer_lock. Reads do not go through it: what the kernel holds
// for the line stays there when it is emptied.
std::mutex rx_buffer_lock;
std::array<uint8_t, RX_BUFFER_SIZE> rx_buffer;

// Repeats a system call that a signal of the platform's libraries interrupted. Without an open line
// it fails as the call would.
template <typename Call>
ssize_t on_line(Call call) {
    const line_user line = use_line();
    if (line == nullptr) {
        errno = EBADF;
        return -1;
    }
    ssize_t result = 0;
    do {
        result = call(line->fd);
    } while (result < 0 && errno == EINTR);
    return result;
}

// Tells WS that the line failed. `text` is logged when the alarm is out. 1, or -1 without a bus.
int report_line_failure(ls_log_text text) {
    ls_hal_tty_doubt();
    ws_alarm_pld alarm = {};
    snprintf(alarm.text, sizeof(alarm.text), "GPS Communication (RX/TX) error");
    alarm.time = static_cast<int64_t>(time(nullptr));

    scm_conn *conn = gps_p_g.load();
    if (conn == nullptr) {
        log_error("%s is a NULL POINTER!", "gps_p_g");
        return -1;
    }
    msg_hdr hdr = {};
    fill_notif_hdr(conn, &hdr, sizeof(alarm), WS_NOTIFY_ALARM_UPDATE, LS_SERV_WS);
    if (send_msg(conn, &hdr, &alarm) == -1)
        log_error("Error while sending WS_NOTIFY_ALARM_UPDATEnotification message to WS.\n");
    else
        log_text(LS_LOG_ERROR, text, "");
    return 1;
}

} // namespace

int ls_hal_uart_init() {
    log_debug("Initialising UART for GPS\n");
    ls_descriptor opened(open(LS_PATH_UART, O_RDWR | O_NOCTTY | O_CLOEXEC));
    const int fd = opened.fd;
    if (fd < 0) {
        log_error("Unable to open /dev/ttymxc2\n");
        set_line(nullptr);
        return -1;
    }
    try {
        set_line(std::make_shared<const ls_descriptor>(fd));
    } catch (const std::bad_alloc &) {
        log_error("%s: no memory\n", __func__);
        return -1;
    }
    opened.release();
    termios current = {};
    tcgetattr(fd, &current);
    termios raw = {};
    raw.c_iflag = IGNPAR;
    raw.c_cflag = CS8 | CLOCAL | CREAD;
    // Not or'ed in: a C library may have plain numbers for its speeds.
    cfsetispeed(&raw, B9600);
    cfsetospeed(&raw, B9600);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = READ_TIMEOUT_DS;
    tcflush(fd, TCIFLUSH);
    if (tcsetattr(fd, TCSANOW, &raw) != 0) {
        log_error("Tty set attributes failed\n");
        ls_hal_uart_close();
        return -1;
    }
    line_in_doubt = false;
    return 0;
}

void ls_hal_uart_close() {
    set_line(nullptr);
}

void ls_hal_uart_begin_configuration() {
    const std::lock_guard guard(configuration_lock);
    is_being_configured = true;
}

void ls_hal_uart_end_configuration() {
    {
        const std::lock_guard guard(configuration_lock);
        is_being_configured = false;
    }
    configuration_over.notify_all();
}

void ls_hal_uart_wait_configured() {
    std::unique_lock guard(configuration_lock);
    configuration_over.wait_for(guard, CONFIGURATION_PATIENCE, [] { return !is_being_configured; });
}

void ls_hal_clear_rx_buffer() {
    const std::lock_guard guard(rx_buffer_lock);
    rx_buffer.fill(0);
}

int ls_hal_tty_write(const uint8_t *buffer, int32_t length) {
    if (buffer == nullptr) {
        log_error("%s: sentence found NULL", __func__);
        return 1;
    }
    if (buffer[0] == '$') {
        log_debug("%s: bytes written: %s", __func__, reinterpret_cast<const char *>(buffer));
    } else {
        log_debug("%s: bytes written:", __func__);
        for (int32_t i = 0; i < length; ++i)
            log_debug("0x%x", buffer[i]);
    }
    const auto size = static_cast<size_t>(std::max(length, 0));
    const ssize_t written = on_line([&](int fd) { return write(fd, buffer, size); });
    log_debug("%s: Bytes written = %ld\n", __func__, static_cast<long>(written));
    if (written < 0)
        return report_line_failure("Write to tty device failed\n");
    return 0;
}

void ls_hal_tty_doubt() {
    line_in_doubt = true;
}

void ls_hal_tty_discard_doubtful() {
    if (line_in_doubt.exchange(false))
        on_line([](int fd) { return ssize_t{tcflush(fd, TCIFLUSH)}; });
}

int ls_hal_tty_read(uint8_t *buffer, int32_t *length) {
    if (buffer == nullptr || length == nullptr) {
        log_error("%s: sentence found NULL", __func__);
        return 1;
    }
    std::array<uint8_t, RX_BUFFER_SIZE + 1> answer = {}; // one more: it is logged as a string
    const auto wanted = std::clamp<int32_t>(*length, 0, RX_BUFFER_SIZE);
    const ssize_t count =
        on_line([&](int fd) { return read(fd, answer.data(), static_cast<size_t>(wanted)); });
    log_debug("%s: Bytes read = %ld\n", __func__, static_cast<long>(count));
    *length = static_cast<int32_t>(count);
    if (count < 0)
        return report_line_failure("Error while reading from tty device\n");
    if (count == 0 || count == wanted)
        ls_hal_tty_doubt(); // late, or longer than what was wanted
    if (count == 0) {
        log_error("Read from tty device failed. Device Timeout..\n");
        return 2;
    }
    const auto size = static_cast<size_t>(count);
    if (answer[0] == 0xB5) {
        log_debug("Received data: ");
        for (size_t i = 0; i < size; ++i)
            log_debug("0x%x ", answer[i]);
    } else {
        log_debug("Received buffer = %s\n", reinterpret_cast<const char *>(answer.data()));
        log_debug("2nd last byte = 0x%x, last byte = 0x%x", size > 1 ? answer[size - 2] : 0,
                  answer[size - 1]);
    }
    memcpy(buffer, answer.data(), size);
    return 0;
}
