// The terminal as its users see it: lsctl and its exit statuses, start and end of the daemon, power
// and periodic updates.
#include "system_fixture.h"

#include <array>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

// Asks until the answer is this: its status, and a part of its output or of its error.
void comes(const words &arguments, int status, const std::string &text) {
    process_result last;
    EXPECT_TRUE(wait_until([&] {
        last = lsctl(arguments);
        return last.status == status && count_of(text, status == 0 ? last.out : last.err) != 0;
    })) << "last: "
        << last.status << " " << last.out << last.err;
}

// A start that has to fail, on the present bus.
void expect_refused_start(const char *reason) {
    std::filesystem::create_directories("second/user");
    scratch_dir::write("conf", "[board]\ntype=1\n[log]\ntarget=stderr\n");
    setenv("ZUKHAL_CONF", std::filesystem::absolute("conf").c_str(), 1);
    setenv("DBHANDLER_FILE", std::filesystem::absolute("second/user/settings.db").c_str(), 1);
    const process_result second = background({DAEMON_PROGRAM}, "second").wait();
    EXPECT_EQ(second.status, 255);
    EXPECT_EQ(count_of(reason, second.err), 1U) << second.err;
}

} // namespace

TEST(lsctl_answers, from_a_place_in_the_south_west) {
    const terminal term({"--place", "-33.85678,-70.5,12.5"});
    comes({"position"}, 0, "33.856780 deg S");
    comes({"position", "--json"}, 0,
          "\"latitude_deg\":-33.85678,\"longitude_deg\":-70.5,\"altitude_m\":12.5,");
    comes({"power", "--json"}, 0, "{\"receiver_on\":true,\"power_mode\":2}\n");
    // What start-up configured is still in the receiver: 100 ms, one measurement, GPS time.
    comes({"ubx", "--json", "06", "08"}, 0, "\"payload_hex\":\"64 00 01 00 01 00\"");
}

TEST(lsctl_exit, gate_closed_until_the_static_location_opens_it) {
    const terminal term({"--board", "2", "--antenna", "0"});
    comes({"position"}, 1,
          "lsctl: the location service refuses all requests: this terminal has no GNSS antenna and "
          "no static location\n");
    EXPECT_EQ(count_of("\"error\":\"gate_closed\"", lsctl({"time", "--json"}).out), 1U);
    term.write_static_location(true);
    comes({"position"}, 0, "70.132317 deg N");
    term.write_static_location(true, "0130.000,S,00200.000,W");
    comes({"position"}, 0, "1.500000 deg S");
    term.write_static_location(false);
    comes({"position"}, 1, "refuses all requests");
}

TEST(lsctl_exit, receiver_off_is_said_long_before_the_timeout) {
    const terminal term({"--power-status", "0"});
    const auto before = std::chrono::steady_clock::now();
    comes({"position", "--timeout", "60"}, 3, "lsctl: the receiver is switched off (power mode 0)");
    EXPECT_LT(std::chrono::steady_clock::now() - before, 15s);
}

TEST(daemon_end, each_signal_ends_it_in_order) {
    for (const int number : {SIGTERM, SIGHUP, SIGTSTP}) {
        terminal term;
        kill(term.daemon(), number);
        EXPECT_EQ(term.daemon_end(), "exit status 0") << strsignal(number);
    }
}

TEST(daemon_end, a_second_daemon_on_the_bus_gives_up_and_disturbs_nothing) {
    const terminal term;
    expect_refused_start("Scm registration failed");
    EXPECT_EQ(lsctl({"position"}).status, 0);
}

TEST(daemon_end, sigterm_during_a_slow_start_kills_it) {
    terminal term;
    term.ctl({"fault", "silent", "on"}); // the configuration then takes 80 s
    const size_t before = term.log().size();
    const background restart({SIMTERM_PROGRAM, "ctl", term.dir(), "restart-daemon"});
    ASSERT_TRUE(wait_until([&] {
        return term.log().find("Configure the measurement rate", before) != std::string::npos;
    }));
    EXPECT_FALSE(handles_signals(term.daemon()));
    kill(term.daemon(), SIGTERM);
    EXPECT_EQ(term.daemon_end(), "signal 15 (Terminated)");
}

TEST(simterm, an_option_that_is_wrong_makes_nothing) {
    const scratch_dir scratch;
    scratch_dir::write("damaged", "$GPGGA*00\n");
    const words lines[] = {{"--place", "91,0"},     {"--ttff", "1,2"},
                           {"--fault", "cut=0"},    {"--fault", "ta-silent=twice"},
                           {"--replay", "damaged"}, {"--route", "damaged"},
                           {"--daemon", "damaged"}, {"--history-interval", "0"},
                           {"--antenna", "-1"},     {"--board", "3"}};
    for (const words &options : lines) {
        words command = {SIMTERM_PROGRAM, "run", "t"};
        command.insert(command.end(), options.begin(), options.end());
        EXPECT_EQ(run(command).status, 2) << options[0] << options[1];
        EXPECT_FALSE(std::filesystem::exists("t")) << options[0] << options[1];
    }
}

TEST(simterm, outlives_its_daemon_when_that_is_wanted) {
    terminal term({"--keep"});
    term.ctl({"kill-daemon"});
    comes({"power"}, 3, "service is not running");
    term.ctl({"start-daemon"});
    comes({"position"}, 0, "deg N");
    kill(term.daemon(), SIGKILL);
    comes({"power"}, 3, "service is not running");
    term.ctl({"start-daemon"});
    comes({"position"}, 0, "deg N");
    EXPECT_EQ(term.stop(), 0);
}

TEST(power, a_change_by_voip_reaches_the_lines_the_settings_and_voip) {
    terminal term;
    bus_client voip(LS_SERV_VOIP);
    for (const auto &[mode, line, shown] : {std::tuple{0U, '0', "Receiver  off (power mode 0)\n"},
                                            std::tuple{2U, '1', "Receiver  on (power mode 2)\n"}}) {
        const auto reply =
            record_in<ls_power_reply>(voip.ask(LS_REQUEST_SET_POWER_MODE, payload_of(mode)));
        EXPECT_EQ(reply.status, LS_STATUS_OK) << shown;
        EXPECT_EQ(reply.power_mode, mode);
        const auto told = voip.take(LS_NOTIFY_POWER_MODE);
        EXPECT_EQ(record_in<uint32_t>(told), mode);
        EXPECT_EQ(told ? told->hdr.msg_type : 0, LS_MSG_NOTIFICATION);
        for (const char *gpio : {"gpio102", "gpio37"})
            EXPECT_EQ(term.file("sys/class/gpio/" + std::string(gpio) + "/value").at(0), line);
        // The next daemon comes up as this one was left, and says so to VoIP.
        term.restart_daemon();
        EXPECT_EQ(lsctl({"power"}).out, shown);
        EXPECT_EQ(record_in<uint32_t>(voip.take(LS_NOTIFY_POWER_MODE)), mode);
    }
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
    ASSERT_TRUE(wait_until([&] { return count_of("\n", third.out()) == 1; })) << third.err();
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
    ASSERT_TRUE(wait_until([&] { return count_of("\n", watched.out()) == 1; })) << watched.err();
    term.ctl({"restart-daemon"});
    const process_result ended = watched.wait(2 * PATIENCE);
    EXPECT_EQ(ended.status, 0) << ended.err;
    EXPECT_EQ(count_of("\n", ended.out), 3U) << ended.out;
    EXPECT_EQ(count_of("lsctl: registered again\n", ended.err), 1U) << ended.err;
    EXPECT_EQ(term.stop(), 0);
}
