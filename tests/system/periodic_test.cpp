// Periodic updates through lsctl watch and as raw registrations.
#include "system_fixture.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <memory>

namespace {

long lines_of(const std::string &text) {
    return std::count(text.begin(), text.end(), '\n');
}

} // namespace

TEST(watch, prints_three_updates_four_seconds_apart_and_ends) {
    terminal term;
    const auto before = std::chrono::steady_clock::now();
    const process_result watched = lsctl({"watch", "-n", "3", "-i", "4"});
    const auto took = std::chrono::steady_clock::now() - before;
    EXPECT_EQ(watched.status, 0) << watched.err;
    EXPECT_EQ(lines_of(watched.out), 3) << watched.out;
    EXPECT_NE(watched.out.find("48.208490 N    16.372080 E"), std::string::npos) << watched.out;
    EXPECT_GE(took, 7900ms); // the first comes at once
    EXPECT_LT(took, 16s);
    // The place was given back with the last update.
    bus_client same_id(32);
    const auto nothing_to_end = same_id.ask(LS_REQUEST_UNREGISTER_PERIODIC_UPDATE);
    EXPECT_TRUE(nothing_to_end && nothing_to_end->payload == bytes(4));
    EXPECT_EQ(term.stop(), 0);
}

TEST(watch, a_fourth_is_refused_until_an_interrupted_one_has_gone) {
    terminal term;
    std::array<bus_client, 2> raw = {bus_client(40), bus_client(41)};
    const ls_register_periodic_req_pld_s wanted = {1000, 4};
    for (bus_client &client : raw) {
        const auto reply = client.ask(LS_REQUEST_REGISTER_PERIODIC_UPDATE, payload_of(wanted));
        EXPECT_EQ(record_in<ls_periodic_reply>(reply).result, 1U);
    }
    background third({LSCTL_PROGRAM, "watch", "-i", "4"});
    ASSERT_TRUE(wait_until([&] { return lines_of(third.out()) == 1; })) << third.err();
    const process_result fourth = lsctl({"watch", "-n", "1"});
    EXPECT_EQ(fourth.status, 1);
    EXPECT_EQ(fourth.err, "lsctl: the registration was refused: three other services are "
                          "registered already\n");
    third.signal(SIGINT);
    EXPECT_EQ(third.wait().status, 0);
    EXPECT_EQ(lsctl({"watch", "-n", "1"}).status, 0);
    EXPECT_EQ(term.stop(), 0);
}

TEST(watch, goes_on_with_a_restarted_daemon) {
    terminal term;
    background watched({LSCTL_PROGRAM, "watch", "-n", "3", "-i", "4", "--reconnect"});
    ASSERT_TRUE(wait_until([&] { return lines_of(watched.out()) == 1; })) << watched.err();
    term.ctl({"restart-daemon"});
    const process_result ended = watched.wait(2 * PATIENCE);
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(lines_of(ended.out), 3) << ended.out;
    EXPECT_NE(ended.err.find("lsctl: registered again\n"), std::string::npos) << ended.err;
    EXPECT_EQ(term.stop(), 0);
}
