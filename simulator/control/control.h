// The control socket of a running simulated terminal, and the other end of it.
//
// One connection, one request: a line of words; one answer: "ok" or "refused" on the first line,
// text behind it. The server lives in the event loop; its one thread.
#ifndef SIMULATOR_CONTROL_H
#define SIMULATOR_CONTROL_H

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

struct control_reply {
    bool ok;
    std::string text; // lines, without the first
};

// Does what the words say. Empty = the answer comes later, by control_answer with `client`.
using control_handler =
    std::function<std::optional<control_reply>(const std::vector<std::string> &words, int client)>;

// The event loop that serves the socket: `handler` is called whenever `fd` is readable, until it is
// forgotten.
struct control_loop {
    void (*watch)(int fd, std::function<void()> handler);
    void (*forget)(int fd);
};

// Listens on `path` (a stale socket is replaced: the caller holds the terminal's lock). False:
// `error` says why.
bool control_open(const control_loop &around, const std::string &path, control_handler handler,
                  std::string &error);
void control_close(); // clients still waiting are cut off

// Answers `client` and lets it go. Harmless when it has gone by itself.
void control_answer(int client, const control_reply &reply);

std::vector<std::string> control_words(std::string_view line);

enum class control_result { ok, refused, unreachable };

// Asks the terminal whose socket is `path` and waits for the answer, at most `patience_s`.
// Unreachable: `answer` says why.
control_result control_ask(const std::string &path, const std::vector<std::string> &words,
                           int patience_s, std::string &answer);

} // namespace sim

#endif
