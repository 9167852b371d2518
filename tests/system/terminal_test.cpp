// The terminal as its users see it: lsctl and its exit statuses, start and end of the daemon, the
// files it reads, and power.
#include "system_fixture.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

// One second with a fix, one without; the terminal plays it again and again.
constexpr char recording[] =
    "$GPRMC,120000.00,A,4812.50940,N,01622.32480,E,0.019,54.70,140524,,,A*58\r\n"
    "$GPGGA,120000.00,4812.50940,N,01622.32480,E,1,05,1.20,171.0,M,42.0,M,,*55\r\n"
    "$GPGSA,A,3,05,13,15,18,23,,,,,,,,2.00,1.20,1.60*0F\r\n"
    "$GPGSV,2,1,06,05,40,083,46,13,22,310,38,15,67,192,44,18,15,041,31*7A\r\n"
    "$GPGSV,2,2,06,23,51,268,42,29,05,120,*7D\r\n"
    "$GPRMC,120003.00,V,,,,,,,140524,,,N*7B\r\n"
    "$GPGGA,120003.00,,,,,0,00,99.99,,,,,,*66\r\n"
    "$GPGSA,A,1,,,,,,,,,,,,,99.99,99.99,99.99*30\r\n"
    "$GPGSV,1,1,01,05,40,083,21*41\r\n";

bool has(const std::string &text, std::string_view part) {
    return text.find(part) != std::string::npos;
}

// Asks until the answer is this: its status, and a part of its output or of its error.
void comes(const words &arguments, int status, const std::string &text) {
    process_result last;
    EXPECT_TRUE(wait_until([&] {
        last = lsctl(arguments);
        return last.status == status && has(status == 0 ? last.out : last.err, text);
    })) << "last: "
        << last.status << " " << last.out << last.err;
}

// Starts the daemon without a terminal around it, in directory `where` with its own bus, settings
// and log; it must give up and say so.
void expect_refused_start(const std::string &where, const char *reason) {
    std::filesystem::create_directories(where + "/user");
    const std::string root = std::filesystem::absolute(where);
    scratch_dir::write(where + "/terminal.conf",
                       "[board]\ntype=1\n[log]\ntarget=stderr\nlevel=info\n");
    setenv("DBHANDLER_FILE", (root + "/user/settings.db").c_str(), 1);
    setenv("ZUKHAL_CONF", (root + "/terminal.conf").c_str(), 1);
    const process_result ended = background({DAEMON_PROGRAM}, where).wait();
    EXPECT_EQ(ended.status, 255);
    EXPECT_TRUE(has(ended.err, reason)) << ended.err;
}

} // namespace

TEST(lsctl_answers, from_a_recording_with_and_without_a_fix) {
    const scratch_dir recordings;
    scratch_dir::write("walk.nmea", recording);
    const terminal term({"--replay", recordings.path() / "walk.nmea"});
    comes({"position"}, 0,
          "Time        2024-05-14T12:00:00Z\n"
          "Fix         3D, 5 satellites used\n"
          "Latitude    48.208490 deg N    (48 deg 12.5094' N)\n"
          "Longitude   16.372080 deg E    (16 deg 22.3248' E)\n"
          "Altitude    171.0 m above mean sea level\n"
          "Accuracy    3.0 m horizontal, 4.0 m vertical\n");
    comes({"position"}, 1,
          "lsctl: the location service answered that the request failed (the receiver may have no "
          "fix yet)\n");
    comes({"time", "--json"}, 0,
          "{\"time_utc\":\"2024-05-14T12:00:00Z\",\"time_of_week_s\":216000}\n");
}

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
    EXPECT_TRUE(has(lsctl({"time", "--json"}).out, "\"error\":\"gate_closed\""));
    term.write_static_location(true);
    comes({"position"}, 0, "70.132317 deg N");
    term.write_static_location(true, "0130.000,S,00200.000,W");
    comes({"position"}, 0, "1.500000 deg S");
    term.write_static_location(false);
    comes({"position"}, 1, "refuses all requests");
}

TEST(lsctl_exit, nobody_there) {
    const scratch_dir scratch;
    setenv("MQUTILS_DIR", scratch.path().c_str(), 1);
    comes({"position"}, 3, "lsctl: the location service is not running\n");
    setenv("MQUTILS_DIR", (scratch.path() / "missing").c_str(), 1);
    comes({"position"}, 3, "lsctl: the bus directory does not exist");
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

TEST(daemon_end, sigterm_during_a_slow_start_kills_it) {
    terminal term({"--fault", "silent"}, false);
    EXPECT_TRUE(wait_until([&] { return has(term.log(), "Configure the measurement rate"); }));
    EXPECT_FALSE(handles_signals(term.daemon()));
    kill(term.daemon(), SIGTERM);
    EXPECT_EQ(term.daemon_end(), "signal 15 (Terminated)");
}

TEST(daemon_end, without_a_serial_device_the_start_fails) {
    const scratch_dir scratch;
    std::filesystem::create_directory("bus");
    setenv("MQUTILS_DIR", (scratch.path() / "bus").c_str(), 1);
    expect_refused_start("bare", "GPS uart initialization failed");
}

TEST(daemon_end, a_second_daemon_on_the_bus_gives_up_and_disturbs_nothing) {
    const terminal term;
    expect_refused_start("second", "Scm registration failed");
    EXPECT_EQ(lsctl({"position"}).status, 0);
}

TEST(files, control_parameters_are_completed_and_obeyed) {
    terminal term;
    scratch_dir::write(term.dir() / "user/gps_control_prm.txt", "GPS_GET_POS_BUFFER_TIME 2.5\n");
    term.restart({});
    EXPECT_EQ(term.file("user/gps_control_prm.txt"), "GPS_GET_POS_BUFFER_TIME 2.5\n"
                                                     "RFFE_REQUEST_SEMAPHORE_WAIT_TIME 15\n"
                                                     "LOCATION_HISTORY_BOOT_TIME_OFFSET 120.0\n");
    EXPECT_TRUE(has(term.log(), "gps_get_pos buffer time = 2.500000"));
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
        term.restart({});
        EXPECT_EQ(lsctl({"power"}).out, shown);
        EXPECT_EQ(record_in<uint32_t>(voip.take(LS_NOTIFY_POWER_MODE)), mode);
    }
}
