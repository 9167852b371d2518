// lsctl wait: for boot scripts, until the service answers or has a fix.
//
// Until the service is ready nothing is sent to it: a question in its start-up would be held up,
// and would hold the start up. Then it is asked, once a second.
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <optional>
#include <thread>

#include <CLI/CLI.hpp>

#include "look.h"
#include "lsctl_text.h"

namespace {

using std::chrono::milliseconds;
using steady = std::chrono::steady_clock;

constexpr milliseconds LOOK_AGAIN{50};
constexpr milliseconds ASK_AGAIN{1000};
// Of a service whose process this user may not see: a start with a receiver takes less.
constexpr milliseconds STARTUP{4000};
constexpr milliseconds SLICE{20}; // how soon a signal is noticed

struct wait_command {
    std::string what = "service";

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;
};

// "accuracy=M" in metres, none for anything else.
std::optional<double> accuracy_in(const std::string &text) {
    constexpr std::string_view prefix = "accuracy=";
    double metres = 0;
    if (!text.starts_with(prefix))
        return std::nullopt;
    const char *const first = text.data() + prefix.size();
    const auto [end, error] = std::from_chars(first, text.data() + text.size(), metres);
    return error == std::errc() && end == text.data() + text.size() && metres > 0
               ? std::optional(metres)
               : std::nullopt;
}

void wait_command::add_options(CLI::App &app) {
    app.add_option("--for", what, "Until the service answers, or clients get a fix, or a good one")
        ->option_text("service, fix or accuracy=METRES [service]")
        ->check([](const std::string &text) {
            return text == "service" || text == "fix" || accuracy_in(text)
                       ? std::string()
                       : "'" + text + "' is none of service, fix, accuracy=METRES";
        });
}

// Until `until`, or a signal. False: a signal.
bool pause_until(steady::time_point until) {
    while (lsctl_signals_last() == 0 && steady::now() < until)
        std::this_thread::sleep_for(std::min<steady::duration>(SLICE, until - steady::now()));
    return lsctl_signals_last() == 0;
}

enum class state : uint8_t { no_service, starting, asked };

struct progress {
    state seen = state::no_service;
    location_result result = LOCATION_NO_DAEMON; // of the last question
    gps_pos_data position{};
};

// Whether the service's start-up is over, by all that is to be seen.
bool is_ready(const diagnosis::process_facts &process, std::optional<steady::time_point> &first) {
    if (!process.on_bus && process.may_look) {
        first.reset();
        return false;
    }
    if (process.ready)
        return *process.ready;
    if (!first)
        first = steady::now();
    return steady::now() - *first >= STARTUP;
}

// One question; true when it is what is waited for.
bool ask(const lsctl_options &options, const std::string &what, steady::time_point deadline,
         progress &so_far) {
    so_far.seen = state::asked;
    const lsctl_link link(options.as);
    so_far.result = link.result;
    if (link.result != LOCATION_ANSWERED)
        return false;
    const auto left = std::max(milliseconds(1),
                               std::chrono::duration_cast<milliseconds>(deadline - steady::now()));
    uint32_t mode = 0;
    if (what == "service") {
        so_far.result = location_client_get_power(link.client, left, &mode);
        return so_far.result == LOCATION_ANSWERED;
    }
    so_far.result = location_client_get_position(link.client, left, &so_far.position);
    if (so_far.result != LOCATION_ANSWERED)
        return false;
    constexpr uint32_t no_fix = 2;
    const std::optional<double> accuracy = accuracy_in(what);
    return so_far.position.fix_type != no_fix &&
           (!accuracy || double{so_far.position.horizontal_accuracy} <= *accuracy);
}

int timed_out(const lsctl_options &options, const std::string &what, const progress &last) {
    const bool answers = last.seen == state::asked && lsctl_exit_of(last.result) <= LSCTL_FAILED;
    std::string why = "the location service is not running";
    if (last.seen == state::starting)
        why = "the location service is still starting";
    else if (last.seen == state::asked && last.result != LOCATION_ANSWERED)
        why = location_client_error_text(last.result);
    else if (last.seen == state::asked)
        why = lsctl_format("the fix is not good enough (+-%.1f m)",
                           double{last.position.horizontal_accuracy});
    const std::string sentence =
        lsctl_format("not within %g s (%s): %s", options.timeout_s, what.c_str(), why.c_str());
    return lsctl_fail_as(options, "timed_out", answers ? LSCTL_FAILED : LSCTL_NO_ANSWER, sentence);
}

int wait_command::run(const lsctl_options &options) const {
    const auto start = steady::now();
    const auto deadline = start + lsctl_timeout(options);
    progress so_far;
    std::optional<steady::time_point> first_seen;
    do {
        const auto looked = steady::now();
        milliseconds pause = LOOK_AGAIN;
        const diagnosis::process_facts process =
            diagnosis::look_at_process(diagnosis::find_places());
        if (!process.on_bus && process.may_look) {
            so_far.seen = state::no_service;
        } else if (!is_ready(process, first_seen)) {
            so_far.seen = state::starting;
        } else {
            if (ask(options, what, deadline, so_far)) {
                const std::chrono::duration<double, std::milli> took = steady::now() - start;
                const double waited = std::round(took.count()) / 1000;
                return lsctl_show(options, {{"waited_for", what}, {"waited_s", waited}},
                                  lsctl_format("%s after %.1f s\n", what.c_str(), waited));
            }
            pause = ASK_AGAIN;
        }
        if (!pause_until(std::min(deadline, looked + pause)))
            return lsctl_exit_of(LOCATION_CANCELLED);
    } while (steady::now() < deadline);
    return timed_out(options, what, so_far);
}

} // namespace

lsctl_runner lsctl_wait(CLI::App &app) {
    return lsctl_make<wait_command>(app);
}
