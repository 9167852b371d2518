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

    void start(int64_t interval_s, uint64_t count, bool reconnect) {
        plan = watch_start(seconds(interval_s), count, reconnect, now);
        ASSERT_EQ(next(), watch_step::try_register);
    }
    void start_registered(int64_t interval_s, uint64_t count, bool reconnect) {
        start(interval_s, count, reconnect);
        ASSERT_EQ(registration(result::answered), watch_verdict::go_on);
    }
    watch_step next() { return watch_next(plan, now); }
    watch_verdict registration(result outcome) { return watch_on_registration(plan, outcome, now); }
    bool update() { return watch_on_update(plan, now); }
    milliseconds until_wake() const {
        return std::chrono::duration_cast<milliseconds>(watch_wake(plan) - now);
    }
};

TEST_F(lsctl_watch, asks_for_an_hour_or_for_the_count) {
    const struct {
        int64_t interval_s;
        uint64_t count;
        uint32_t wanted;
    } rows[] = {
        {4, 0, 900}, {4, 1, 1},    {4, 900, 900},  {4, 901, 900},
        {60, 0, 60}, {3600, 0, 2}, {604800, 0, 2}, {604800, 1, 1},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(watch_wanted(watch_start(seconds(row.interval_s), row.count, false, now)),
                  row.wanted)
            << row.interval_s << " s, " << row.count;
    }
}

TEST_F(lsctl_watch, renews_one_interval_after_the_last_update) {
    start_registered(1800, 0, false);
    ASSERT_EQ(plan.owed, 2U);
    update();
    now += seconds(1800);
    update();
    EXPECT_EQ(plan.owed, 0U);
    EXPECT_EQ(until_wake(), seconds(1800));
    now += seconds(1800) - milliseconds(1);
    EXPECT_EQ(next(), watch_step::wait);
    now += milliseconds(1);
    EXPECT_EQ(next(), watch_step::try_register);
    EXPECT_EQ(registration(result::answered), watch_verdict::go_on);
    EXPECT_EQ(plan.owed, 2U);
}

TEST_F(lsctl_watch, ends_after_its_count_also_over_a_renewal) {
    start_registered(3600, 3, false);
    update();
    update();
    now += seconds(3600);
    ASSERT_EQ(next(), watch_step::try_register);
    EXPECT_EQ(watch_wanted(plan), 1U);
    registration(result::answered);
    EXPECT_EQ(next(), watch_step::wait);
    update();
    EXPECT_EQ(next(), watch_step::finished);
    EXPECT_EQ(plan.owed, 0U);
}

TEST_F(lsctl_watch, without_reconnect_silence_ends_it_after_two_intervals) {
    start_registered(5, 0, false);
    update();
    EXPECT_EQ(until_wake(), seconds(10));
    now += seconds(10) - milliseconds(1);
    EXPECT_EQ(next(), watch_step::wait);
    now += milliseconds(1);
    EXPECT_EQ(next(), watch_step::give_up);
}

TEST_F(lsctl_watch, a_late_update_leads_to_another_registration) {
    start_registered(5, 0, true);
    update();
    now += milliseconds(5499);
    EXPECT_EQ(next(), watch_step::wait);
    now += milliseconds(1);
    EXPECT_EQ(next(), watch_step::try_register);
    // Refused: it stands. Once more an interval later, not at once.
    EXPECT_EQ(registration(result::failed), watch_verdict::go_on);
    EXPECT_EQ(next(), watch_step::wait);
    now += milliseconds(4500);
    EXPECT_EQ(next(), watch_step::say_silent);
    EXPECT_EQ(next(), watch_step::wait);
    now += milliseconds(500);
    EXPECT_EQ(next(), watch_step::try_register);
    EXPECT_TRUE(update());
    EXPECT_FALSE(update());
}

TEST_F(lsctl_watch, registers_again_within_one_interval_of_a_restart) {
    start_registered(5, 0, true);
    update();
    now += milliseconds(500); // stopped and started again at once
    const auto restarted = now;
    now += until_wake();
    ASSERT_EQ(next(), watch_step::try_register);
    EXPECT_LE(now - restarted, seconds(5));
    EXPECT_EQ(registration(result::answered), watch_verdict::say_again);
    EXPECT_EQ(plan.owed, 720U);
}

TEST_F(lsctl_watch, looks_every_second_while_the_service_is_gone) {
    start_registered(60, 0, true);
    update();
    now += until_wake();
    ASSERT_EQ(next(), watch_step::try_register);
    EXPECT_EQ(registration(result::no_daemon), watch_verdict::say_why);
    for (int i = 0; i < 70; ++i) {
        EXPECT_LE(until_wake(), seconds(1));
        now += seconds(1);
        // The reason has been told: neither it nor the silence is told again.
        ASSERT_EQ(next(), watch_step::try_register) << i;
        EXPECT_EQ(registration(result::no_daemon), watch_verdict::go_on);
    }
    now += seconds(1);
    EXPECT_EQ(registration(result::receiver_off), watch_verdict::say_why);
    EXPECT_EQ(until_wake(), seconds(60));
    now += seconds(60);
    EXPECT_EQ(next(), watch_step::try_register);
    EXPECT_EQ(registration(result::answered), watch_verdict::say_again);
}

TEST_F(lsctl_watch, trouble_at_the_first_registration_ends_it) {
    for (const result outcome : {result::failed, result::no_daemon, result::receiver_off}) {
        start(4, 0, true);
        EXPECT_EQ(registration(outcome), watch_verdict::give_up);
    }
}

TEST_F(lsctl_watch, a_refused_renewal_is_told_or_ends_it) {
    for (const bool reconnect : {true, false}) {
        start_registered(3600, 0, reconnect);
        update();
        update();
        now += seconds(3600);
        ASSERT_EQ(next(), watch_step::try_register);
        EXPECT_EQ(registration(result::failed),
                  reconnect ? watch_verdict::say_why : watch_verdict::give_up);
    }
}

} // namespace
