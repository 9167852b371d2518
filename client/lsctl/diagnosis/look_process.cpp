// lsctl: the process that is the location service, and who else is on the bus.
//
// The bus does not say which process a datagram came from, so the process is found by its name and
// by what ties it to this bus: where its descriptors may be seen, one of them is the bus directory;
// where not, its network name space lists the socket. What cannot be told apart is not told.
#include "look.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <sstream>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "ls_clock.h"
#include "ls_descriptor.h"
#include "ls_signals_blocked.h"

namespace diagnosis {
namespace {

constexpr size_t PROC_FILE = 1U << 20;
constexpr const char *DAEMON_NAME = "location_servic"; // the kernel keeps 15 characters
constexpr unsigned SERVICE_IDS = 255;

std::optional<std::string> read_proc(const std::string &path) {
    const ls_descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.fd < 0)
        return std::nullopt;
    std::string text;
    std::array<char, 4096> chunk;
    ssize_t count = 0;
    while (text.size() < PROC_FILE && (count = read(file.fd, chunk.data(), chunk.size())) > 0)
        text.append(chunk.data(), static_cast<size_t>(count));
    return text;
}

std::vector<std::string> names_in(const std::string &directory) {
    const std::unique_ptr<DIR, int (*)(DIR *)> open_one(opendir(directory.c_str()), closedir);
    std::vector<std::string> names;
    while (const dirent *entry = open_one ? readdir(open_one.get()) : nullptr)
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    return names;
}

// The number behind `key` in a file of lines "key:\tnumber".
std::optional<uint64_t> number_behind(const std::string &text, std::string_view key, int base) {
    const size_t at = text.find(key);
    if (at == std::string::npos)
        return std::nullopt;
    const size_t first = text.find_first_not_of(" \t", at + key.size());
    uint64_t value = 0;
    const char *const begin = text.data() + std::min(first, text.size());
    const auto [end, error] = std::from_chars(begin, text.data() + text.size(), value, base);
    return error == std::errc() ? std::optional(value) : std::nullopt;
}

// connect() of a datagram socket sends nothing; a dead owner's socket refuses it. 0 or errno.
int try_connect(const places &where, unsigned id) {
    const ls_descriptor directory(open(where.bus.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const ls_descriptor end(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%u", directory.fd,
                  id);
    if (directory.fd < 0 || end.fd < 0)
        return errno;
    return connect(end.fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0
               ? 0
               : errno;
}

enum class tie : uint8_t { none, possible, certain };

tie tie_to_bus(const std::string &process, const places &where) {
    std::error_code ignored;
    const std::filesystem::path bus = std::filesystem::canonical(where.bus, ignored);
    const std::vector<std::string> descriptors = names_in(process + "/fd");
    for (const std::string &name : descriptors)
        if (std::filesystem::read_symlink(process + "/fd/" + name, ignored) == bus)
            return tie::certain;
    if (!descriptors.empty())
        return tie::none;
    const std::string link = std::filesystem::read_symlink(where.bus + "/8", ignored).string();
    const std::string socket = link.empty()          ? where.bus + "/8"
                               : link.front() == '/' ? link
                                                     : where.bus + "/" + link;
    return read_proc(process + "/net/unix").value_or("").find(" " + socket + "\n") !=
                   std::string::npos
               ? tie::possible
               : tie::none;
}

std::optional<pid_t> find_daemon(const places &where) {
    std::vector<pid_t> possible;
    for (const std::string &name : names_in("/proc")) {
        pid_t pid = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (error != std::errc() || end != name.data() + name.size() ||
            read_proc("/proc/" + name + "/comm") != std::string(DAEMON_NAME) + "\n")
            continue;
        switch (tie_to_bus("/proc/" + name, where)) {
        case tie::certain:
            return pid;
        case tie::possible:
            possible.push_back(pid);
            break;
        case tie::none:
            break;
        }
    }
    return possible.size() == 1 ? std::optional(possible.front()) : std::nullopt;
}

// Field 22 of /proc/PID/stat, in clock ticks since boot; the name before it may hold anything.
std::optional<int64_t> start_of(pid_t pid) {
    const std::string stat = read_proc("/proc/" + std::to_string(pid) + "/stat").value_or("");
    const size_t name_end = stat.rfind(')');
    const auto boot = number_behind(read_proc("/proc/stat").value_or(""), "\nbtime", 10);
    if (name_end == std::string::npos || !boot)
        return std::nullopt;
    std::istringstream fields(stat.substr(name_end + 1));
    std::string skipped;
    for (int field = 3; field < 22; ++field)
        fields >> skipped;
    int64_t ticks = 0;
    if (!(fields >> ticks))
        return std::nullopt;
    return static_cast<int64_t>(*boot) + ticks / sysconf(_SC_CLK_TCK);
}

// The service takes its signals when all else is up.
std::optional<bool> is_ready(pid_t pid) {
    const auto caught = number_behind(
        read_proc("/proc/" + std::to_string(pid) + "/status").value_or(""), "SigCgt:", 16);
    if (!caught)
        return std::nullopt;
    return (*caught >> (SIGTERM - 1) & 1) != 0;
}

} // namespace

bool bus_facts::has(uint8_t id) const {
    return std::find(services.begin(), services.end(), id) != services.end();
}

bus_facts look_at_bus(const places &where) {
    bus_facts bus;
    for (unsigned id = 1; id <= SERVICE_IDS; ++id) {
        const bool is_tool =
            id >= LOCATION_CLIENT_TOOL_ID_FIRST && id <= LOCATION_CLIENT_TOOL_ID_LAST;
        struct stat status {};
        if (stat((where.bus + "/" + std::to_string(id)).c_str(), &status) != 0 ||
            try_connect(where, id) != 0)
            continue;
        if (is_tool)
            ++bus.tools;
        else
            bus.services.push_back(static_cast<uint8_t>(id));
    }
    return bus;
}

process_facts look_at_process(const places &where) {
    process_facts process;
    const int error = try_connect(where, LS_OWN_SERV_ID);
    process.on_bus = error == 0;
    process.may_look = error != EACCES && error != EPERM;
    if (!process.on_bus && process.may_look)
        return process;
    process.pid = find_daemon(where);
    if (process.pid) {
        process.started_utc = start_of(*process.pid);
        process.ready = is_ready(*process.pid);
    }
    return process;
}

namespace {

// How often the receive thread has gone to sleep: once for each message, or more.
std::optional<uint64_t> wake_ups(const std::string &thread) {
    return number_behind(read_proc(thread + "/status").value_or(""),
                         "\nvoluntary_ctxt_switches:", 10);
}

std::string receive_thread(pid_t pid) {
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const std::string &name : names_in(tasks))
        if (read_proc(tasks + "/" + name + "/comm") == "mqutils-8\n")
            return tasks + "/" + name;
    return "";
}

constexpr long SAMPLE_US = 10'000;
// Behind the wake-up for the question itself, which may be several in a row.
constexpr int64_t SETTLED_MS = 40;
// Before the client, who has waited so long, asks for the power mode.
constexpr int64_t WATCHED_MS = 1800;

} // namespace

ta_arrival watch_ta(std::optional<pid_t> pid, const std::function<void()> &ask) {
    const std::string thread = pid ? receive_thread(*pid) : "";
    std::optional<uint64_t> count = thread.empty() ? std::nullopt : wake_ups(thread);
    if (!count) {
        ask();
        return ta_arrival::unknown;
    }
    std::atomic<bool> over{false};
    unsigned arrivals = 0; // the question is the first
    bool watched = false;
    const auto watch = [&] {
        const int64_t start = ls_monotonic_ms();
        int64_t last = start - SETTLED_MS;
        while (!over && ls_monotonic_ms() - start < WATCHED_MS) {
            ls_sleep_us(SAMPLE_US);
            const std::optional<uint64_t> now = wake_ups(thread);
            if (now && now != count) {
                arrivals += ls_monotonic_ms() - last >= SETTLED_MS ? 1 : 0;
                last = ls_monotonic_ms();
                count = now;
            }
        }
        watched = arrivals != 0;
    };
    std::thread watcher;
    {
        const ls_signals_blocked blocked;
        watcher = std::thread(watch);
    }
    ask();
    over = true;
    watcher.join();
    if (!watched)
        return ta_arrival::unknown;
    return arrivals > 1 ? ta_arrival::some : ta_arrival::none;
}

} // namespace diagnosis
