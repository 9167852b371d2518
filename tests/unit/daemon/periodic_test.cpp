// Periodic updates: registration, count-down, slots, timers.
#include "daemon_fixture.h"
#include "gps_message_handler.h"
#include "gps_power.h"

#include <algorithm>

namespace {

class periodic : public daemon_fixture {
  protected:
    void SetUp() override {
        fake::reset();
        static_location_on();
    }
    void TearDown() override {
        for (int client = 0; client < 256; ++client)
            ls_delete_periodic_request(static_cast<uint8_t>(client));
        fake::reset();
    }

    static std::string enroll(uint8_t from, uint8_t updates, uint8_t interval) {
        return told(serve(1007, from, {updates, 0, 0, 0, interval, 0, 0, 0}));
    }
    static std::string expire(uint8_t slot) { return told(serve(1008, 8, {slot, 0, 0, 0})); }
    // The kernel's, of this process.
    static size_t timers() {
        const std::string list = scratch_dir::read("/proc/self/timers");
        return static_cast<size_t>(std::count(list.begin(), list.end(), 'C')); // "ClockID: "
    }
    // The occupied ones of slots 0 to 2, as digits.
    static std::string occupied() {
        std::string slots;
        fake::reset_log();
        ls_dump_periodic_request_queue();
        for (const std::string slot : {"0", "1", "2"})
            if (fake::count_logged(7, slot + " Location in Queue is Occupied\n") == 1)
                slots += slot;
        return slots;
    }
};

TEST_F(periodic, updates_are_counted_and_the_first_comes_at_once) {
    for (const uint8_t updates : {uint8_t{3}, uint8_t{1}, uint8_t{2}}) {
        EXPECT_EQ(enroll(40, updates, 4), "1 1007>40 01000000, 2 1010>40 80 bytes");
        for (int more = 1; more < updates; ++more) {
            EXPECT_EQ(occupied(), "2"); // the highest free slot
            EXPECT_EQ(timers(), 1u);
            EXPECT_EQ(expire(2), "2 1010>40 80 bytes");
        }
        EXPECT_EQ(occupied(), "");
        EXPECT_EQ(timers(), 0u);
    }
}

TEST_F(periodic, refusals) {
    const struct {
        const char *name;
        uint8_t from, updates, interval;
        const char *sent;
    } rows[] = {
        {"no updates", 41, 0, 4, "1 1007>41 00000000"},
        {"too often", 41, 2, 3, "1 1007>41 00000000"},
        {"just so", 41, 2, 4, "1 1007>41 01000000, 2 1010>41 80 bytes"},
        {"twice", 41, 2, 4, "1 1007>41 00000000"},
        {"second", 42, 2, 4, "1 1007>42 01000000, 2 1010>42 80 bytes"},
        {"third", 43, 2, 4, "1 1007>43 01000000, 2 1010>43 80 bytes"},
        {"fourth", 44, 2, 4, "1 1007>44 00000000"},
    };
    for (const auto &r : rows)
        EXPECT_EQ(enroll(r.from, r.updates, r.interval), r.sent) << r.name;
    EXPECT_TRUE(serve(1007, 45).empty()); // no payload, no reply
    mt_gps_status = 0;                    // a registration ends also while the receiver is off
    for (const char *result : {"1 1009>42 01000000", "1 1009>42 00000000"})
        EXPECT_EQ(told(serve(1009, 42)), result);
    mt_gps_status = 2;
    EXPECT_EQ(occupied(), "02");
    EXPECT_EQ(serve(1007, 45, {1, 0, 0, 0, 4}).size(), 2u); // the rest of the interval is zero
}

// Between the last notification and the end of its registration the client ends it, and makes a new
// one.
TEST_F(periodic, the_end_of_a_registration_spares_the_next_one_of_the_same_client) {
    fake::on_send([](const fake::sent_message &sent) {
        if (sent.hdr.msg_id != 1010)
            return;
        EXPECT_EQ(ls_delete_periodic_request(40), 0u);
        uint8_t slot = 0;
        const ls_periodic_req again = {fake::connection(), 40, 1007, 4, 9};
        EXPECT_EQ(gps_update_periodic_req_struct(&again, &slot), 0u);
    });
    EXPECT_EQ(enroll(40, 1, 4), "1 1007>40 01000000, 2 1010>40 80 bytes");
    EXPECT_EQ(occupied(), "2");
}

TEST_F(periodic, an_expiry_for_a_freed_slot_goes_to_service_0_and_harms_no_later_client) {
    EXPECT_EQ(expire(0), "2 1010>0 80 bytes");
    for (uint8_t client = 40; client < 43; ++client)
        enroll(client, 2, 4);
    EXPECT_EQ(expire(0), "2 1010>42 80 bytes"); // slot 0 works like any other
    EXPECT_EQ(expire(3), "");                   // there is no such slot
    EXPECT_TRUE(serve(1008, 8, bytes(3)).empty());
    EXPECT_EQ(timers(), 2u);
    gps_p_g = nullptr; // not the daemon's own, to be freed
    ls_hal_deinit_device(1);
    EXPECT_EQ(timers(), 0u);
}

} // namespace
