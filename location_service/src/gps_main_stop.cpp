// The end of the daemon: what is under way is counted, and waited for before it loses the ground it
// stands on.
#include "gps_main.h"
#include "ls_clock.h"
#include "ls_log.h"

#include <atomic>

static constexpr char log_module[] = "gps_main";

namespace {

std::atomic<bool> stopping;
std::atomic<int> active; // workers, bus and timer callbacks, bodies of signal handlers

} // namespace

ls_activity::ls_activity() {
    begin();
}

ls_activity::ls_activity(adopt_t) {}

ls_activity::~ls_activity() {
    end();
}

void ls_activity::begin() {
    ++active;
}

void ls_activity::end() {
    --active;
}

int ls_activities() {
    return active;
}

void ls_begin_stop() {
    stopping = true;
}

bool ls_is_stopping() {
    return stopping;
}

void ls_wait_for_activities() {
    constexpr int64_t patience_ms = 2000;
    const int64_t deadline = ls_monotonic_ms() + patience_ms;
    while (active != 0 && ls_monotonic_ms() < deadline)
        ls_sleep_us(1000);
    if (active != 0)
        log_error("%s: %d requests or callbacks are cut off after %d ms\n", __func__, active.load(),
                  static_cast<int>(patience_ms));
}
