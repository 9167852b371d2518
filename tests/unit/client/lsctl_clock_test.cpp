// With a stepped clock: what lsctl monitor makes of the answers, when lsctl watch registers and
// worries.
#include "lsctl_watch_plan.h"
#include "monitor_model.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

struct monitor : testing::Test {
    monitor_time now{seconds(1000)};
    monitor_model model;
    gps_pos_data place{
        {10, 51, 5, 0, 5, 2, 2019}, 47.5, 'N', 8.5, 'E', GPS_FIX_NONE, 2.5F, 500, 2.5F, 8};

    // The state `after` what has been told, and after that many more seconds.
    void expect_state(monitor_state wanted, int after = 0) {
        EXPECT_EQ(monitor_state_of(model, now + seconds(after)), wanted) << after;
    }
    // A position with this fix, `later` seconds later in the receiver and here.
    void tell(gps_fix_type fix, int later) {
        now += seconds(later);
        place.time.second = static_cast<uint8_t>(place.time.second + later);
        place.fix_type = fix;
        monitor_on_position(model, place, now);
    }
};

TEST_F(monitor, state_and_age_follow_the_answers) {
    expect_state(monitor_state::waiting);
    monitor_on_power(model, GPS_POWER_ON, true);
    expect_state(monitor_state::starting);
    monitor_on_power(model, GPS_POWER_ON, false);
    expect_state(monitor_state::waiting);
    monitor_on_no_position(model, "the query failed", now);
    expect_state(monitor_state::silent);
    // A record without a fix has numbers in it, which are none.
    tell(GPS_FIX_NONE, 0);
    expect_state(monitor_state::no_fix);
    EXPECT_FALSE(model.fix);
    tell(GPS_FIX_2D, 2);
    expect_state(monitor_state::fix_2d);
    EXPECT_FALSE(model.error->present);
    tell(GPS_FIX_3D, 2);
    expect_state(monitor_state::fix_3d, 7);
    expect_state(monitor_state::stale, 8);
    // The same record again is not a newer fix.
    now += seconds(5);
    monitor_on_position(model, place, now);
    expect_state(monitor_state::stale, 3);
    tell(GPS_FIX_NONE, 1);
    expect_state(monitor_state::no_fix);
    EXPECT_EQ(model.fix->latitude, 47.5);
    monitor_on_power(model, GPS_POWER_OFF, false);
    expect_state(monitor_state::off);
}

TEST_F(monitor, satellites_of_record_and_sky_are_one_list) {
    const gps_sat_info info = {{}, 2, 1, {9, 5}, {0, 44}, {0, 5}};
    monitor_on_satellites(model, info, now);
    const std::vector<lsctl_sky_satellite> sky = {{5, 30, 120, 45}, {7, std::nullopt, 10, 20}};
    monitor_on_sky(model, sky, now + seconds(30));
    ASSERT_EQ(model.satellites.size(), 3U);
    const monitor_satellite &used = model.satellites[0];
    EXPECT_TRUE(used.used && used.prn == 5 && used.cn0_dbhz == 45 && used.elevation_deg == 30);
    EXPECT_FALSE(model.satellites[1].elevation_deg);
    EXPECT_FALSE(model.satellites[2].cn0_dbhz);
    // One that a cut answer no longer tells of keeps its place, and is forgotten in the end.
    monitor_on_sky(model, std::span(sky).subspan(1), now + seconds(60));
    EXPECT_EQ(model.satellites[0].azimuth_deg, 120);
    monitor_on_used(model, std::vector<lsctl_fields>{{"GPGSA", "A", "3", "", "07"}});
    EXPECT_TRUE(!model.satellites[0].used && model.satellites[1].used);
    monitor_tick(model, now + seconds(71));
    ASSERT_EQ(model.satellites.size(), 1U);
    EXPECT_EQ(model.satellites[0].prn, 7U);
}

TEST_F(monitor, strip_has_a_column_for_each_step_and_an_end) {
    monitor_tick(model, now);
    monitor_on_power(model, GPS_POWER_ON, false);
    tell(GPS_FIX_3D, 3);
    monitor_on_sky(model, std::vector<lsctl_sky_satellite>{{5, 30, 120, 40}}, now);
    monitor_tick(model, now + seconds(1));
    ASSERT_EQ(model.strip.size(), 1U);
    EXPECT_EQ(model.strip[0].fix, '3');
    EXPECT_EQ(model.strip[0].cn0_dbhz, 40);
    monitor_tick(model, now + seconds(9));
    EXPECT_EQ(model.strip.back().fix, '?') << "stale";
    monitor_on_absent(model, "gone", now);
    monitor_tick(model, now + std::chrono::hours(9));
    EXPECT_EQ(model.strip.size(), MONITOR_STRIP_LENGTH);
    EXPECT_EQ(model.strip.back().fix, '?');
}

TEST_F(monitor, clock_against_the_receiver) {
    // 2026-11-22T05:45:45.5Z is 1795326345.5.
    const lsctl_fields told = {"PUBX", "04", "054545.50", "221126"};
    EXPECT_NEAR(monitor_clock_ahead(told, 1795326346.0).value_or(9), 0.5, 1e-6);
    for (const lsctl_fields &wrong : {lsctl_fields{"PUBX", "04", "", "221126"},
                                      {"PUBX", "04", "054545.50", ""},
                                      {"PUBX", "04", "054545.50", "311126"},
                                      {"PUBX", "04", "054545.50"}})
        EXPECT_FALSE(monitor_clock_ahead(wrong, 0));
}

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
    void expect_outcome(location_result outcome, watch_verdict verdict) {
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
