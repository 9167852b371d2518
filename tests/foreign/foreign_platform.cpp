// A platform in the test's hands: bus, settings, log, votes and timers under the names of the three
// libraries. Each message of the test is delivered as it comes, each call is reported. Successes
// are told by odd numbers, errno is never kept, failures leave the result as it is.
//
// Every timer has a thread of its own; rtc_exit forgets them all at once and leaves a running
// callback to itself.
#include "dbhandler.h"
#include "foreign.h"
#include "mqutils.h"
#include "zukhal.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

foreign_state &foreign() {
    static void *memory =
        mmap(nullptr, sizeof(foreign_state), PROT_READ | PROT_WRITE, MAP_SHARED, FOREIGN_MEMORY, 0);
    if (memory == MAP_FAILED || lseek(FOREIGN_MEMORY, 0, SEEK_END) != sizeof(foreign_state)) {
        fputs("The test has another foreign_state\n", stderr);
        std::abort();
    }
    return *static_cast<foreign_state *>(memory);
}

void report(const std::string &line, std::string_view message = {}) {
    const int thread = static_cast<int>(syscall(SYS_gettid));
    std::string event(reinterpret_cast<const char *>(&thread), sizeof(thread));
    event.append(line.c_str(), line.size() + 1).append(message);
    while (send(FOREIGN_SOCKET, event.data(), event.size(), MSG_NOSIGNAL) < 0 && errno == EINTR) {
    }
}

// A call that takes so long; its result is `result`.
int foreign_call(const std::string &function, int result, int ms = 0) {
    report("call " + function);
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    errno = EXDEV;
    return result;
}

[[gnu::noinline]] void stack_up(int frames) {
    std::array<volatile char, 65536 + 20> buffer;
    for (size_t i = 0; i < buffer.size(); i += 256)
        buffer[i] = 1;
    if (frames > 1)
        stack_up(frames - 1);
    buffer[0] = 2; // alive all the while
}

void use_stack() {
    if (foreign().stack_frames > 0)
        stack_up(foreign().stack_frames);
}

// Does at `place` what the test wants done there: signals, and a look at the mask of a new thread.
void be_at(int place) {
    std::thread([place] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        uint64_t bits = 0;
        memcpy(&bits, &mask, sizeof(bits));
        foreign().born_mask[place] = bits;
    }).join();
    if (foreign().own_signals != place)
        return;
    sigset_t own;
    sigemptyset(&own);
    sigaddset(&own, SIGRTMIN + 5);
    pthread_sigmask(SIG_BLOCK, &own, nullptr); // for the threads to come, too
    std::thread([own] {
        while (sigwaitinfo(&own, nullptr) > 0)
            ++foreign().signals_taken;
    }).detach();
    struct sigaction action = {};
    action.sa_handler = [](int) { ++foreign().sigio_taken; };
    sigaction(SIGIO, &action, nullptr);
}

// The bus.

constexpr std::array<unsigned char, 8> registered = {'f', 'o', 'r', 'e', 'i', 'g', 'n', '!'};
std::atomic<bool> ended;
std::atomic<uint32_t> transactions;

// A record that the daemon has freed or never registered cannot be told from a stray pointer.
void check(const scm_conn *conn) {
    if (conn == nullptr || memcmp(conn->library, registered.data(), registered.size()) != 0)
        report("call stray connection");
}

void deliver(scm_conn *conn) {
    std::vector<char> packet(FOREIGN_PACKET_SIZE);
    while (true) {
        const ssize_t size = recv(FOREIGN_SOCKET, packet.data(), packet.size(), 0);
        if (size == -1 && errno == EINTR)
            continue;
        if (size < static_cast<ssize_t>(sizeof(msg_hdr)) || ended)
            return;
        bus_msg message = {};
        memcpy(&message.hdr, packet.data(), sizeof(message.hdr));
        std::vector<char> payload(packet.data() + sizeof(message.hdr), packet.data() + size);
        message.pld = payload.empty() ? nullptr : payload.data();
        foreign_call("on_message " + std::to_string(message.hdr.msg_id), 0);
        conn->on_message(conn, &message);
        report("call on_message returned");
    }
}

int fill(const scm_conn *conn, msg_hdr *hdr, const msg_hdr &wanted) {
    check(conn);
    *hdr = wanted;
    hdr->src_serv_id = 8;
    errno = EXDEV;
    return 9;
}

// The settings.

int read(const char *name, int32_t value, int32_t *out) {
    use_stack();
    *out = value;
    return foreign_call(name, 0);
}

// The timers.

struct timer {
    std::mutex lock;
    std::condition_variable changed;
    bool deleted = false, running = false; // under lock
};

std::mutex timers_lock;
std::map<int, std::shared_ptr<timer>> timers; // under timers_lock
int last_handle = 6;                          // under timers_lock

void run(const std::shared_ptr<timer> &self, uint32_t interval_s, int (*callback)(void *),
         int *timer_id) {
    std::unique_lock guard(self->lock);
    while (!self->changed.wait_for(guard, std::chrono::seconds(interval_s),
                                   [&] { return self->deleted; })) {
        self->running = true;
        guard.unlock();
        foreign_call("timer callback", 0);
        callback(timer_id);
        report("call timer callback returned");
        guard.lock();
        self->running = false;
        self->changed.notify_all();
    }
}

void end(timer &ended_one, bool wait) {
    std::unique_lock guard(ended_one.lock);
    ended_one.deleted = true;
    ended_one.changed.notify_all();
    if (wait)
        ended_one.changed.wait(guard, [&] { return !ended_one.running; });
}

} // namespace

[[gnu::destructor]] static void unload() {
    report("call unload");
}

int scm_conn_init(scm_conn *conn, uint8_t) {
    memcpy(conn->library, registered.data(), registered.size());
    be_at(IN_SCM_CONN_INIT);
    for (int i = 0; i < foreign().callback_threads; ++i)
        std::thread(deliver, conn).detach();
    return foreign_call("scm_conn_init", 3, foreign().init_ms);
}

int scm_conn_exit(scm_conn *conn) {
    check(conn);
    ended = true;
    return foreign_call("scm_conn_exit", 3);
}

int fill_request_hdr(scm_conn *conn, msg_hdr *hdr, uint32_t size, uint32_t id, uint8_t to) {
    return fill(conn, hdr, {0, 0, 0, to, id, ++transactions, size, 0});
}

int fill_notif_hdr(scm_conn *conn, msg_hdr *hdr, uint32_t size, uint32_t id, uint8_t to) {
    return fill(conn, hdr, {2, 0, 0, to, id, ++transactions, size, 0});
}

int fill_response_hdr(scm_conn *conn, msg_hdr *hdr, const bus_msg *req, uint32_t size) {
    return fill(conn, hdr,
                {1, 0, 0, req->hdr.src_serv_id, req->hdr.msg_id, req->hdr.txn_id, size, 0});
}

int send_msg(scm_conn *conn, const msg_hdr *hdr, const void *pld) {
    check(conn);
    use_stack();
    const std::string id = std::to_string(hdr->msg_id);
    report("send " + std::to_string(hdr->msg_type) + " " + id + " to " +
               std::to_string(hdr->dst_serv_id) + " in " + std::to_string(hdr->txn_id),
           std::string(reinterpret_cast<const char *>(hdr), sizeof(*hdr))
               .append(static_cast<const char *>(pld), hdr->pld_len));
    std::this_thread::sleep_for(std::chrono::milliseconds(foreign().send_ms));
    check(conn); // all of this is the library's until it returns
    return foreign_call("send_msg returns " + id, ended ? -1 : 5);
}

int db_read_gps_power_on_status(int32_t *status) {
    return read("db_read_gps_power_on_status", 2, status);
}

int db_read_ta_power_on_status(int32_t *status) {
    return read("db_read_ta_power_on_status", 4, status);
}

int db_set_gps_power_on_status(int32_t) {
    use_stack();
    return foreign_call("db_set_gps_power_on_status", 0, foreign().store_ms);
}

int db_read_location_history_settings(location_history_settings *settings) {
    int32_t status = 0;
    const int result = read("db_read_location_history_settings", foreign().history, &status);
    *settings = {static_cast<uint8_t>(status), 1};
    return result;
}

void zuk_log_tmplt(int level, const char *format, const char *, int line, ...) {
    const int error = errno;
    use_stack();
    std::array<char, 1024> text = {};
    va_list arguments;
    va_start(arguments, line);
    errno = error;
    vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    report("log " + std::to_string(level) + " " + text.data());
    errno = EXDEV;
}

int get_zuk_type() {
    return foreign().board;
}

int rtc_init_timers() {
    be_at(IN_RTC_INIT_TIMERS);
    return foreign_call("rtc_init_timers", 0);
}

int rtc_reinit() {
    return foreign_call("rtc_reinit", 4, foreign().reinit_ms);
}

int rtc_exit() {
    const std::lock_guard guard(timers_lock);
    for (const auto &[handle, ended_one] : timers)
        end(*ended_one, false);
    timers.clear();
    return 4;
}

int rtc_start_timer(uint32_t interval_s, int (*callback)(void *), int *timer_id) {
    const std::lock_guard guard(timers_lock);
    const auto self = std::make_shared<timer>();
    timers[++last_handle] = self;
    std::thread(run, self, interval_s, callback, timer_id).detach();
    return foreign_call("rtc_start_timer", last_handle);
}

int rtc_del_timer(int handle) {
    foreign_call("rtc_del_timer", 0, foreign().deletion_ms);
    std::unique_lock guard(timers_lock);
    const auto found = timers.find(handle);
    if (found == timers.end())
        return 0;
    const std::shared_ptr<timer> ended_one = found->second;
    timers.erase(found);
    guard.unlock();
    end(*ended_one, foreign().deletion_waits != 0);
    return foreign_call("rtc_del_timer returns", 0);
}

int pm_system_state_enable(int) {
    return foreign_call("pm_system_state_enable", 1);
}

int pm_system_state_disable(int) {
    return foreign_call("pm_system_state_disable", 17);
}
