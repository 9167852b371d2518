// When lsctl watch registers and when it worries, with a stepped clock.
#include "lsctl_watch_plan.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using result = location_result;

struct lsctl_watch : testing::Test {
    watch_clock::time_point now{seconds(1000)};
    watch_plan plan;

    // Registered, and with `updates` received at once.
    void start(int64_t interval_s, uint64_t count, bool reconnect, int updates) {
        plan = watch_start(seconds(interval_s), count, reconnect, now);
        ASSERT_EQ(next(), watch_step::try_register);
        ASSERT_EQ(registration(result::answered), watch_verdict::go_on);
        for (int i = 0; i < updates; ++i) {
            watch_on_update(plan, now);
        }
    }
    watch_step next() { return watch_next(plan, now); }
    watch_verdict registration(result outcome) { return watch_on_registration(plan, outcome, now); }
    // Nothing is to be done for `time`, and `step` then.
    void expect_after(milliseconds time, watch_step step) {
        now += time - milliseconds(1);
        EXPECT_EQ(next(), watch_step::wait);
        now += milliseconds(1);
        EXPECT_EQ(next(), step);
    }
};

TEST_F(lsctl_watch, asks_for_an_hour_or_for_the_count) {
    const struct {
        int64_t interval_s;
        uint64_t count;
        uint32_t wanted;
    } rows[] = {{4, 0, 900}, {4, 900, 900},  {4, 901, 900},
                {60, 0, 60}, {604800, 0, 2}, {604800, 1, 1}};
    for (const auto &row : rows) {
        EXPECT_EQ(watch_wanted(watch_start(seconds(row.interval_s), row.count, false, now)),
                  row.wanted)
            << row.interval_s << " s, " << row.count;
    }
}

TEST_F(lsctl_watch, renews_one_interval_after_the_last_update_and_ends_at_its_count) {
    start(3600, 3, false, 2);
    EXPECT_EQ(watch_wake(plan) - now, seconds(3600));
    expect_after(seconds(3600), watch_step::try_register);
    EXPECT_EQ(watch_wanted(plan), 1U);
    EXPECT_EQ(registration(result::answered), watch_verdict::go_on);
    EXPECT_EQ(next(), watch_step::wait);
    watch_on_update(plan, now);
    EXPECT_EQ(next(), watch_step::finished);
}

TEST_F(lsctl_watch, without_reconnect_silence_ends_it_after_two_intervals) {
    start(5, 0, false, 1);
    EXPECT_EQ(watch_wake(plan) - now, seconds(10));
    expect_after(seconds(10), watch_step::give_up);
}

TEST_F(lsctl_watch, a_late_update_leads_to_another_registration) {
    start(5, 0, true, 1);
    expect_after(milliseconds(5500), watch_step::try_register);
    // Refused: it stands. Once more an interval later, not at once.
    EXPECT_EQ(registration(result::failed), watch_verdict::go_on);
    expect_after(milliseconds(4500), watch_step::say_silent);
    expect_after(milliseconds(500), watch_step::try_register);
    EXPECT_TRUE(watch_on_update(plan, now));
    EXPECT_FALSE(watch_on_update(plan, now));
    // Accepted: the service had forgotten it.
    expect_after(milliseconds(5500), watch_step::try_register);
    EXPECT_EQ(registration(result::answered), watch_verdict::say_again);
    EXPECT_EQ(plan.owed, 720U);
}

TEST_F(lsctl_watch, looks_every_second_while_the_service_is_gone) {
    start(60, 0, true, 1);
    expect_after(milliseconds(60500), watch_step::try_register);
    EXPECT_EQ(registration(result::no_daemon), watch_verdict::say_why);
    for (int i = 0; i < 70; ++i) {
        // The reason has been told: neither it nor the silence is told again.
        expect_after(seconds(1), watch_step::try_register);
        EXPECT_EQ(registration(result::no_daemon), watch_verdict::go_on) << i;
    }
    EXPECT_EQ(registration(result::receiver_off), watch_verdict::say_why);
    expect_after(seconds(60), watch_step::try_register);
    EXPECT_EQ(registration(result::answered), watch_verdict::say_again);
}

TEST_F(lsctl_watch, trouble_at_the_first_registration_or_a_renewal_ends_it_or_is_told) {
    plan = watch_start(seconds(4), 0, true, now);
    EXPECT_EQ(registration(result::no_daemon), watch_verdict::give_up);
    for (const bool reconnect : {true, false}) {
        start(3600, 0, reconnect, 2);
        expect_after(seconds(3600), watch_step::try_register);
        EXPECT_EQ(registration(result::failed),
                  reconnect ? watch_verdict::say_why : watch_verdict::give_up);
    }
}

} // namespace
