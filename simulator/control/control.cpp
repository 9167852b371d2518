#include "control.h"

#include "ls_descriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <sstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace sim {
namespace {

// The server; the one thread of the loop owns it.
control_loop loop{};
int listener = -1;
std::string listener_path;
control_handler handle;
std::map<int, std::string> clients; // what each has sent so far

constexpr size_t MOST_CLIENTS = 16;
constexpr size_t LONGEST_REQUEST = 4096;

// A socket address holds 107 characters; a terminal's directory may be deeper. The way through a
// descriptor of the directory is always short.
struct short_path {
    ls_descriptor directory;
    sockaddr_un address{};

    explicit short_path(const std::filesystem::path &whole)
        : directory(open(whole.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "/proc/self/fd/%d/%s",
                      directory.fd, whole.filename().c_str());
    }

    const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&address); }
};

void drop(int client) {
    if (clients.erase(client) != 0) {
        loop.forget(client);
        ls_close(client);
    }
}

void on_request(int client) {
    const auto found = clients.find(client);
    if (found == clients.end())
        return;
    std::array<char, 1024> part;
    const ssize_t count = recv(client, part.data(), part.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count <= 0) {
        drop(client);
        return;
    }
    std::string &text = found->second;
    text.append(part.data(), static_cast<size_t>(count));
    const size_t end = text.find('\n');
    if (end == std::string::npos) {
        if (text.size() > LONGEST_REQUEST)
            drop(client);
        return;
    }
    const std::vector<std::string> words = control_words(std::string_view(text).substr(0, end));
    text.clear();
    if (const std::optional<control_reply> reply = handle(words, client); reply.has_value())
        control_answer(client, *reply);
}

void on_connection() {
    ls_descriptor accepted(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (accepted.fd < 0 || clients.size() >= MOST_CLIENTS)
        return;
    const int client = accepted.release();
    clients[client];
    loop.watch(client, [client] { on_request(client); });
}

control_result unreachable(std::string &answer, const std::string &step) {
    answer = step + ": " + std::strerror(errno);
    return control_result::unreachable;
}

} // namespace

std::vector<std::string> control_words(std::string_view line) {
    std::istringstream stream{std::string(line)};
    std::vector<std::string> words;
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

bool control_open(const control_loop &around, const std::string &path, control_handler handler,
                  std::string &error) {
    loop = around;
    const short_path address(path);
    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    unlink(path.c_str());
    if (listener < 0 || bind(listener, address.get(), sizeof address.address) != 0 ||
        listen(listener, 8) != 0) {
        error = "listening on " + path + ": " + std::strerror(errno);
        control_close();
        return false;
    }
    listener_path = path;
    handle = std::move(handler);
    loop.watch(listener, on_connection);
    return true;
}

void control_close() {
    while (!clients.empty())
        drop(clients.begin()->first);
    if (listener >= 0) {
        loop.forget(listener);
        ls_close(listener);
    }
    if (!listener_path.empty()) {
        unlink(listener_path.c_str());
        listener_path.clear();
    }
    handle = nullptr;
}

void control_answer(int client, const control_reply &reply) {
    if (clients.find(client) == clients.end())
        return;
    const std::string text = (reply.ok ? "ok\n" : "refused\n") + reply.text;
    // One that does not read what it asked for gets what fits its buffer.
    send(client, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    drop(client);
}

control_result control_ask(const std::string &path, const std::vector<std::string> &words,
                           int patience_s, std::string &answer) {
    const short_path address(path);
    const ls_descriptor asking(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int fd = asking.fd;
    if (fd < 0)
        return unreachable(answer, "creating a socket");
    const timeval patience{patience_s, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    std::string request;
    for (const std::string &word : words)
        request += word + " ";
    request += "\n";
    control_result result = control_result::ok;
    if (connect(fd, address.get(), sizeof address.address) != 0) {
        result = unreachable(answer, "no simulated terminal at " + path);
    } else if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) !=
               static_cast<ssize_t>(request.size())) {
        result = unreachable(answer, "asking");
    } else {
        std::string text;
        std::array<char, 4096> part;
        ssize_t count = 0;
        while ((count = recv(fd, part.data(), part.size(), 0)) > 0)
            text.append(part.data(), static_cast<size_t>(count));
        const size_t end = text.find('\n');
        const std::string verdict = text.substr(0, end);
        if (count < 0) {
            result = unreachable(answer, "waiting for the answer");
        } else if (verdict != "ok" && verdict != "refused") {
            answer = "the terminal went away without an answer";
            result = control_result::unreachable;
        } else {
            answer = text.substr(end + 1);
            result = verdict == "ok" ? control_result::ok : control_result::refused;
        }
    }
    return result;
}

} // namespace sim
