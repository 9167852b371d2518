// When lsctl watch registers and when it worries, with a stepped clock.
#include "lsctl_watch_plan.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using result = location_result;
using step = watch_step;

struct lsctl_watch : testing::Test {
    watch_clock::time_point now{seconds(1000)};
    watch_plan plan;

    // Registered, and with `updates` received at once.
    void start(int64_t interval_s, uint64_t count, bool reconnect, int updates) {
        plan = watch_start(seconds(interval_s), count, reconnect, now);
        ASSERT_EQ(watch_next(plan, now), step::try_register);
        expect_outcome(LOCATION_ANSWERED, watch_verdict::go_on);
        for (int i = 0; i < updates; ++i)
            watch_on_update(plan, now);
    }
    void expect_outcome(result outcome, watch_verdict verdict) {
        EXPECT_EQ(watch_on_registration(plan, outcome, now), verdict);
    }
    // Nothing is to be done for `time`, and `wanted` then.
    void expect_after(milliseconds time, step wanted) {
        now += time - milliseconds(1);
        EXPECT_EQ(watch_next(plan, now), step::wait);
        now += milliseconds(1);
        EXPECT_EQ(watch_next(plan, now), wanted);
    }
};

TEST_F(lsctl_watch, renews_one_interval_after_the_last_update_and_ends_at_its_count) {
    start(3600, 3, false, 2);
    EXPECT_EQ(watch_wake(plan) - now, seconds(3600));
    expect_after(seconds(3600), step::try_register);
    EXPECT_EQ(watch_wanted(plan), 1U);
    expect_outcome(LOCATION_ANSWERED, watch_verdict::go_on);
    EXPECT_EQ(watch_next(plan, now), step::wait);
    watch_on_update(plan, now);
    EXPECT_EQ(watch_next(plan, now), step::finished);
}

TEST_F(lsctl_watch, a_late_update_leads_to_another_registration_or_to_the_end) {
    start(5, 0, false, 1);
    EXPECT_EQ(plan.owed, 719U) << "asked for an hour";
    expect_after(seconds(10), step::give_up);
    start(5, 0, true, 1);
    expect_after(milliseconds(5500), step::try_register);
    // Refused: it stands. Once more an interval later, not at once.
    expect_outcome(LOCATION_FAILED, watch_verdict::go_on);
    expect_after(milliseconds(4500), step::say_silent);
    expect_after(milliseconds(500), step::try_register);
    EXPECT_TRUE(watch_on_update(plan, now));
    // Accepted: the service had forgotten it.
    expect_after(milliseconds(5500), step::try_register);
    expect_outcome(LOCATION_ANSWERED, watch_verdict::say_again);
}

} // namespace
