// Who gets which answer: exchanges with the TA and on the serial line, under libraries that call
// back from several threads.
#include "bench.h"
#include "line_peer.h"

namespace {

TEST_F(bench, sixty_four_clients_at_once_each_get_their_own) {
    constexpr uint8_t clients = 64, first = 40;
    state->history = 1;
    state->callback_threads = 3;
    ta_delay_ms = 20;
    start();
    await("call timer callback");
    std::vector<uint32_t> asked;
    for (uint8_t i = 0; i < clients; ++i)
        asked.push_back(deliver_command("CLIENT" + std::to_string(i), first + i));
    for (uint8_t i = 0; i < clients && !HasFailure(); ++i) {
        int place = -1;
        EXPECT_EQ(answer(asked[i], &place), nmea("CLIENT" + std::to_string(i)));
        EXPECT_EQ(events(place).front().sent.hdr.dst_serv_id, first + i);
    }
    // Each sent command opens an exchange, each answer ends it.
    int open = 0;
    for (const foreign_event &event : events()) {
        open += event.sent.hdr.dst_serv_id == LS_SERV_TA;
        EXPECT_LE(open, 1);
        open -= event.line == "call on_message 1416";
    }
    EXPECT_EQ(count("LH: Invalid|timed out"), 0);
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

    std::atomic<bool> mute = false;
    std::optional<line_peer> peer;
};

TEST_F(line, requests_wait_until_the_receiver_is_configured) {
    state->init_ms = 300; // the first comes before the line is open
    const uint32_t early = deliver_command("EARLY");
    launch();
    await("Disabling GGA");
    const uint32_t amidst = deliver_command("AMIDST");
    const int configured = await("GPS device Powered ON");
    for (const auto &[transaction, body] : {std::pair{early, "EARLY"}, {amidst, "AMIDST"}}) {
        int place = -1;
        EXPECT_EQ(answer(transaction, &place), nmea(body));
        EXPECT_GT(place, configured);
    }
    EXPECT_EQ(peer->commands().size(), 10u + 6u + 2u); // no frame had to be repeated
    EXPECT_EQ(count(ALARM), 0);
    await("call rtc_reinit");
    EXPECT_EQ(end(), 0);
}

// A receiver that acknowledges nothing takes more than a minute.
TEST_F(line, requests_wait_three_seconds_at_most) {
    mute = true;
    launch();
    await("Configure the measurement rate");
    const auto asked = std::chrono::steady_clock::now();
    reply(deliver_command("A"));
    EXPECT_GE(std::chrono::steady_clock::now() - asked, 2900ms);
    EXPECT_EQ(count("GPS device Powered ON"), 0);
    EXPECT_EQ(count(ALARM), 0);
}

} // namespace
