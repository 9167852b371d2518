// Who gets which answer: exchanges with the TA and on the serial line, under libraries that call
// back from several threads and a peer that answers late, twice or unasked.
#include "line_bench.h"

namespace {

std::string answer_in(const ls_engg_cmd &reply) {
    return {reinterpret_cast<const char *>(reply.answer),
            strnlen(reinterpret_cast<const char *>(reply.answer), sizeof(reply.answer))};
}

class ta : public bench {
  protected:
    // The most exchanges that were open at one time: each sent command opens one, each answer ends
    // one.
    int most_open() {
        int open = 0, most = 0;
        for (const foreign_event &event : events()) {
            if (event.is_send(LS_MSG_REQUEST, TA_REQUEST_GPS_DATA))
                most = std::max(most, ++open);
            else if (event.is_call("on_message", TA_REQUEST_GPS_DATA))
                --open;
        }
        return most;
    }
    int callbacks() {
        return count([](const auto &e) { return e.is_call("timer callback returned"); });
    }
};

TEST_F(ta, history_and_requests_take_turns) {
    state->history = 1;
    ta_delay_ms = 60;
    start();
    for (int round = 0; callbacks() < 4 && !HasFailure(); ++round) {
        const std::string body = "ROUND" + std::to_string(round);
        EXPECT_EQ(answer_in(ask(body)), nmea(body));
    }
    EXPECT_EQ(count([](const auto &e) { return e.is_log("LH: Invalid") || e.is_log("timed out"); }),
              0);
    EXPECT_EQ(most_open(), 1);
    EXPECT_EQ(end(), 0);
}

TEST_F(ta, an_answer_that_nobody_waits_for_shifts_no_other) {
    start();
    for (const char *stray : {"$STRAY1*00\r\n", "$STRAY2*00\r\n"}) {
        const int before = now();
        answer_ta(stray);
        await_call("on_message returned", before);
    }
    for (const char *body : {"A", "B", "C", "D"})
        EXPECT_EQ(answer_in(ask(body)), nmea(body));
    EXPECT_EQ(end(), 0);
}

TEST_F(ta, sixty_four_clients_at_once_each_get_their_own) {
    constexpr uint8_t clients = 64, first = 40;
    state->history = 1;
    state->callback_threads = 3;
    ta_delay_ms = 20;
    start();
    await_call("timer callback");
    std::vector<uint32_t> asked;
    for (uint8_t i = 0; i < clients; ++i)
        asked.push_back(deliver_command("CLIENT" + std::to_string(i), first + i));
    for (uint8_t i = 0; i < clients && !HasFailure(); ++i) {
        int place = -1;
        const auto reply_i = record_of<ls_engg_cmd>(reply(asked[i], &place));
        EXPECT_EQ(answer_in(reply_i), nmea("CLIENT" + std::to_string(i)));
        EXPECT_EQ(events(place).front().header().dst_serv_id, first + i);
    }
    EXPECT_EQ(most_open(), 1);
    EXPECT_EQ(end(), 0);
}

// A late answer ends the doubt about its own exchange alone.
TEST_F(ta, a_late_answer_is_not_the_next_requests) {
    start();
    ta_silent = true;
    EXPECT_EQ(ask("LOST").status, 0u);
    ta_silent = false;
    const int before = now();
    answer_ta(nmea("LOST"));
    await_call("on_message returned", before);
    for (const char *body : {"A", "B"})
        EXPECT_EQ(answer_in(ask(body)), nmea(body));
    EXPECT_EQ(end(), 0);
}

TEST_F(ta, a_frame_that_cannot_be_sent_is_answered_at_once) {
    start();
    const auto frame = [&](const char *bytes_in_hex) {
        return engg_reply(deliver(LS_EXEC_UBX_CMD, 40, payload_of(command(bytes_in_hex))));
    };
    const int before = now();
    EXPECT_EQ(frame("b5,62,06,01,ff,ff,00,00").status, 0u);
    EXPECT_EQ(count([](const auto &e) { return e.is_send(0, TA_REQUEST_GPS_DATA); }, before), 0);
    EXPECT_EQ(frame("b5,62,06,01,00,00,00,00").status, 1u);
    EXPECT_EQ(answer_in(ask("A")), nmea("A"));
    EXPECT_EQ(end(), 0);
}

// The query of a registration's last update takes seconds; its client ends it and registers anew.
TEST_F(ta, the_end_of_a_registration_leaves_a_newer_one_alone) {
    const auto wanted = [](uint32_t updates) {
        return payload_of(ls_register_periodic_req_pld_s{.num_updates = updates, .interval = 4});
    };
    start();
    ta_delay_ms = 500;
    EXPECT_EQ(reply(deliver(LS_REQUEST_REGISTER_PERIODIC_UPDATE, 40, wanted(1))),
              bytes({1, 0, 0, 0}));
    await("1416", [](const auto &e) { return e.is_send(0, TA_REQUEST_GPS_DATA); });
    EXPECT_EQ(reply(deliver(LS_REQUEST_UNREGISTER_PERIODIC_UPDATE, 40)), bytes({1, 0, 0, 0}));
    EXPECT_EQ(reply(deliver(LS_REQUEST_REGISTER_PERIODIC_UPDATE, 40, wanted(3))),
              bytes({1, 0, 0, 0}));
    int place = 0;
    for (int update = 0; update < 3; ++update) // the old one's, the new one's first, its timer's
        place = 1 + await(
                        "update " + std::to_string(update),
                        [](const auto &e) {
                            return e.is_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE);
                        },
                        place);
    EXPECT_EQ(end(), 0);
}

TEST_F(line, what_lies_there_is_discarded_only_in_doubt) {
    start();
    EXPECT_EQ(answer_in(ask("A")), nmea("A"));
    send_unasked(nmea("QUEUED"));
    EXPECT_EQ(answer_in(ask("SILENT")), nmea("QUEUED")) << "lost, though nothing was in doubt";

    const int before = now();
    EXPECT_EQ(answer_in(ask("SILENT")), "");
    await_log("Device Timeout", before);
    send_unasked(nmea("SILENT,LATE"));
    EXPECT_EQ(answer_in(ask("B")), nmea("B"));

    EXPECT_EQ(answer_in(ask("LONG")), std::string(200, 'L'));
    EXPECT_TRUE(wait_until([] { return on_the_line() > 0; }));
    EXPECT_EQ(answer_in(ask("C")), nmea("C"));

    for (const uint8_t mode : {uint8_t{0}, uint8_t{2}})
        reply(deliver(LS_REQUEST_SET_POWER_MODE, LS_SERV_WS, {mode, 0, 0, 0}));
    send_unasked(nmea("GPTXT,01,01,02,SWITCHED ON"));
    EXPECT_EQ(answer_in(ask("D")), nmea("D"));
    EXPECT_EQ(end(), 0);
}

TEST_F(line, requests_wait_until_the_receiver_is_configured) {
    state->init_ms = 300; // the first comes before the line is open
    const uint32_t early = deliver_command("EARLY");
    launch();
    await_log("Disabling GGA");
    const uint32_t amidst = deliver_command("AMIDST");
    const int configured = await_log("GPS device Powered ON");
    for (const auto &[transaction, body] : {std::pair{early, "EARLY"}, {amidst, "AMIDST"}}) {
        int place = -1;
        EXPECT_EQ(answer_in(record_of<ls_engg_cmd>(reply(transaction, &place))), nmea(body));
        EXPECT_GT(place, configured);
    }
    EXPECT_EQ(peer->commands().size(), 10u + 6u + 2u); // no frame had to be repeated
    EXPECT_EQ(alarms(), 0);
    await_call("rtc_reinit");
    EXPECT_EQ(end(), 0);
}

// A receiver that acknowledges nothing takes more than a minute.
TEST_F(line, requests_wait_three_seconds_at_most) {
    mute = true;
    launch();
    await_log("Configure the measurement rate");
    const auto asked = std::chrono::steady_clock::now();
    reply(deliver_command("A"));
    EXPECT_GE(std::chrono::steady_clock::now() - asked, 2900ms);
    EXPECT_EQ(count([](const auto &e) { return e.is_log("GPS device Powered ON"); }), 0);
    EXPECT_EQ(alarms(), 0);
}

} // namespace
