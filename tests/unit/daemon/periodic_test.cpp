// Periodic updates: registration, count-down, slots, timers.
#include "fake_platform.h"
#include "gps_message_handler.h"
#include "gps_timer.h"
#include "ls_state.h"

#include <gtest/gtest.h>

namespace {

using bytes = std::vector<uint8_t>;

bytes words(uint32_t a, uint32_t b) {
    bytes out(8);
    memcpy(out.data(), &a, 4);
    memcpy(out.data() + 4, &b, 4);
    return out;
}

class periodic : public testing::Test {
  protected:
    void SetUp() override {
        fake::reset();
        stub_location_on_g = 1; // a position without a receiver
        const std::string place = "5130.000,N,00007.500,W\n";
        for (size_t i = 0; i < place.size(); ++i)
            ls_stub_location_buf[i] = place[i];
    }
    void TearDown() override {
        for (int client = 0; client < 256; ++client)
            ls_delete_periodic_request(static_cast<uint8_t>(client));
    }

    // Serves one request to its end and returns what it sent.
    static std::vector<fake::sent_message> serve(uint32_t id, uint8_t from, bytes payload) {
        const size_t before = fake::sent().size();
        bus_msg msg = fake::make_message(0, id, from, payload);
        EXPECT_EQ(ls_hal_process_message(fake::connection(), &msg), 0);
        EXPECT_TRUE(fake::wait_for_votes_returned());
        auto sent = fake::sent();
        sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(before));
        return sent;
    }
    static std::vector<fake::sent_message> enroll(uint8_t from, uint32_t updates,
                                                  uint32_t interval) {
        return serve(1007, from, words(updates, interval));
    }
    static std::vector<fake::sent_message> expire(uint32_t slot) {
        bytes payload(4);
        memcpy(payload.data(), &slot, 4);
        return serve(1008, 8, payload);
    }
    static bool occupied(int slot) {
        fake::reset_log();
        ls_dump_periodic_request_queue();
        return fake::count_logged(7, std::to_string(slot) + " Location in Queue is Occupied\n") ==
               1;
    }
};

void expect_result(const fake::sent_message &reply, uint32_t id, uint32_t result) {
    EXPECT_EQ(reply.hdr.msg_type, 1);
    EXPECT_EQ(reply.hdr.msg_id, id);
    ASSERT_EQ(reply.payload.size(), 4u);
    EXPECT_EQ(reply.as<ls_periodic_reply>().result, result);
}

void expect_notification(const fake::sent_message &sent, uint8_t to) {
    EXPECT_EQ(sent.hdr.msg_type, 2);
    EXPECT_EQ(sent.hdr.msg_id, 1010u);
    EXPECT_EQ(sent.hdr.dst_serv_id, to);
    ASSERT_EQ(sent.payload.size(), 80u);
    EXPECT_EQ(sent.as<ls_position_reply>().status, 1u);
    EXPECT_DOUBLE_EQ(sent.as<ls_position_reply>().pos.latitude, 51.5);
}

TEST_F(periodic, updates_are_counted_and_the_first_comes_at_once) {
    auto sent = enroll(40, 3, 4);
    ASSERT_EQ(sent.size(), 2u);
    expect_result(sent[0], 1007, 1);
    expect_notification(sent[1], 40);
    EXPECT_TRUE(occupied(2)); // the highest free slot
    for (int more = 0; more < 2; ++more) {
        sent = expire(2);
        ASSERT_EQ(sent.size(), 1u);
        expect_notification(sent[0], 40);
    }
    EXPECT_FALSE(occupied(2));
}

TEST_F(periodic, one_update_needs_no_timer) {
    const auto sent = enroll(40, 1, 4);
    ASSERT_EQ(sent.size(), 2u);
    expect_notification(sent[1], 40);
    EXPECT_EQ(fake::count_logged(7, "!!!Deleting request at 2 position !!!\n"), 1u);
    EXPECT_FALSE(occupied(2));
}

TEST_F(periodic, refusals) {
    struct row {
        const char *name;
        uint32_t updates, interval, result;
    };
    for (const row &r :
         {row{"no updates", 0, 4, 0}, row{"too often", 2, 3, 0}, row{"just so", 2, 4, 1}}) {
        const auto sent = enroll(41, r.updates, r.interval);
        ASSERT_GE(sent.size(), 1u);
        expect_result(sent[0], 1007, r.result);
        EXPECT_EQ(sent.size(), r.result + 1) << r.name; // refused: no notification
    }
    expect_result(enroll(41, 2, 4).at(0), 1007, 0); // registered already
    enroll(42, 2, 4);
    enroll(43, 2, 4);
    fake::reset_log();
    expect_result(enroll(44, 2, 4).at(0), 1007, 0);
    EXPECT_EQ(fake::count_logged(3, "Periodic update register request queue full\n"), 1u);
    EXPECT_EQ(fake::count_logged(3, "gps_handle_periodic_update_request: response code invalid"),
              1u);
    EXPECT_TRUE(serve(1007, 45, bytes(7)).empty()); // no whole payload, no reply
    EXPECT_TRUE(serve(1007, 45, {}).empty());
    EXPECT_EQ(
        fake::count_logged(3, "(ls_register_periodic_req_pld_s *)msg->pld is a NULL POINTER!"), 2u);
}

TEST_F(periodic, unregistering_frees_the_slot_once) {
    enroll(40, 9, 4);
    enroll(41, 9, 4);
    enroll(42, 9, 4);
    mt_gps_status = 0; // also while the receiver is off
    expect_result(serve(1009, 41, {}).at(0), 1009, 1);
    expect_result(serve(1009, 41, {}).at(0), 1009, 0);
    EXPECT_EQ(
        fake::count_logged(3, "ls_hal_unregister_periodic_update_request: response code invalid"),
        1u);
    mt_gps_status = 2;
    EXPECT_TRUE(occupied(2));
    EXPECT_FALSE(occupied(1));
    EXPECT_TRUE(occupied(0));
    enroll(43, 9, 4);
    EXPECT_TRUE(occupied(1));
}

TEST_F(periodic, an_expiry_for_a_freed_slot_goes_to_service_0_and_harms_no_later_client) {
    const auto sent = expire(0);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].hdr.msg_id, 1010u);
    EXPECT_EQ(sent[0].hdr.dst_serv_id, 0);
    for (uint8_t client = 40; client < 43; ++client)
        enroll(client, 2, 4);
    EXPECT_EQ(expire(0).at(0).hdr.dst_serv_id, 42); // slot 0 works like any other
    EXPECT_TRUE(expire(3).empty());                 // there is no such slot
    EXPECT_TRUE(expire(0xFFFFFFFF).empty());
    EXPECT_TRUE(serve(1008, 8, bytes(3)).empty());
}

// The whole loop with a real timer: signal, loop-back request, notification.
TEST_F(periodic, the_timer_brings_the_second_update_after_its_interval) {
    fake::on_send([](const fake::sent_message &sent) {
        if (sent.hdr.msg_id != 1008)
            return;
        EXPECT_EQ(sent.hdr.msg_type, 0);
        EXPECT_EQ(sent.hdr.dst_serv_id, 8);
        static bytes payload;
        payload = sent.payload;
        bus_msg msg = fake::make_message(0, 1008, 8, payload);
        ls_hal_process_message(fake::connection(), &msg);
    });
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(enroll(40, 2, 4).size(), 2u);
    const auto sent = fake::wait_for_sent(4); // reply, 1010, 1008, 1010
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - before;
    ASSERT_EQ(sent.size(), 4u);
    expect_notification(sent[3], 40);
    EXPECT_NEAR(took.count(), 4.0, 0.3);
    EXPECT_TRUE(fake::wait_for_votes_returned());
    EXPECT_FALSE(occupied(2));
}

TEST(timer, ids_are_never_zero) {
    const auto ignore = [](int, siginfo_t *, void *) {};
    std::array<std::atomic<timer_t>, 3> timers = {};
    for (auto &timer : timers) {
        EXPECT_EQ(create_timer(&timer, ignore, 5), 0);
        EXPECT_NE(timer.load(), timer_t{});
    }
    EXPECT_NE(timers[0].load(), timers[1].load());
    for (auto &timer : timers)
        delete_timer(timer);
    delete_timer(timer_t{});
    EXPECT_EQ(start_timer(timers[0], 4), -1); // it is gone
    EXPECT_EQ(fake::count_logged(3, "timer_settime failed with errno = 22(Invalid argument).\n"),
              1u);
}

TEST(timer, signals_past_the_last_are_refused) {
    fake::reset();
    const auto ignore = [](int, siginfo_t *, void *) {};
    std::atomic<timer_t> timer = {};
    EXPECT_EQ(create_timer(&timer, ignore, SIGRTMAX - SIGRTMIN), 0);
    delete_timer(timer);
    timer = timer_t{};
    EXPECT_EQ(create_timer(&timer, ignore, SIGRTMAX - SIGRTMIN + 1), -1);
    EXPECT_EQ(timer.load(), timer_t{});
    EXPECT_EQ(fake::count_logged(3, "exceeded max value"), 1u);
}

} // namespace
