// lsctl watch: the plan.
#include "lsctl_watch_plan.h"

#include <algorithm>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int64_t REGISTRATION_S = 3600;
constexpr int64_t UPDATES_AT_LEAST = 2;
// How late an update may be before the registration is doubted. Queries take turns at the receiver.
constexpr milliseconds SLACK{500};
// Between attempts while the service is not there.
constexpr seconds ABSENT_RETRY{1};

watch_clock::time_point silence_limit(const watch_plan &plan) {
    return plan.heard + 2 * plan.interval;
}

bool may_try(const watch_plan &plan) {
    return plan.phase != watch_phase::running || plan.reconnect;
}

} // namespace

watch_plan watch_start(seconds interval, uint64_t count, bool reconnect,
                       watch_clock::time_point now) {
    watch_plan plan;
    plan.interval = interval;
    plan.remaining = count;
    plan.endless = count == 0;
    plan.reconnect = reconnect;
    plan.heard = now;
    plan.next_try = now;
    return plan;
}

watch_step watch_next(watch_plan &plan, watch_clock::time_point now) {
    if (!plan.endless && plan.remaining == 0)
        return watch_step::finished;
    if (plan.phase != watch_phase::starting && !plan.said_silent && now >= silence_limit(plan)) {
        plan.said_silent = true;
        if (!plan.reconnect)
            return watch_step::give_up;
        if (plan.told == LOCATION_ANSWERED)
            return watch_step::say_silent;
        // Why nothing comes has been said already.
    }
    return may_try(plan) && now >= plan.next_try ? watch_step::try_register : watch_step::wait;
}

watch_clock::time_point watch_wake(const watch_plan &plan) {
    watch_clock::time_point wake = plan.said_silent ? plan.next_try : silence_limit(plan);
    if (may_try(plan))
        wake = std::min(wake, plan.next_try);
    return wake;
}

uint32_t watch_wanted(const watch_plan &plan) {
    const auto hour =
        static_cast<uint64_t>(std::max(REGISTRATION_S / plan.interval.count(), UPDATES_AT_LEAST));
    return static_cast<uint32_t>(plan.endless ? hour : std::min(hour, plan.remaining));
}

watch_verdict watch_on_registration(watch_plan &plan, location_result result,
                                    watch_clock::time_point now) {
    const watch_phase before = plan.phase;
    if (result == LOCATION_ANSWERED) {
        const bool again =
            before == watch_phase::running || plan.said_silent || plan.told != LOCATION_ANSWERED;
        plan.owed = watch_wanted(plan);
        plan.phase = watch_phase::running;
        plan.said_silent = false;
        plan.told = LOCATION_ANSWERED;
        plan.heard = now;
        plan.next_try = now + plan.interval + SLACK;
        return again ? watch_verdict::say_again : watch_verdict::go_on;
    }
    if (before == watch_phase::starting || !plan.reconnect)
        return watch_verdict::give_up;
    plan.next_try = now + (result == LOCATION_NO_DAEMON ? ABSENT_RETRY : plan.interval);
    if (result == LOCATION_FAILED && before == watch_phase::running)
        return watch_verdict::go_on; // it stands: the update is only late
    if (result == plan.told)
        return watch_verdict::go_on;
    plan.told = result;
    return watch_verdict::say_why;
}

bool watch_on_update(watch_plan &plan, watch_clock::time_point now) {
    const bool after_silence = plan.said_silent;
    plan.said_silent = false;
    plan.told = LOCATION_ANSWERED;
    plan.heard = now;
    plan.next_try = now + plan.interval + SLACK;
    if (!plan.endless && plan.remaining != 0)
        --plan.remaining;
    if (plan.owed != 0 && --plan.owed == 0) {
        // The service frees the place only after it has sent the last update, so the next
        // registration waits for the time of the next update; its first one comes at once.
        plan.phase = watch_phase::renewing;
        plan.next_try = now + plan.interval;
    }
    return after_silence;
}
