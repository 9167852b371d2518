// Who gets which answer: exchanges with the TA and on the serial line, under libraries that call
// back from several threads.
#include "bench.h"
#include "line_peer.h"

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
        for (const foreign_event &event : events())
            if (event.is_send(LS_MSG_REQUEST, TA_REQUEST_GPS_DATA))
                most = std::max(most, ++open);
            else if (event.is_call("on_message", TA_REQUEST_GPS_DATA))
                --open;
        return most;
    }
};

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
    EXPECT_EQ(count([](const auto &e) { return e.is_log("LH: Invalid") || e.is_log("timed out"); }),
              0);
    EXPECT_EQ(end(), 0);
}

// The receiver on its serial line; it answers neither what sets rates and protocols nor anything
// else while it is mute.
class line : public bench {
  protected:
    line() {
        state->board = 1;
        peer.emplace([this](const std::string &received) -> std::string {
            if (is_frame(received))
                return mute ? "" : ubx_acknowledge(received, true);
            return received.starts_with("$PUBX,4") ? "" : received;
        });
    }
    int alarms() {
        return count(
            [](const auto &e) { return e.is_send(LS_MSG_NOTIFICATION, WS_NOTIFY_ALARM_UPDATE); });
    }

    std::atomic<bool> mute = false;
    std::optional<line_peer> peer;
};

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
