// lsctl as a whole, without its main: arguments, records, sentences, exit status.
#include "line_peer.h"
#include "ls_descriptor.h"
#include "lsctl_rig.h"
#include "scratch_dir.h"

#include <csignal>
#include <thread>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

struct lsctl_command_line : testing::Test {
    void SetUp() override { fake_reset(); }
};

TEST_F(lsctl_command_line, wrong_usage_sends_nothing_and_names_what_was_meant) {
    for (const char *line : {"position --timeout 0", "position --as 8", "position --as 256",
                             "watch -i 3", "watch -n 0", "power 3", "stream --format gpsd",
                             "stream --listen 65536", "settings --interval 0", "ubx 06"}) {
        const outcome got = run(line);
        EXPECT_EQ(got.status, 2) << line;
        EXPECT_EQ(got.out, "") << line;
    }
    EXPECT_EQ(run("stream --json --format nmea").status, 2);
    const std::pair<const char *, const char *> rows[] = {
        {"positon", "'positon' is no command; did you mean 'position'?"},
        {"psoition", "'psoition' is no command; did you mean 'position'?"},
        {"sat", "'sat' is no command; did you mean 'satellites'?"},
        {"xyzzy", "'xyzzy' is no command: lsctl --help lists them"},
        {"watch --cuont 2", "'--cuont' is no option of lsctl watch; did you mean '--count'?"},
        {"", "a command is missing: lsctl --help lists them"},
    };
    for (const auto &[line, sentence] : rows)
        expect_outcome(line, 2, "", sentence);
    const std::string behind = "'--json' goes behind the command: lsctl power --json";
    expect_outcome("--json power", 2, R"({"error":"usage","text":")" + behind + "\"}\n", behind);
    EXPECT_TRUE(fake.sent.empty());
    fake.service = always({1, 0, 0, 0, 2, 0, 0, 0});
    EXPECT_EQ(run("power --as ws").status, 0);
    EXPECT_EQ(fake.sent.back().hdr.src_serv_id, 6);
}

TEST_F(lsctl_command_line, records_as_they_come_over_the_bus) {
    // Three in view, two used: PRN 7, and 31, which is not in the list.
    const bytes sky = padded({1, 0, 0, 0, 10, 51, 5, 0, 0, 0, 5, 2, 0xE3, 7, 3, 2, 7, 9, 12, 30},
                             52, {44, 0, 1, 50}, 28);
    const bytes heard = padded(sky, 52, {0, 7, 31}, 40);
    const bytes lpp = {1,    0, 0,  0, 0, 0, 0,    0, 10, 0, 10,   70,
                       0x1E, 2, 45, 0, 0, 0, 0x40, 0, 0,  0, 0xC0, 0};
    fake.service = always(heard);
    expect_outcome(
        "satellites --json", 0,
        R"({"time_utc":"2019-02-05T10:51:05Z","satellites_in_view":3,"satellites_used":2,)"
        R"("satellites":[{"prn":7,"cn0_dbhz":44,"used":true},{"prn":9,"cn0_dbhz":null,"used":false},)"
        R"({"prn":12,"cn0_dbhz":1,"used":false},{"prn":31,"cn0_dbhz":null,"used":true}]})"
        "\n");
    fake.service = always(padded({1}, 20, {5}, 16));
    expect_outcome("time --json", 0,
                   "{\"time_utc\":null,\"time_of_week_s\":5,\"clock_ahead_s\":null,"
                   "\"clock_uncertainty_s\":null}\n");
    fake.service = always(padded(heard, 52, {13}, 14)); // in view, of 12 that have a place
    EXPECT_TRUE(
        run("satellites").out.ends_with("13 in view, 2 used (the service lists the first 12)\n"));
    fake.service = [&lpp](const sent_message &) { fake_send(LS_MSG_REQUEST, 19, lpp); };
    EXPECT_TRUE(run("lpp").out.starts_with("Latitude     45.000000 deg S (coded 4194304)\n"
                                           "Longitude    90.000000 deg W (coded 12582912)\n"
                                           "Accuracy     542 m vertical"));
    fake.service = [](const sent_message &) { fake_send(LS_MSG_REQUEST, 19, bytes(24)); };
    EXPECT_TRUE(run("lpp --json").out.starts_with("{\"error\":\"lpp_empty\""));
    fake.service =
        always(padded({1}, 284, {0xB5, 0x62, 6, 8, 6, 0, 100, 0, 1, 0, 1, 0, 0x7A, 0x12}, 84));
    EXPECT_NE(run("ubx cfg-rate").out.find("  measurement period         100 ms\n"),
              std::string::npos);
}

TEST_F(lsctl_command_line, a_speed_is_the_receivers_own_or_one_of_several) {
    std::string vtg = nmea("GPVTG,90.00,T,,M,161.867,N,299.777,K,A");
    // The record's whole number is 299 modulo 256, its digits are 777.
    fake.service = [&vtg](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_GET_SPEED)
            fake_reply(m.hdr, padded({1}, sizeof(ls_speed_reply), {43, 9}, 14));
        else
            always(padded({1}, 284, {vtg.begin(), vtg.end()}, 84))(m);
    };
    expect_outcome("speed", 0,
                   "Time   unknown\nSpeed  299.8 km/h  (83.3 m/s, 161.9 knots)\n"
                   "Course 90.0 deg from north\n");
    vtg[vtg.size() - 3] ^= 1; // its checksum
    const outcome got = run("speed --json");
    EXPECT_EQ(got.status, 1);
    EXPECT_NE(got.out.find("\"candidates_kmh\":[43.009,"), std::string::npos) << got.out;
    EXPECT_NE(got.out.find(",299.777,"), std::string::npos) << got.out;
}

TEST_F(lsctl_command_line, a_refused_power_change_names_a_service_that_may_and_is_free) {
    const scratch_dir dir;
    setenv("MQUTILS_DIR", dir.path().c_str(), 1);
    const ls_descriptor ws(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    const sockaddr_un place = {AF_UNIX, "6"};
    ASSERT_EQ(bind(ws.fd, reinterpret_cast<const sockaddr *>(&place), sizeof place), 0);
    fake.service = [](const sent_message &m) {
        const bool changes = m.hdr.msg_id == LS_REQUEST_SET_POWER_MODE;
        EXPECT_EQ(m.payload, changes ? bytes({2, 0, 0, 0}) : bytes());
        fake_reply(m.hdr, changes ? bytes(8) : bytes{1, 0, 0, 0, 0, 0, 0, 0});
    };
    expect_outcome("power on", 1, "",
                   "switching on was refused: service 32 may not switch on a receiver that is off; "
                   "lsctl power on --as 9 switches it on");
    unsetenv("MQUTILS_DIR");
}

// Accepts a registration and sends `statuses` as updates at once.
play registering(bytes statuses) {
    return [statuses = std::move(statuses)](const sent_message &m) {
        fake_reply(m.hdr, {1, 0, 0, 0});
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE)
            for (const uint8_t status : statuses)
                fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, padded({status}, 80));
    };
}

TEST_F(lsctl_command_line, watch_tells_why_there_is_no_position) {
    fake.service = registering({0, 2});
    expect_outcome("watch -n 2 -i 4", 1,
                   "no position: the receiver has no fix, or its answer was not valid\n"
                   "no position: the receiver did not answer in time\n");
    EXPECT_EQ(fake_sent(1007).at(0).payload, (bytes{2, 0, 0, 0, 4, 0, 0, 0}));
}

TEST_F(lsctl_command_line, watch_replaces_what_a_killed_watch_left_behind) {
    int registrations = 0;
    fake.service = [&registrations](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE && ++registrations == 1) {
            // An update still of the old one.
            fake_send(LS_MSG_NOTIFICATION, LS_NOTIFY_PERIODIC_UPDATE, padded({0}, 80));
            fake_reply(m.hdr, bytes(4));
            return;
        }
        registering({1})(m);
    };
    const outcome got = run("watch -n 1");
    EXPECT_EQ(got.status, 0);
    EXPECT_EQ(got.err, "lsctl: replaced a registration left behind as service 32\n");
    EXPECT_EQ(fake_sent(1009).size(), 1U);
    EXPECT_EQ(registrations, 2);
}

TEST_F(lsctl_command_line, a_signal_ends_a_request_and_a_watch_which_unregisters) {
    fake.service = [](const sent_message &m) {
        fake_reply(m.hdr, {1, 0, 0, 0});
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE)
            kill(getpid(), SIGHUP);
    };
    expect_outcome("watch", 3, "");
    EXPECT_EQ(fake_sent(1009).size(), 1U);
    // The second one, as timeout(1) sends it, does not cut the clean-up short.
    std::thread late;
    fake.service = [&late](const sent_message &m) {
        if (m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE)
            fake_reply(m.hdr, {1, 0, 0, 0});
        kill(getpid(), m.hdr.msg_id == LS_REQUEST_REGISTER_PERIODIC_UPDATE ? SIGHUP : SIGTERM);
        if (m.hdr.msg_id != LS_REQUEST_REGISTER_PERIODIC_UPDATE)
            late = std::thread([hdr = m.hdr] {
                while (lsctl_signals_last() != SIGTERM)
                    std::this_thread::yield();
                fake_reply(hdr, {1, 0, 0, 0});
            });
    };
    expect_outcome("watch", 3, "");
    late.join();
    fake.service = [](const sent_message &) { kill(getpid(), SIGTERM); };
    expect_outcome("position", 128 + SIGTERM, "");
}

TEST_F(lsctl_command_line, a_closed_output_ends_a_watch_and_a_full_disk_is_reported) {
    const auto run_onto = [](int fd, const char *line) {
        std::fflush(stdout);
        const int kept = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        dup2(fd, STDOUT_FILENO);
        close(fd);
        const int status = run_words(line);
        dup2(kept, STDOUT_FILENO);
        close(kept);
        std::clearerr(stdout);
        return status;
    };
    fake.service = registering({1});
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    testing::internal::CaptureStderr();
    EXPECT_EQ(run_onto(ends[1], "watch -i 4"), 141);
    EXPECT_EQ(fake_sent(1009).size(), 1U); // unregistered
    fake.service = always({1, 0, 0, 0, 2, 0, 0, 0});
    EXPECT_EQ(run_onto(open("/dev/full", O_WRONLY | O_CLOEXEC), "power"), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "lsctl: cannot write to the standard output: No space left on device\n");
}

} // namespace
