// Board type 2 with a wait of one second for the TA: what a request gets whose answer is too long,
// late or lost, and what the requests behind it get.
#include "system_fixture.h"

#include <gtest/gtest.h>

namespace {

constexpr uint8_t TOOL = 40;
// The daemon waits on the real-time clock, which may be slewed against this test's.
constexpr auto NEARLY_THE_WAIT_TIME = 900ms;

// How often the daemon's log has `text` so far.
size_t logged(const terminal &term, std::string_view text) {
    const std::string log = term.log();
    size_t count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1))
        ++count;
    return count;
}

struct asked {
    uint32_t status;
    bool waited; // for the answer, as long as it does
};

// A speed is one exchange with the TA.
asked ask_speed(bus_client &client) {
    const auto start = std::chrono::steady_clock::now();
    const auto answer = client.ask(LS_REQUEST_GET_SPEED);
    EXPECT_TRUE(answer);
    return {record_in<ls_speed_reply>(answer).status,
            std::chrono::steady_clock::now() - start >= NEARLY_THE_WAIT_TIME};
}

constexpr char timed_out[] = "semaphore timed out, did not receive GPS data from TA";
constexpr char arrived[] = "Received GPS data from TA";

} // namespace

TEST(ta, an_answer_that_is_too_long_late_or_lost) {
    terminal term({"--board", "2"}, true, true);
    scratch_dir::write(term.dir() / "user/gps_control_prm.txt",
                       "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 1\n");
    term.ctl({"restart-daemon"});
    ASSERT_TRUE(wait_until([&] { return handles_signals(term.daemon()); }));
    bus_client client(TOOL);
    const auto expect = [&](uint32_t status, bool waited, const char *when) {
        const asked got = ask_speed(client);
        EXPECT_EQ(got.status, status) << when;
        EXPECT_TRUE(got.waited || !waited) << when;
    };
    ASSERT_TRUE(wait_until([&] { return ask_speed(client).status == LS_STATUS_OK; }));

    for (const char *length : {"201", "4294967295"}) {
        term.ctl({"fault", "ta-overlong", length, "on"});
        expect(LS_STATUS_FAILED, false, length);
        term.ctl({"fault", "ta-overlong", "off"});
        expect(LS_STATUS_OK, false, "behind an answer that is too long");
    }
    EXPECT_EQ(logged(term, "rffe module returned corrupt pointer"), 2U);
    EXPECT_EQ(logged(term, timed_out), 0U);

    term.ctl({"fault", "ta-late", "1500", "on"});
    const size_t before = logged(term, arrived);
    expect(LS_STATUS_FAILED, true, "late");
    term.ctl({"fault", "ta-late", "off"});
    EXPECT_TRUE(wait_until([&] { return logged(term, arrived) > before; }));
    expect(LS_STATUS_OK, false, "behind an answer that came late");
    EXPECT_EQ(logged(term, timed_out), 1U);

    // The daemon takes the answer to the next request for the one that is missing.
    term.ctl({"fault", "ta-silent", "on"});
    expect(LS_STATUS_FAILED, true, "lost");
    term.ctl({"fault", "ta-silent", "off"});
    expect(LS_STATUS_FAILED, true, "behind an answer that was lost");
    EXPECT_EQ(logged(term, timed_out), 3U);
    EXPECT_TRUE(term.daemon_lives());
    EXPECT_EQ(term.stop(), 0);
}
