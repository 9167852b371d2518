#include "system_fixture.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr size_t SHOWN_LOG_BYTES = 4000;
std::atomic<int> children_started; // numbers their output files

} // namespace

bool wait_until(const std::function<bool()> &done, milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

size_t count_of(std::string_view what, std::string_view text) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string_view::npos; ++at)
        ++count;
    return count;
}

background::background(const words &command, const std::string &where) {
    files = std::filesystem::absolute("child-" + std::to_string(++children_started));
    constexpr int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
    const int out = open((files + ".out").c_str(), flags, 0644);
    const int err = open((files + ".err").c_str(), flags, 0644);
    std::vector<char *> arguments;
    for (const std::string &word : command)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const pid_t parent = getpid();
    pid = fork();
    if (pid == 0) { // nothing that takes a lock
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (getppid() == parent && chdir(where.c_str()) == 0 && dup2(in, STDIN_FILENO) >= 0 &&
            dup2(out, STDOUT_FILENO) >= 0 && dup2(err, STDERR_FILENO) >= 0)
            execv(arguments[0], arguments.data());
        _exit(127);
    }
    close(out);
    close(err);
    if (pid < 0)
        ADD_FAILURE() << "fork: " << std::strerror(errno);
}

background::~background() {
    if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

process_result background::wait(milliseconds limit) {
    int status = 0, ended = -1;
    if (pid > 0 && wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }, limit)) {
        ended = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    } else if (pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    pid = -1;
    return {ended, out(), err()};
}

process_result run(const words &command) {
    return background(command).wait();
}

process_result lsctl(words arguments) {
    arguments.insert(arguments.begin(), LSCTL_PROGRAM);
    return run(arguments);
}

bool handles_signals(pid_t pid) {
#ifdef LS_EMULATED
    // The emulator itself catches every signal that would end the program: of those that the daemon
    // handles, all but this one, its first.
    const int witness = SIGTSTP;
#else
    const int witness = SIGRTMIN + 1; // its last
#endif
    const std::string status = scratch_dir::read("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("SigCgt:");
    return at != std::string::npos &&
           (std::stoull(status.substr(at + 7), nullptr, 16) >> (witness - 1) & 1) != 0;
}

terminal::terminal(const words &options, bool stand_ins)
    : root(std::filesystem::current_path() / "t") {
    setenv("MQUTILS_DIR", (root / "bus").c_str(), 1);
#ifdef LS_SANITIZED
    // Under a sanitizer lsctl does not look for what it loads by name where the program does.
    setenv("LD_LIBRARY_PATH", DBHANDLER_ADMIN_DIR, 1);
#endif
    words command = {SIMTERM_PROGRAM, "run",          root.string(),
                     "--daemon",      DAEMON_PROGRAM, "--instant-fix"};
    if (std::find(options.begin(), options.end(), "--baud") == options.end())
        command.insert(command.end(), {"--baud", "0"});
    if (!stand_ins)
        command.emplace_back("--no-services");
    command.insert(command.end(), options.begin(), options.end());
    simterm.emplace(command);
    wait_until_up();
}

void terminal::wait_until_up() {
    const auto up = [&] { return handles_signals(daemon()); };
    if (!wait_until([&] { return up() || simterm->err().find("simterm:") == 0; }) || !up())
        ADD_FAILURE() << "the daemon is not up\n" << simterm->out() << simterm->err();
}

terminal::~terminal() {
    if (!testing::Test::HasFailure())
        return;
    const std::string all = log();
    std::cerr << simterm->out() << simterm->err() << file("log/daemon.out")
              << all.substr(all.size() - std::min(all.size(), SHOWN_LOG_BYTES));
}

pid_t terminal::daemon() const {
    constexpr std::string_view before = "daemon started, process ";
    const std::string text = simterm->out();
    const size_t at = text.rfind(before);
    return at == std::string::npos ? -1 : std::stoi(text.substr(at + before.size()));
}

std::string terminal::daemon_end() {
    const process_result ended = simterm->wait();
    const std::string text = ended.out + ended.err;
    for (const std::string_view before : {"the daemon died: ", "daemon stopped: "}) {
        const size_t at = text.find(before);
        if (at != std::string::npos)
            return text.substr(at + before.size(), text.find('\n', at) - at - before.size());
    }
    return "unknown: " + text;
}

void terminal::ctl(words request) {
    request.insert(request.begin(), {SIMTERM_PROGRAM, "ctl", root.string()});
    const process_result answer = background(request).wait(2 * PATIENCE);
    EXPECT_EQ(answer.status, 0) << answer.err;
}

void terminal::write_static_location(bool on, const std::string &place) const {
    scratch_dir::write(root / "user/stub_location/stub_loc.gps",
                       (on ? "STATIC_LOCATION = ON\n" : "STATIC_LOCATION = OF\n") + place + "\n");
}

int terminal::stop() {
    simterm->signal(SIGTERM);
    const process_result ended = simterm->wait();
    if (ended.status != 0)
        std::cerr << ended.err;
    return ended.status;
}

void terminal::restart_daemon() {
    ctl({"restart-daemon"});
    wait_until_up();
}

bus_client::bus_client(uint8_t serv_id) {
    link.conn.on_message = on_message;
    link.owner = this;
    if (scm_conn_init(&link.conn, serv_id) != 0)
        ADD_FAILURE() << "service " << int{serv_id} << ": " << std::strerror(errno);
}

bus_client::~bus_client() {
    scm_conn_exit(&link.conn);
}

int bus_client::on_message(scm_conn *conn, bus_msg *msg) {
    bus_client &self = *reinterpret_cast<connection *>(conn)->owner;
    const auto *payload = static_cast<const uint8_t *>(msg->pld);
    const std::lock_guard guard(self.lock);
    self.inbox.push_back({msg->hdr, bytes(payload, payload + msg->hdr.pld_len)});
    self.arrived.notify_all();
    return 0;
}

uint32_t bus_client::send(uint32_t msg_id, std::span<const uint8_t> payload, uint8_t msg_type) {
    msg_hdr hdr = {};
    if (fill_request_hdr(&link.conn, &hdr, static_cast<uint32_t>(payload.size()), msg_id,
                         LS_OWN_SERV_ID) != 0)
        return 0;
    hdr.msg_type = msg_type;
    return send_msg(&link.conn, &hdr, payload.data()) == 0 ? hdr.txn_id : 0;
}

std::optional<bus_message> bus_client::take(const std::function<bool(const bus_message &)> &wanted,
                                            milliseconds limit) {
    std::unique_lock guard(lock);
    auto found = inbox.end();
    const bool there = arrived.wait_for(guard, limit, [&] {
        found = std::find_if(inbox.begin(), inbox.end(), wanted);
        return found != inbox.end();
    });
    if (!there)
        return std::nullopt;
    bus_message message = std::move(*found);
    inbox.erase(found);
    return message;
}

std::optional<bus_message> bus_client::take(uint32_t msg_id, milliseconds limit) {
    return take([&](const bus_message &message) { return message.hdr.msg_id == msg_id; }, limit);
}

std::optional<bus_message> bus_client::ask(uint32_t msg_id, std::span<const uint8_t> payload) {
    const uint32_t txn = send(msg_id, payload);
    if (txn == 0)
        return std::nullopt;
    return take([&](const bus_message &message) {
        return message.hdr.msg_type == LS_MSG_RESPONSE && message.hdr.msg_id == msg_id &&
               message.hdr.txn_id == txn;
    });
}
