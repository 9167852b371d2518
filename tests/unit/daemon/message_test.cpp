// Messages in, messages out: gate, dispatch, workers, handlers, replies, periodic updates.
#include "child.h"
#include "daemon_fixture.h"
#include "gps_main.h"
#include "gps_power.h"
#include "gps_service.h"

#include <algorithm>
#include <sys/resource.h>

namespace {

using message = daemon_fixture;
using fake::votes;

TEST_F(message, closed_gate_answers_requests_with_zeros_and_drops_the_rest) {
    gps_board_type_g = 2;
    EXPECT_EQ(fake::deliver(0, 1003, 40), -1);
    EXPECT_EQ(fake::deliver(2, 201, 7, {1}), -1);
    EXPECT_EQ(told(fake::sent()), "1 1003>40 0000000000000000");
    EXPECT_EQ(fake::system_state_votes(), (votes{0, 0}));

    EXPECT_EQ(fake::deliver(1, 407, 0), 0);                 // registration passes any gate
    EXPECT_EQ(fake::deliver(2, 1418, 12, {4, 0, 0, 0}), 0); // and so does what opens it
    EXPECT_EQ(fake::deliver(2, 201, 7, {0}), 0);
    EXPECT_EQ(fake::system_state_votes(), (votes{3, 3}));
}

TEST_F(message, what_it_does_not_know_is_refused_with_its_vote_returned) {
    const std::tuple<uint8_t, uint32_t, bytes, const char *> rows[] = {
        {255, 1003, {}, "ls_hal_process_message, Invalid Message Type"},
        {1, 1003, {}, "ls_hal_process_response_msg, Invalid Message Id 1003"},
        {2, 1003, {}, "ls_hal_process_notification_msg, Invalid Message Id"},
        {0, 4711, {}, "ls_process_thread_req, Invalid Message Id"},
        {2, 1418, {4, 0, 0}, "msg->pld is a NULL POINTER!"},
        {2, 201, {}, "msg->pld is a NULL POINTER!"},
        {1, 1416, {}, "msg->pld is a NULL POINTER!"},
    };
    for (const auto &[type, id, payload, text] : rows) {
        SCOPED_TRACE(text);
        fake::reset();
        EXPECT_EQ(fake::deliver(type, id, 40, payload), type == 0 ? 0 : -1);
        EXPECT_TRUE(fake::wait_for_votes_returned());
        EXPECT_EQ(errors(text), 1u);
        EXPECT_TRUE(fake::sent().empty());
        EXPECT_EQ(antenna_type, 0);
        EXPECT_EQ(fake::system_state_votes(), (votes{1, 1}));
    }
    // A length without bytes is no payload; the request itself needs none.
    bus_msg msg = {{0, 0, 40, 8, 1001, 5, 4000, 0}, nullptr};
    EXPECT_EQ(ls_hal_process_message(fake::connection(), &msg), 0);
    EXPECT_EQ(fake::wait_for_sent(1).back().payload.size(), 8u);
    EXPECT_TRUE(fake::wait_for_votes_returned());
    EXPECT_EQ(ls_hal_process_message(nullptr, &msg), -1);
    EXPECT_EQ(fake::system_state_votes(), (votes{2, 2}));
}

// In a child: the end of the service is for good, and the limit for its user.
TEST_F(message, a_request_that_finds_no_worker_or_the_end_holds_up_nothing) {
    const int result = run_in_child([] {
        const rlimit none = {};
        setrlimit(RLIMIT_NPROC, &none);
        if (geteuid() == 0 && setuid(65534) != 0)
            return 1;
        fake::deliver(0, 1003, 40); // its vote is kept
        if (errors("Error while creating") != 1 || ls_activities() != 0)
            return 2;
        ls_begin_stop();
        const bool refused = fake::deliver(0, 1003, 40) == -1;
        return refused && fake::system_state_votes() == votes{2, 1} ? 0 : 3;
    });
    EXPECT_EQ(result, 0);
}

TEST_F(message, a_worker_has_a_small_stack) {
    static_location_on();
    fake::on_send([](const fake::sent_message &) {
        pthread_attr_t attributes;
        size_t size = 0;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &size);
        pthread_attr_destroy(&attributes);
        EXPECT_LE(size, LS_THREAD_STACK_SIZE);
    });
    EXPECT_EQ(serve(1003).size(), 1u);
}

TEST_F(message, while_the_receiver_is_off_only_power_requests_are_served) {
    mt_gps_status = 0;
    gps_current_power_mode_g = 0;
    for (const uint32_t id : {1003u, 1004u, 1011u})
        EXPECT_EQ(fake::deliver(0, id, 5), -1) << id;
    EXPECT_TRUE(fake::sent().empty());
    EXPECT_EQ(fake::system_state_votes(), (votes{3, 3}));
    EXPECT_EQ(told(serve(1001, 5)), "1 1001>5 0100000000000000");
}

TEST_F(message, a_failing_query_leaves_nothing_but_zeros) {
    gps_board_type_g = 3; // no way to a receiver
    antenna_type = 4;
    EXPECT_EQ(serve(1003).at(0).payload, bytes(80)); // zeros behind status 0
    EXPECT_EQ(serve(1004).at(0).payload, bytes(20));
    EXPECT_EQ(pending_req_count, 0);
}

TEST_F(message, a_young_position_is_served_again_on_board_2) {
    gps_board_type_g = 2;
    gps_pos_data pos = {};
    int32_t result = 0;
    gps_pos_buffer_time = 1e9;
    EXPECT_FALSE(gps_get_buffered_pos(&pos, &result)); // there is none yet
    gps_pos_buffer_time = 5;
    static_location_on();
    EXPECT_EQ(told(serve(1003)), "1 1003>40 80 bytes"); // is kept
    stub_location_on_g = 0;
    antenna_type = 4;
    for (const uint32_t status : {1u, 0u}) {
        const auto sent = serve(1003);
        ASSERT_EQ(sent.size(), 1u); // no 1416 went out
        EXPECT_EQ(sent[0].as<ls_position_reply>().status, status);
        EXPECT_DOUBLE_EQ(sent[0].as<ls_position_reply>().pos.latitude, 51.5);
        gps_get_pos(nullptr); // its failure is served with the record
    }
    gps_pos_buffer_time = 0; // not even the same second is younger than this
    rffe_req_sem_wait_time = 0;
    EXPECT_EQ(serve(1003).at(0).hdr.msg_id, 1416u);
}

class periodic : public daemon_fixture {
  protected:
    void SetUp() override {
        daemon_fixture::SetUp();
        static_location_on();
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
    const std::tuple<const char *, uint8_t, uint8_t, uint8_t, const char *> rows[] = {
        {"no updates", 41, 0, 4, "1 1007>41 00000000"},
        {"too often", 41, 2, 3, "1 1007>41 00000000"},
        {"just so", 41, 2, 4, "1 1007>41 01000000, 2 1010>41 80 bytes"},
        {"twice", 41, 2, 4, "1 1007>41 00000000"},
        {"second", 42, 2, 4, "1 1007>42 01000000, 2 1010>42 80 bytes"},
        {"third", 43, 2, 4, "1 1007>43 01000000, 2 1010>43 80 bytes"},
        {"fourth", 44, 2, 4, "1 1007>44 00000000"},
    };
    for (const auto &[name, from, updates, interval, sent] : rows)
        EXPECT_EQ(enroll(from, updates, interval), sent) << name;
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

TEST_F(periodic, an_expiry_that_overtakes_the_last_update_adds_none) {
    fake::on_send([](const fake::sent_message &sent) {
        if (sent.hdr.msg_id != 1010 || fake::sent().size() != 2)
            return;
        fake::deliver(0, 1008, 8, {2, 0, 0, 0});
        while (ls_activities() > 1) // its worker; this one is the other's
            std::this_thread::yield();
    });
    EXPECT_EQ(enroll(40, 1, 4), "1 1007>40 01000000, 2 1010>40 80 bytes");
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
