// lsctl watch: position updates until the count, a signal or a closed output ends them.
#include "lsctl_text.h"
#include "lsctl_watch_plan.h"

#include <algorithm>
#include <thread>

#include <CLI/CLI.hpp>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds UNREGISTER_TIMEOUT{2000};
// A cancelled registration may reach the service behind the request to end it.
constexpr milliseconds OVERTAKEN_FOR{600};
constexpr milliseconds OVERTAKEN_RETRY{100};
constexpr uint32_t MAX_INTERVAL_S = 604800; // a week

struct watch_command {
    uint64_t count = 0; // 0 = without end
    uint32_t interval_s = 5;
    bool reconnect = isatty(STDOUT_FILENO) == 1;

    void add_options(CLI::App &app);
    int run(const lsctl_options &options) const;
};

struct watch_totals {
    uint64_t positions = 0;
    uint64_t failures = 0; // updates without a position
    bool output_gone = false;
    bool in_doubt = false;            // a registration was cancelled before its answer
    std::string fix_utc;              // of the last position
    watch_clock::time_point fix_seen; // when the fix of that time came first
};

// How long this fix is known already: a service that could not get a new one sends the last one
// again.
uint32_t age_of(const gps_time_fields &time, watch_totals &totals, watch_clock::time_point now) {
    std::string utc = lsctl_utc(time);
    if (utc.empty() || utc != totals.fix_utc) {
        totals.fix_utc = std::move(utc);
        totals.fix_seen = now;
    }
    return static_cast<uint32_t>(
        std::chrono::duration_cast<seconds>(now - totals.fix_seen).count());
}

std::string interval_problem(const std::string &text) {
    if (!CLI::Range(uint32_t{0}, MAX_INTERVAL_S)(text).empty())
        return "the interval is a number of seconds up to " + std::to_string(MAX_INTERVAL_S);
    return !CLI::Range(LOCATION_CLIENT_MIN_INTERVAL_S, MAX_INTERVAL_S)(text).empty()
               ? "the service takes no interval below " +
                     std::to_string(LOCATION_CLIENT_MIN_INTERVAL_S) + " s"
               : "";
}

location_result status_result(uint32_t status) {
    return status == LS_STATUS_OK               ? LOCATION_ANSWERED
           : status == LS_STATUS_PASSED_THROUGH ? LOCATION_RECEIVER_TIMEOUT
                                                : LOCATION_FAILED;
}

bool print_failure(location_result result, const std::string &text) {
    return lsctl_print_object("error", {{"error", lsctl_result_name(result)}, {"text", text}});
}

// Says why the watch ends; returns the exit status.
int fail(const lsctl_options &options, location_result result, const std::string &text) {
    if (options.json)
        print_failure(result, text);
    lsctl_complain(text);
    return lsctl_exit_of(result);
}

bool show_update(const lsctl_options &options, const ls_position_reply &update, uint32_t age_s) {
    const location_result result = status_result(update.status);
    if (result == LOCATION_ANSWERED && options.json) {
        lsctl_json members = lsctl_position_json(update.pos);
        members["repeated_for_s"] = age_s;
        return lsctl_print_object("position", members);
    }
    if (result == LOCATION_ANSWERED) {
        return lsctl_print(lsctl_position_line(update.pos) +
                           (age_s == 0 ? "" : lsctl_format("  (repeated, %u s old)", age_s)) +
                           "\n");
    }
    const std::string text =
        result == LOCATION_RECEIVER_TIMEOUT
            ? "no position: the receiver did not answer in time"
            : "no position: the receiver has no fix, or its answer was not valid";
    return options.json ? print_failure(result, text) : lsctl_print(text + "\n");
}

uint32_t interval_of(const watch_plan &plan) {
    return static_cast<uint32_t>(plan.interval.count());
}

bool is_tool_id(uint8_t serv_id) {
    return serv_id >= LOCATION_CLIENT_TOOL_ID_FIRST && serv_id <= LOCATION_CLIENT_TOOL_ID_LAST;
}

// The first registration. A tool that was killed leaves its registration behind; whoever gets its
// service id next has to clear it away.
location_result register_first(const lsctl_options &options, location_client *client,
                               const watch_plan &plan, std::string &why) {
    const auto ask = [&] {
        return location_client_register_periodic(client, lsctl_timeout(options), watch_wanted(plan),
                                                 interval_of(plan));
    };
    const location_result result = ask();
    if (result != LOCATION_FAILED)
        return result;
    const uint8_t id = location_client_serv_id(client);
    if (!is_tool_id(id)) {
        why = lsctl_format("the registration was refused: service %u is registered already, or "
                           "three others are",
                           id);
        return result;
    }
    why = "the registration was refused: three other services are registered already";
    if (location_client_unregister_periodic(client, lsctl_timeout(options)) == LOCATION_ANSWERED) {
        lsctl_complain(lsctl_format("replaced a registration left behind as service %u", id));
        // What that registration sent so far is not part of this watch.
        ls_position_reply stale;
        while (location_client_next_update(client, milliseconds(0), &stale) == LOCATION_ANSWERED) {
        }
    }
    // Also when none was left behind: the one that stood in the way may have ended by itself since.
    return ask();
}

// Ends the registration, also when a signal has ended the waits of the client. Further signals, as
// timeout(1) sends two, do not cut this short: it has its own deadline. SIGQUIT ends it.
void unregister(location_client *client, const watch_plan &plan, bool in_doubt) {
    if (plan.owed == 0)
        return;
    lsctl_signals_set_client(nullptr);
    location_client_resume(client);
    const auto until = watch_clock::now() + OVERTAKEN_FOR;
    location_result result = location_client_unregister_periodic(client, UNREGISTER_TIMEOUT);
    while (in_doubt && result == LOCATION_FAILED && watch_clock::now() < until) {
        std::this_thread::sleep_for(OVERTAKEN_RETRY);
        result = location_client_unregister_periodic(client, OVERTAKEN_FOR);
    }
    if (result != LOCATION_ANSWERED && result != LOCATION_FAILED)
        lsctl_complain(std::string("not unregistered: ") + location_client_error_text(result));
}

// Handles one registration attempt; false ends the watch with `status`.
bool try_register(const lsctl_options &options, location_client *client, watch_plan &plan,
                  watch_totals &totals, int &status) {
    std::string why;
    const bool first = plan.phase == watch_phase::starting;
    const milliseconds patience =
        std::min(lsctl_timeout(options), std::chrono::duration_cast<milliseconds>(plan.interval));
    const location_result result =
        first ? register_first(options, client, plan, why)
              : location_client_register_periodic(client, patience, watch_wanted(plan),
                                                  interval_of(plan));
    if (result == LOCATION_CANCELLED) {
        // It may have been taken; unregistering what is not there does no harm.
        plan.owed = std::max(plan.owed, 1U);
        totals.in_doubt = true;
        return true;
    }
    if (why.empty()) {
        why = result == LOCATION_FAILED ? "the service has no free place for this registration"
                                        : lsctl_sentence(options, result, client);
    }
    switch (watch_on_registration(plan, result, watch_clock::now())) {
    case watch_verdict::give_up:
        status = fail(options, result, why);
        return false;
    case watch_verdict::say_again:
        lsctl_complain("registered again");
        break;
    case watch_verdict::say_why:
        lsctl_complain(why + "; watching on");
        break;
    case watch_verdict::go_on:
        break;
    }
    return true;
}

void take_updates(const lsctl_options &options, location_client *client, watch_plan &plan,
                  watch_totals &totals) {
    const auto until_wake = std::chrono::ceil<milliseconds>(watch_wake(plan) - watch_clock::now());
    const milliseconds timeout =
        std::clamp<milliseconds>(until_wake, milliseconds(1), std::chrono::hours(1));
    ls_position_reply update;
    if (location_client_next_update(client, timeout, &update) != LOCATION_ANSWERED)
        return;
    if (watch_on_update(plan, watch_clock::now()))
        lsctl_complain("updates come again");
    const bool placed = update.status == LS_STATUS_OK;
    const uint32_t age_s = placed ? age_of(update.pos.time, totals, watch_clock::now()) : 0;
    ++(placed ? totals.positions : totals.failures);
    totals.output_gone = !show_update(options, update, age_s);
}

int exit_of(const watch_totals &totals) {
    return totals.positions != 0 ? LSCTL_OK : totals.failures != 0 ? LSCTL_FAILED : LSCTL_NO_ANSWER;
}

int watch(const lsctl_options &options, location_client *client, watch_plan &plan,
          watch_totals &totals) {
    int status = LSCTL_OK;
    while (lsctl_signals_last() == 0 && !totals.output_gone) {
        switch (watch_next(plan, watch_clock::now())) {
        case watch_step::finished:
            return exit_of(totals);
        case watch_step::try_register:
            if (!try_register(options, client, plan, totals, status))
                return status;
            break;
        case watch_step::say_silent:
            lsctl_complain(lsctl_format("no update for %u s; watching on", 2 * interval_of(plan)));
            break;
        case watch_step::give_up:
            return fail(options, LOCATION_NO_REPLY,
                        lsctl_format("no update for %u s", 2 * interval_of(plan)));
        case watch_step::wait:
            take_updates(options, client, plan, totals);
            break;
        }
    }
    return exit_of(totals);
}

void watch_command::add_options(CLI::App &app) {
    app.add_option("-n,--count", count, "End after this many updates (default: never)")
        ->option_text("COUNT")
        ->check(CLI::Range(uint64_t{1}, uint64_t{UINT32_MAX}));
    app.add_option("-i,--interval", interval_s, "Time between updates, 4 or more")
        ->option_text("SECONDS [5]")
        ->check(interval_problem);
    app.add_flag("--reconnect,!--no-reconnect", reconnect,
                 "Register again after the service was restarted (default: on a terminal)");
}

int watch_command::run(const lsctl_options &options) const {
    const lsctl_link link(options.as);
    if (link.result != LOCATION_ANSWERED)
        return fail(options, link.result, lsctl_sentence(options, link.result));
    watch_plan plan = watch_start(seconds(interval_s), count, reconnect, watch_clock::now());
    watch_totals totals;
    const int status = watch(options, link.client, plan, totals);
    unregister(link.client, plan, totals.in_doubt);
    const uint32_t lost = location_client_lost_updates(link.client);
    if (lost != 0)
        lsctl_complain(lsctl_format("%u updates were lost", lost));
    return status;
}

} // namespace

lsctl_runner lsctl_watch(CLI::App &app) {
    return lsctl_make<watch_command>(app);
}
