// lsctl watch: when to register, when to worry. Pure: the time comes from the caller.
//
// The service counts a registration down and drops it at zero. A watch without end asks for about
// one hour at a time, so that the registration of a killed watch does not hold one of the service's
// three places for long, and registers again one interval after the last update of each.
//
// A restarted service has forgotten the registration. The only question that tells is another
// registration: it is refused while the first one stands. It is asked when an update is late, once
// per interval, and every second while nobody owns the service's id.
#ifndef LSCTL_WATCH_PLAN_H
#define LSCTL_WATCH_PLAN_H

#include <chrono>
#include <cstdint>

#include "location_client.hpp"

using watch_clock = std::chrono::steady_clock;

enum class watch_phase : uint8_t {
    starting, // never registered
    running,
    renewing, // the registration ran out as planned
};

struct watch_plan {
    std::chrono::seconds interval{0};
    uint64_t remaining = 0; // updates still wanted; 0 with `endless`
    bool endless = false;
    bool reconnect = false;

    watch_phase phase = watch_phase::starting;
    uint32_t owed = 0; // updates that the registration is still good for
    bool said_silent = false;
    location_result told = LOCATION_ANSWERED; // trouble that was already told
    watch_clock::time_point heard;            // last update or registration
    watch_clock::time_point next_try;         // of a registration
};

enum class watch_step : uint8_t {
    wait,         // until watch_wake
    try_register, // for watch_wanted updates, then watch_on_registration
    say_silent,   // no update for two intervals
    give_up,      // the same without reconnect
    finished,     // all updates came
};

enum class watch_verdict : uint8_t {
    go_on,
    say_again, // registered again after the service had lost the registration
    say_why,   // not registered, for a reason not told before; it goes on
    give_up,
};

// `count` 0 = endless.
watch_plan watch_start(std::chrono::seconds interval, uint64_t count, bool reconnect,
                       watch_clock::time_point now);
watch_step watch_next(watch_plan &plan, watch_clock::time_point now);
watch_clock::time_point watch_wake(const watch_plan &plan);
uint32_t watch_wanted(const watch_plan &plan);
watch_verdict watch_on_registration(watch_plan &plan, location_result result,
                                    watch_clock::time_point now);
// True when the silence before it had been told.
bool watch_on_update(watch_plan &plan, watch_clock::time_point now);

#endif
