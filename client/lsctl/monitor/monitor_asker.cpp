// lsctl monitor: the asker.
#include "monitor_asker.h"

#include <array>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include <sys/stat.h>

#include "ls_signals_blocked.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

std::mutex monitor_lock;
std::condition_variable stop_said;
bool stop_wanted = false; // guarded by monitor_lock
monitor_model model;      // guarded by monitor_lock

// Written before the thread starts.
std::thread thread;
const lsctl_options *options_g = nullptr;
location_client *client_g = nullptr;

constexpr milliseconds BETWEEN_QUESTIONS{1000};
// A service configures its receiver in one or two seconds, and makes questions wait for three.
constexpr std::chrono::seconds START_UP{4};

// The service as last seen: it makes its socket when it comes to the bus. Thread of the asker.
struct service_seen {
    ino_t socket;
    timespec made;
    monitor_time since; // this one was first seen then
};
std::optional<service_seen> service;

// False: the thread is to end.
bool pause_until(monitor_time when) {
    std::unique_lock held(monitor_lock);
    return !stop_said.wait_until(held, when, [] { return stop_wanted; });
}

template <class change_fn>
void change(change_fn how) {
    const std::lock_guard guard(monitor_lock);
    how(model, steady_clock::now());
}

// Looks whether it is another one than before, or the first.
void look_at_service(monitor_time now) {
    const char *bus = std::getenv("MQUTILS_DIR");
    const std::string path =
        std::string(bus != nullptr && *bus != '\0' ? bus : "/run/terminal-bus") + "/8";
    struct stat made {};
    stat(path.c_str(), &made);
    if (!service || service->socket != made.st_ino || service->made.tv_sec != made.st_mtim.tv_sec ||
        service->made.tv_nsec != made.st_mtim.tv_nsec)
        service = {made.st_ino, made.st_mtim, now};
}

// The system's clock may have been set since the socket was made: one from the future is not
// believed.
bool may_be_starting(monitor_time now) {
    const auto made = system_clock::from_time_t(service->made.tv_sec);
    return now - service->since < START_UP && system_clock::now() - made < START_UP;
}

// A service that is slow, or waits for the TA, is there.
bool is_absence(location_result result) {
    return result != LOCATION_ANSWERED && result != LOCATION_FAILED &&
           result != LOCATION_GATE_CLOSED && result != LOCATION_RECEIVER_TIMEOUT &&
           result != LOCATION_NO_REPLY && result != LOCATION_BUS_FULL;
}

// True: the receiver can be asked.
bool ask_power() {
    uint32_t mode = 0;
    const location_result result =
        location_client_get_power(client_g, lsctl_timeout(*options_g), &mode);
    const std::string text = lsctl_sentence(*options_g, result, client_g);
    if (is_absence(result)) {
        service.reset();
        change([&](monitor_model &m, monitor_time now) { monitor_on_absent(m, text, now); });
        return false;
    }
    look_at_service(steady_clock::now());
    bool ready = false;
    change([&](monitor_model &m, monitor_time now) {
        if (result != LOCATION_ANSWERED) {
            m.service = monitor_service::present;
            monitor_on_no_position(m, text, now);
            return;
        }
        const bool starting = may_be_starting(now);
        monitor_on_power(m, mode, starting);
        ready = mode == GPS_POWER_ON && !starting;
    });
    return ready;
}

// A position is shown at once; what its absence means is left to the caller.
location_result ask_position() {
    gps_pos_data position{};
    const location_result result =
        location_client_get_position(client_g, lsctl_timeout(*options_g), &position);
    if (result == LOCATION_ANSWERED)
        change([&](monitor_model &m, monitor_time now) { monitor_on_position(m, position, now); });
    return result;
}

// Asks by pass-through; what to do with a good answer is `take`.
template <class take_fn>
void ask_receiver(std::string_view body, std::string_view wanted, take_fn take) {
    lsctl_heard heard;
    const location_result result =
        lsctl_ask_receiver(client_g, lsctl_timeout(*options_g), body, wanted, heard);
    const std::string text = lsctl_sentence(*options_g, result, client_g);
    // A sky of several sentences is cut on a line in order, and has a good one on a bad line.
    const bool tells_of_line = body != LSCTL_ASK_GSV;
    change([&](monitor_model &m, monitor_time now) {
        if (result != LOCATION_ANSWERED) {
            monitor_on_error(m, text, now);
            return;
        }
        if (tells_of_line)
            monitor_on_verdict(m, heard.verdict, now);
        if (heard.verdict == lsctl_verdict::good)
            take(m, heard.sentences, now);
    });
}

using sentences_of = const std::vector<lsctl_fields> &;

void ask_motion() {
    ask_receiver(
        LSCTL_ASK_VTG, "VTG",
        [](monitor_model &m, sentences_of told, monitor_time now) {
            monitor_on_motion(m, lsctl_motion_of(told.front()), now);
        });
}

void ask_sky() {
    ask_receiver(
        LSCTL_ASK_GSV, "GSV",
        [](monitor_model &m, sentences_of told, monitor_time now) {
            monitor_on_sky(m, lsctl_sky_of(told), now);
        });
}

// A full sky does not fit into the answer that the service makes the record of: the marks then come
// from the receiver's own sentence, in the place of the record's next turn.
bool record_fits = true; // thread of the asker

void ask_satellites() {
    if (!record_fits) {
        record_fits = true;
        ask_receiver("GPGPQ,GSA", "GSA", [](monitor_model &m, sentences_of told, monitor_time) {
            monitor_on_used(m, told);
        });
        return;
    }
    gps_sat_info info{};
    record_fits = location_client_get_satellites(client_g, lsctl_timeout(*options_g), &info) ==
                  LOCATION_ANSWERED;
    if (record_fits)
        change([&](monitor_model &m, monitor_time now) { monitor_on_satellites(m, info, now); });
}

void ask_clock() {
    const auto before = system_clock::now();
    ask_receiver("PUBX,04", "PUBX,04",
                 [before](monitor_model &m, sentences_of told, monitor_time now) {
                     const auto middle = before + (system_clock::now() - before) / 2;
                     const double system_s =
                         std::chrono::duration<double>(middle.time_since_epoch()).count();
                     if (const auto ahead = monitor_clock_ahead(told.front(), system_s))
                         monitor_on_clock(m, *ahead, now);
                 });
}

// One a round, in turn.
constexpr std::array TURNS = {ask_motion, ask_satellites, ask_motion, ask_sky,
                              ask_motion, ask_satellites, ask_motion, ask_clock};

// The two questions of a round. False: the thread is to end.
bool ask_round(size_t &turn, bool &failing) {
    const location_result position = ask_position();
    if (!pause_until(steady_clock::now() + BETWEEN_QUESTIONS))
        return false;
    look_at_service(steady_clock::now());
    if (may_be_starting(steady_clock::now()))
        return true;
    // Why there is no position is seen in what the receiver itself says, which comes first then.
    const bool fails = position != LOCATION_ANSWERED;
    if (fails && !failing)
        ask_motion();
    else
        TURNS.at(turn++ % TURNS.size())();
    failing = fails;
    if (fails) {
        const std::string text = lsctl_sentence(*options_g, position, client_g);
        change([&](monitor_model &m, monitor_time now) {
            if (position == LOCATION_RECEIVER_TIMEOUT)
                m.verdict = lsctl_verdict::nothing;
            monitor_on_no_position(m, text, now);
        });
    }
    return true;
}

void ask_on() {
    size_t turn = 0;
    bool failing = false;
    monitor_time round = steady_clock::now();
    do {
        if (ask_power() && !ask_round(turn, failing))
            return;
        // A round that took longer is followed by a whole pause, not by its own.
        round = std::max(round + MONITOR_ROUND, steady_clock::now() + BETWEEN_QUESTIONS);
    } while (pause_until(round));
}

} // namespace

void monitor_asker_start(const lsctl_options &options, location_client *client) {
    options_g = &options;
    client_g = client;
    {
        const std::lock_guard guard(monitor_lock);
        stop_wanted = false;
        model = {};
    }
    service.reset();
    const ls_signals_blocked blocked;
    thread = std::thread(ask_on);
}

void monitor_asker_stop() {
    {
        const std::lock_guard guard(monitor_lock);
        stop_wanted = true;
    }
    stop_said.notify_all();
    location_client_cancel(client_g);
    if (thread.joinable())
        thread.join();
}

monitor_model monitor_asker_model(monitor_time now) {
    const std::lock_guard guard(monitor_lock);
    monitor_tick(model, now);
    return model;
}
