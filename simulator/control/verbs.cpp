#include "verbs.h"

#include "services.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <string_view>

namespace sim {
namespace {

// Thread of the loop.
verb_targets target{};
daemon_wish wish = daemon_wish::none;
int wishing_client = -1; // waits for what it wished

using words_of = const std::vector<std::string> &;
using answer = std::optional<control_reply>;

answer done_if(bool ok, const std::string &error) {
    return control_reply{ok, ok ? "" : error + "\n"};
}

bool whole_number(std::string_view text, uint32_t highest, uint32_t &number) {
    const auto [end, wrong] = std::from_chars(text.data(), text.data() + text.size(), number);
    return wrong == std::errc{} && end == text.data() + text.size() && number <= highest;
}

answer on_status(words_of, int) {
    return control_reply{true, target.status()};
}

answer on_faults(words_of, int) {
    return control_reply{true, target.faults()};
}

answer on_fault(words_of words, int) {
    const bool on = words.back() == "on";
    if (words.size() < 3 || words.size() > 4 || (!on && words.back() != "off"))
        return control_reply{false, "usage: fault NAME [ARG] on|off\n"};
    std::string error;
    const bool ok = target.fault(words[1], words.size() == 4 ? words[2] : std::string(), on, error);
    return done_if(ok, error);
}

answer on_power(words_of, int) {
    return control_reply{true, target.power()};
}

answer wish_for(daemon_wish what, int client) {
    if (!target.have_daemon())
        return control_reply{false, "no daemon was started with --daemon\n"};
    if (wish != daemon_wish::none)
        return control_reply{false, "another change of the daemon is under way\n"};
    if (what != daemon_wish::restart && target.daemon_running() != (what == daemon_wish::kill)) {
        return control_reply{false, what == daemon_wish::kill ? "the daemon is not running\n"
                                                              : "the daemon is running\n"};
    }
    wish = what;
    wishing_client = client;
    return std::nullopt;
}

answer on_restart(words_of, int client) {
    return wish_for(daemon_wish::restart, client);
}

answer on_kill(words_of, int client) {
    return wish_for(daemon_wish::kill, client);
}

answer on_start(words_of, int client) {
    return wish_for(daemon_wish::start, client);
}

answer on_antenna(words_of words, int) {
    uint32_t type = 0;
    std::string error;
    if (!whole_number(words[1], UINT32_MAX, type))
        return control_reply{false, "antenna: the type must be a whole number\n"};
    const bool ok = services_announce_antenna(type, error);
    return done_if(ok, error);
}

answer on_cfun(words_of words, int) {
    uint32_t level = 0;
    std::string error;
    if (!whole_number(words[1], UINT8_MAX, level))
        return control_reply{false, "cfun: the level must be a number from 0 to 255\n"};
    const bool ok = services_notify_cfun(static_cast<uint8_t>(level), error);
    return done_if(ok, error);
}

answer on_sal(words_of words, int) {
    if (words[1] != "request-location")
        return control_reply{false, "usage: sal request-location\n"};
    std::string error;
    const bool ok = services_request_location(error);
    return done_if(ok, error);
}

answer on_ws(words_of words, int) {
    if (words[1] != "history-update")
        return control_reply{false, "usage: ws history-update\n"};
    std::string error;
    const bool ok = services_notify_history(error);
    return done_if(ok, error);
}

answer on_help(words_of words, int client);

struct verb {
    const char *name;
    size_t words; // with the verb itself; 0 = the handler looks
    const char *usage;
    const char *meaning;
    answer (*act)(words_of words, int client);
};

constexpr std::array<verb, 12> VERBS{{
    {"status", 1, "status", "everything in a few lines", on_status},
    {"faults", 1, "faults", "every fault and its state", on_faults},
    {"fault", 0, "fault NAME [ARG] on|off", "switch a fault", on_fault},
    {"power", 1, "power", "the receiver's power lines", on_power},
    {"restart-daemon", 1, "restart-daemon", "stop the daemon and start it again", on_restart},
    {"kill-daemon", 1, "kill-daemon", "kill the daemon (SIGKILL); the terminal stays", on_kill},
    {"start-daemon", 1, "start-daemon", "start the daemon that was killed or has died", on_start},
    {"antenna", 2, "antenna TYPE", "the TA announces this antenna type (1418)", on_antenna},
    {"cfun", 2, "cfun LEVEL", "the modem announces this cfun level (201)", on_cfun},
    {"sal", 2, "sal request-location", "SAL asks for the LPP parameters (208)", on_sal},
    {"ws", 2, "ws history-update", "WS says that the history settings changed (808)", on_ws},
    {"help", 1, "help", "this list", on_help},
}};

answer on_help(words_of, int) {
    std::string text;
    for (const verb &entry : VERBS) {
        std::string usage = entry.usage;
        usage.resize(26, ' ');
        text += usage + entry.meaning + "\n";
    }
    return control_reply{true, text};
}

} // namespace

void verbs_use(const verb_targets &terminal) {
    target = terminal;
}

answer verbs_handle(words_of words, int client) {
    for (const verb &entry : VERBS) {
        if (!words.empty() && words.front() == entry.name) {
            if (entry.words != 0 && entry.words != words.size())
                return control_reply{false, std::string("usage: ") + entry.usage + "\n"};
            return entry.act(words, client);
        }
    }
    return control_reply{false, "unknown request; \"help\" lists them\n"};
}

daemon_wish verbs_daemon_wish() {
    return wish;
}

void verbs_daemon_done(bool ok, const std::string &error) {
    control_answer(wishing_client, {ok, ok ? "" : error + "\n"});
    wish = daemon_wish::none;
    wishing_client = -1;
}

} // namespace sim
